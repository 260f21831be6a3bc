// Dates, file times and the alarm guard around a real blocking read.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "message/message.h"

namespace {

// Runs the tests in a fixed time zone so the expected texts are exact.
class Dates : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "Europe/Paris", 1);
        tzset();
    }
};

TEST_F(Dates, FormatCourtEtBornes) {
    char pc[20];
    EXPECT_EQ(_dattifc(0, pc), 0);
    EXPECT_STREQ(pc, "01/01/1970 01:00:00");
    EXPECT_EQ(_dattifc(1795179503, pc), 0);  // 2026-11-20 12:58:23 UTC
    EXPECT_STREQ(pc, "20/11/2026 13:58:23");
    EXPECT_EQ(_dattifc(DATE_MAX, pc), 0);
    EXPECT_EQ(_dattifc(DATE_MAX + 1, pc), -1);
    EXPECT_STREQ(pc, "");
    EXPECT_EQ(_dattifc(-1, pc), -1);
    EXPECT_STREQ(pc, "");
}

TEST_F(Dates, FormatRfc822) {
    char pc[64];
    EXPECT_EQ(_dattirfc822(1795179503, pc, sizeof pc), 31);
    EXPECT_STREQ(pc, "Fri, 20 Nov 2026 13:58:23 +0100");
    EXPECT_EQ(_dattirfc822(1795179503, pc, 20), 0);
    EXPECT_STREQ(pc, "");
    EXPECT_EQ(_dattirfc822(DATE_MAX + 1, pc, sizeof pc), -1);
    EXPECT_STREQ(pc, "");
}

class Fichiers : public ::testing::Test {
protected:
    std::string s_Rep;
    void SetUp() override {
        char pc[] = "/tmp/vorane-temps-XXXXXX";
        ASSERT_NE(mkdtemp(pc), nullptr);
        s_Rep = pc;
    }
    void TearDown() override {
        std::string s = "rm -rf '" + s_Rep + "'";
        ASSERT_EQ(system(s.c_str()), 0);
    }
};

TEST_F(Fichiers, ToucherLireEtPoserLesDates) {
    std::string s_F = s_Rep + "/f";
    EXPECT_EQ(_ltimefic(s_F.c_str()), -1);
    _touchfic(s_F.c_str());
    time_t t = _ltimefic(s_F.c_str());
    EXPECT_GT(t, 0);
    EXPECT_LE(std::labs(t - time(nullptr)), 5);
    EXPECT_EQ(_mtimefic(s_F.c_str(), 1000000), 0);
    EXPECT_EQ(_ltimefic(s_F.c_str()), 1000000);
    _touchfic(s_F.c_str());
    EXPECT_GT(_ltimefic(s_F.c_str()), 1000000);
    EXPECT_EQ(_mtimefic((s_Rep + "/absent").c_str(), 0), -1);

    // A missing directory: nothing is created and nothing is said.
    _touchfic((s_Rep + "/absent/f").c_str());
    EXPECT_EQ(_exidir((s_Rep + "/absent").c_str()), 0);
    EXPECT_EQ(_exidir(s_Rep.c_str()), 1);
    EXPECT_EQ(_exidir(s_F.c_str()), 0);
}

// The guard interrupts a read that nobody feeds (a limit of 0 seconds
// counts as one, never as "no alarm"), and stays out of the way of one
// that completes.
TEST(Garde, LectureBloqueeInterrompue) {
    int t_Tube[2];
    ASSERT_EQ(pipe(t_Tube), 0);
    char c;
    auto t_Debut = std::chrono::steady_clock::now();
    _debatt(0);
    ssize_t n = read(t_Tube[0], &c, 1);
    int i_Err = errno;
    errno = i_Err;
    int i_Res = _finatt();
    i_Err = errno;
    auto t_Duree = std::chrono::steady_clock::now() - t_Debut;
    EXPECT_EQ(n, -1);
    EXPECT_EQ(i_Res, ETIMEDOUT);
    EXPECT_EQ(i_Err, ETIMEDOUT);
    EXPECT_GE(t_Duree, std::chrono::milliseconds(900));
    EXPECT_LT(t_Duree, std::chrono::seconds(5));

    // Guard idle again: default action, no alarm pending.
    struct sigaction st;
    sigaction(SIGALRM, nullptr, &st);
    EXPECT_EQ(st.sa_handler, SIG_DFL);
    EXPECT_EQ(alarm(0), 0u);
    close(t_Tube[0]);
    close(t_Tube[1]);
}

TEST(Garde, LectureQuiAboutit) {
    int t_Tube[2];
    ASSERT_EQ(pipe(t_Tube), 0);
    ASSERT_EQ(write(t_Tube[1], "x", 1), 1);
    char c = 0;
    _debatt(0);  // counts as one second
    ssize_t n = read(t_Tube[0], &c, 1);
    int i_Res = _finatt();
    EXPECT_EQ(n, 1);
    EXPECT_EQ(c, 'x');
    EXPECT_EQ(i_Res, 0);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(alarm(0), 0u);
    close(t_Tube[0]);
    close(t_Tube[1]);
}

// A blocking call that begins after the first alarm is interrupted too:
// the handler re-arms the alarm every second until the guard ends.
TEST(Garde, RearmementApresLaPremiereAlarme) {
    int t_Tube[2];
    ASSERT_EQ(pipe(t_Tube), 0);
    char c;
    _debatt(1);
    EXPECT_EQ(read(t_Tube[0], &c, 1), -1);
    auto t_Debut = std::chrono::steady_clock::now();
    EXPECT_EQ(read(t_Tube[0], &c, 1), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(_finatt(), ETIMEDOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - t_Debut, std::chrono::seconds(3));
    close(t_Tube[0]);
    close(t_Tube[1]);
}

}  // namespace
