// journal_essai.cpp - a private system logger for timed runs (see
// journal_essai.h).
#include "journal_essai.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <thread>
#include <cstring>
#include <dirent.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "processus.h"

namespace {
bool sb_Prive = false;  // this process sees a private /dev
bool sb_Garde = false;  // its reader keeps the lines in <dir>/journal
int si_Marque = 0;      // marks sent by LignesJournal
}  // namespace

// Sets up the private logger when the host has none; see the header.
std::string JournalPrive(const std::string &s_Rep) {
    if (access("/dev/log", F_OK) == 0) return "the host's system logger";
    const std::string s_Hote = s_Rep + "/dev-hote", s_Dev = s_Rep + "/dev";
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mkdir(s_Hote.c_str(), 0755) != 0 || mkdir(s_Dev.c_str(), 0755) != 0 ||
        mount("/dev", s_Hote.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        return std::string("the console (no system logger, and no private one: ") + strerror(errno) +
               "); the times include it";
    DIR *pst_Rep = opendir("/dev");
    for (dirent *e; pst_Rep != nullptr && (e = readdir(pst_Rep)) != nullptr;)
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
            symlink((s_Hote + "/" + e->d_name).c_str(), (s_Dev + "/" + e->d_name).c_str());
    if (pst_Rep != nullptr) closedir(pst_Rep);
    int i_Fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un st = {};
    st.sun_family = AF_UNIX;
    strncpy(st.sun_path, (s_Dev + "/log").c_str(), sizeof st.sun_path - 1);
    if (bind(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0 ||
        mount(s_Dev.c_str(), "/dev", nullptr, MS_BIND, nullptr) != 0)
        return std::string("the console (private logger not set up: ") + strerror(errno) +
               "); the times include it";
    sb_Prive = true;
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int i_Garde = sb_Garde ? open((s_Rep + "/journal").c_str(),
                                      O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600)
                               : -1;
        static char pc[8192];
        for (;;) {
            ssize_t n = recv(i_Fd, pc, sizeof pc - 1, 0);
            if (n <= 0 || i_Garde < 0) continue;
            pc[n] = '\n';
            ssize_t i_Ecrit = write(i_Garde, pc, static_cast<std::size_t>(n) + 1);
            (void)i_Ecrit;
        }
    }
    close(i_Fd);
    return "a private /dev/log, read and dropped (this machine has no system logger)";
}

// The same, keeping the lines when asked; see the header.
bool JournalPrive(const std::string &s_Rep, bool b_Garde) {
    if (access("/dev/log", F_OK) == 0) return !b_Garde;
    sb_Garde = b_Garde;
    JournalPrive(s_Rep);
    sb_Garde = false;
    return sb_Prive;
}

// Sends a mark through the logger and waits until the reader has written it:
// datagrams are taken in order, so every line sent before is in the file.
std::string LignesJournal(const std::string &s_Rep) {
    const std::string s_Marque = "-- marque " + std::to_string(++si_Marque) + " --";
    int i_Fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un st = {};
    st.sun_family = AF_UNIX;
    strncpy(st.sun_path, "/dev/log", sizeof st.sun_path - 1);
    sendto(i_Fd, s_Marque.data(), s_Marque.size(), 0, reinterpret_cast<sockaddr *>(&st), sizeof st);
    close(i_Fd);
    const std::string s_Fin = s_Marque + "\n";
    auto t_Fin = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        std::string s = LitFichier(s_Rep + "/journal");
        std::size_t p = s.find(s_Fin);
        if (p != std::string::npos || std::chrono::steady_clock::now() > t_Fin) {
            // Without the marks of earlier calls.
            std::string s_Lignes;
            std::size_t q = 0;
            for (std::size_t r; (r = s.find('\n', q)) != std::string::npos; q = r + 1)
                if (s.compare(q, 9, "-- marque") != 0) s_Lignes += s.substr(q, r + 1 - q);
            return s_Lignes;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// Undoes the private /dev of this process's own namespace and removes its
// entries (links and the socket: nothing of the host's /dev is touched).
void RetireJournalPrive(const std::string &s_Rep) {
    const std::string s_Hote = s_Rep + "/dev-hote", s_Dev = s_Rep + "/dev";
    if (sb_Prive) umount2("/dev", MNT_DETACH);
    sb_Prive = false;
    if (umount2(s_Hote.c_str(), MNT_DETACH) != 0 && errno != ENOENT && errno != EINVAL) return;
    for (const std::string &s : FichiersCommencantPar(s_Dev, "")) unlink(s.c_str());
    unlink((s_Rep + "/journal").c_str());
    rmdir(s_Dev.c_str());
    rmdir(s_Hote.c_str());
}
