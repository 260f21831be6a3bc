// Message unit: jokers, bounded copy, sorting, header reading and lookups,
// addresses read and written, dates and the alarm guard.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <stdio_ext.h>
#include <string>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

#include "message/message.h"

namespace {

using Lignes = std::vector<std::string>;

TEST(Joker, Table) {
    struct { const char *pc_Motif, *pc_Candidat; int i_Res; } t[] = {
        {"5[0-9][0-9] *", "550 5.1.1 x", -1}, {"5[0-9][0-9] *", "550-5.1.1", 0},
        {"5[0-9][0-9] *", "550 ", -1},        {"?*@?*.?*", "a@b.c", -1},
        {"?*@?*.?*", "@b.c", 0},              {"?*@?*.?*", "a@b.", 0},
        {"a*", "a", -1},                      {"a**", "a", 0},
        {"*a", "", 0},                        {"*ab*ab", "abxabyab", -1},
        {"*ab*abc", "abxabyab", 0},           {"*.fr", "jd@x.fr.com", 0},
        {"[a-c]x", "bx", -1},                 {"[a-c]x", "dx", 0},
        {"[^a]", "b", -1},                    {"[^a]", "a", 0},
        {"[!a]", "!", -1},                    {"[]", "a", 0},
        {"ab[cd", "abc", 0},                  {"[a-cx-z]", "y", -1},
        {"[\xe0-\xef]", "\xe9", -1},          {"", "a", 0},
        {"a", "ab", 0},                       {"abc", "ABC", 0},
        {"ab?", "ab", 0},                     {nullptr, "a", 0},
    };
    for (auto &c : t) EXPECT_EQ(_expjok(c.pc_Motif, c.pc_Candidat), c.i_Res) << c.pc_Motif << " " << c.pc_Candidat;
    // Many stars against a near miss: linear work, not every combination.
    std::string s_Motif;
    for (int i = 0; i < 30; i++) s_Motif += "*a";
    EXPECT_EQ(_expjok((s_Motif + "b").c_str(), std::string(5000, 'a').c_str()), 0);
}

TEST(CopieBornee, TronqueTermineEtCasse) {
    char pc[5] = "xxxx";
    EXPECT_EQ(_strncpy(pc, "abcdef", 3), 2);
    EXPECT_STREQ(pc, "ab");
    EXPECT_EQ(pc[3], 'x');
    char pc_Casse[] = "AbC-\xc9t\xe9@Z.fr";
    _minu(pc_Casse);
    EXPECT_STREQ(pc_Casse, "abc-\xc9t\xe9@z.fr");
}

// Sorted by the text from the last "@" on, in any case.
TEST(Tableaux, TriParDomaine) {
    char pc_1[] = "u@c", pc_2[] = "v@B", pc_3[] = "sans", pc_4[] = "x@y@a";
    char *tpc[] = {pc_1, pc_2, pc_3, pc_4, nullptr};
    TriDomSmtpTableau(tpc);
    EXPECT_EQ(Lignes(tpc, tpc + 4), (Lignes{"x@y@a", "v@B", "u@c", "sans"}));
}

// Reads a header from the bytes put on standard input through a pipe, as
// Postfix gives them; *ps_Reste gets what stays unread.
Entete *LitDepuis(const std::string &s, std::string *ps_Reste = nullptr) {
    int t_Tube[2];
    EXPECT_EQ(pipe(t_Tube), 0);
    EXPECT_EQ(write(t_Tube[1], s.data(), s.size()), static_cast<ssize_t>(s.size()));
    close(t_Tube[1]);
    dup2(t_Tube[0], 0);
    close(t_Tube[0]);
    __fpurge(stdin);
    clearerr(stdin);
    Entete *pet = nullptr;
    LitEntete(&pet);
    for (int c; ps_Reste != nullptr && (c = getchar()) != EOF;) ps_Reste->push_back(static_cast<char>(c));
    return pet;
}

Lignes Textes(const Entete *pet) {
    Lignes v;
    for (; pet != nullptr; pet = pet->pet_Suivant) v.emplace_back(pet->pc_Ligne);
    return v;
}

// Folded fields joined (blank or tab), CRLF kept, NUL bytes replaced, long
// lines in pieces of 1023 bytes, input left from the empty line on, 1783
// when input ends first.
TEST(LitEntete, NoeudsEtReste) {
    const std::string s_Long = "X-Long: " + std::string(2492, 'q');
    struct { std::string s_Entree; Lignes v_Noeuds; std::string s_Reste; bool b_1783; } t[] = {
        {"Subject: a\n b\n\tc\nTo: x\n\ncorps\n", {"Subject: a\n b\n\tc\n", "To: x\n", "\n"}, "corps\n", false},
        {"Subject: a\r\n b\r\n\r\ncorps\r\n", {"Subject: a\r\n b\r\n", "\r\n"}, "corps\r\n", false},
        {std::string("A: 1\0002\n\n", 8), {"A: 1?2\n", "\n"}, "", false},
        {"A: 1\nB: 2", {"A: 1\n", "B: 2"}, "", true},
        {s_Long + "\n\n", {s_Long.substr(0, 1023), s_Long.substr(1023, 1023), s_Long.substr(2046) + "\n", "\n"}, "", false},
    };
    for (auto &c : t) {
        std::string s_Reste;
        ::testing::internal::CaptureStderr();
        Entete *pet = LitDepuis(c.s_Entree, &s_Reste);
        std::string s_Err = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(Textes(pet), c.v_Noeuds) << c.s_Entree;
        EXPECT_EQ(s_Reste, c.s_Reste) << c.s_Entree;
        EXPECT_EQ(s_Err.rfind(" !ERR:4, v1.1.0/1783: EOF avant ligne de fin d'entete. ", 0) == 0, c.b_1783) << s_Err;
    }
}

// Lookups by field-name prefix in any case, going on from a node; values
// keep continuations; empty lines told apart, a text cut at its first one.
TEST(Recherches, PrefixeSansCasseEtLignesVides) {
    Entete *pet = LitDepuis("Received: un\nTo-Do: rien\nTO: d@x\nSubject: a\n b\nReceived: deux\n\n");
    EXPECT_STREQ(RecupEntete(pet, "to:")->pc_Ligne, "TO: d@x\n");
    EXPECT_STREQ(RecupEntete(RecupEntete(pet, "received:")->pet_Suivant, "Received:")->pc_Ligne, "Received: deux\n");
    EXPECT_STREQ(RecupValeurEntete(pet, "subject:"), "a\n b\n");
    EXPECT_STREQ(RecupValeurEntete(pet, "Cc:"), "\n");
    const char *tpc[] = {nullptr, "", "\nx", "\r\n", "\r\nx"};
    for (int i = 0; i < 5; i++) EXPECT_EQ(LigneEnteteVide(tpc[i]), i < 4 ? i + 1 : 0) << i;
    std::string s = "a\nb\n\nc\n\n";
    EXPECT_STREQ(VerifLigneEOL(s.data()), "a\nb\n");
    char pc[8];
    memset(pc, 'Z', sizeof pc);
    EXPECT_EQ(RecupValeur("<<abcdef>", "<", ">", pc, 4), 3);
    EXPECT_STREQ(pc, "abc");
    EXPECT_EQ(pc[4], 'Z');
}

TEST(Extraction, AdressePhraseEtReste) {
    struct { const char *pc_Source, *pc_Adresse, *pc_Phrase, *pc_Reste; } t[] = {
        {"\"Dupont, Jean\" <jd>, b", "jd", "\"Dupont, Jean\"", " b"},
        {"jd (Jean Dupont)", "jd", "\"Jean Dupont\"", ""},
        {"x (c) (d)", "x", "(c) (d)", ""},
        {"  jd . dom  ", "jd.dom", "", ""},
        {"jd\\\"x", "jd\"x", "", ""},
        {"(Dupont, Jean) <jd>", "jd", "(Dupont, Jean) < >", ""},
        {"x <a,b> c", "a", "x", "b> c"},
        {"Jean\r\n\tDupont\n <jd@\n dom>", "jd@dom", "Jean Dupont", ""},
        {"a) b <c>", "", "a) b <c>", ""},
        {"ab\\", "ab\\", "", ""},
    };
    for (auto &c : t) {
        char pc_A[TAILLE_ADRESSE], pc_P[TAILLE_PHRASE];
        EXPECT_STREQ(FetchAddress(c.pc_Source, pc_A, sizeof pc_A, pc_P, sizeof pc_P), c.pc_Reste);
        EXPECT_STREQ(pc_A, c.pc_Adresse) << c.pc_Source;
        EXPECT_STREQ(pc_P, c.pc_Phrase) << c.pc_Source;
    }
}

// What does not fit a buffer is refused at level 3, never overflowed.
TEST(FetchAddress, BornesDesTampons) {
    char pc_A[TAILLE_ADRESSE], pc_P[8];
    const std::string s_255(255, 'a');
    FetchAddress(("<" + s_255 + ">abcdefg").c_str(), pc_A, sizeof pc_A, pc_P, sizeof pc_P);
    EXPECT_EQ(pc_A + std::string(" ") + pc_P, s_255 + " abcdefg");  // each fills its buffer
    EXPECT_EXIT(FetchAddress(std::string(256, 'a').c_str(), pc_A, sizeof pc_A, pc_P, sizeof pc_P),
                ::testing::ExitedWithCode(65), "v1.1.0/958: Buffer adresse trop petit \\(a+\\)");
    EXPECT_EXIT(FetchAddress("<x>abcdefgh", pc_A, sizeof pc_A, pc_P, sizeof pc_P), ::testing::ExitedWithCode(65),
                "v1.1.0/979: Buffer phrase trop petit");
    EXPECT_EXIT(FetchAddress("abcdef   gh <x>", pc_A, sizeof pc_A, pc_P, 7), ::testing::ExitedWithCode(65),
                "v1.1.0/972: Buffer phrase trop petit");
}

// An address that a reader could take for more than one is written as a
// quoted string; nothing written when it does not fit.
TEST(EcritAdresse, FormeEcrite) {
    struct { const char *pc_Adresse, *pc_Ecrite; } t[] = {
        {"\"a b\"@x.test", "\"a b\"@x.test"},
        {"postmaster@[10.0.0.1]", "postmaster@[10.0.0.1]"},
        {"a>, \"Boss\" <ceo@vorane.example", "\"a>, \\\"Boss\\\" <ceo\"@vorane.example"},
        {"x\nReply-To:y@evil.example", "\"x Reply-To:y\"@evil.example"},
        {"a@b@c.test", "\"a@b\"@c.test"},
        {"x@partenaire.test\\", "\"x@partenaire.test\\\\\""},
    };
    char pc[TAILLE_TEXTE];
    for (auto &c : t) {
        EXPECT_EQ(EcritAdresse(c.pc_Adresse, pc, sizeof pc), static_cast<int>(strlen(c.pc_Ecrite)));
        EXPECT_STREQ(pc, c.pc_Ecrite) << c.pc_Adresse;
    }
    EXPECT_EQ(EcritAdresse("a b@x", pc, 5), -1);
    EXPECT_STREQ(pc, "");
}

// Dates past DATE_MAX, or longer than the buffer, give an empty text.
TEST(Dates, FormatsEtBornes) {
    setenv("TZ", "Europe/Paris", 1);
    tzset();
    char pc[64];
    EXPECT_EQ(_dattirfc822(1795179503, pc, sizeof pc), 31);
    EXPECT_STREQ(pc, "Fri, 20 Nov 2026 13:58:23 +0100");
    EXPECT_EQ(_dattirfc822(1795179503, pc, 20), 0);
    EXPECT_EQ(_dattifc(DATE_MAX, pc), 0);
    EXPECT_EQ(_dattifc(DATE_MAX + 1, pc), -1);
    EXPECT_STREQ(pc, "");
}

// Whether an alarm is pending (checked before each blocking read, so that a
// guard that never fires fails the case instead of hanging it).
bool AlarmeArmee() {
    itimerval it;
    getitimer(ITIMER_REAL, &it);
    return it.it_value.tv_sec != 0 || it.it_value.tv_usec != 0;
}

// A guard of 0 s counts as 1 s; after the first alarm the handler re-arms
// it, so a later blocking call is interrupted too; the end clears it.
TEST(Garde, LecturesBloqueesInterrompues) {
    int t_Tube[2];
    ASSERT_EQ(pipe(t_Tube), 0);
    char c;
    _debatt(0);
    ASSERT_TRUE(AlarmeArmee());
    EXPECT_EQ(read(t_Tube[0], &c, 1), -1);
    ASSERT_TRUE(AlarmeArmee());
    EXPECT_EQ(read(t_Tube[0], &c, 1), -1);
    EXPECT_EQ(_finatt(), ETIMEDOUT);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_FALSE(AlarmeArmee());
}

}  // namespace
