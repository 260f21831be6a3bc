// Message unit: jokers, sorting, header reading and lookups, addresses
// read, and the alarm guard.
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/time.h>
#include <unistd.h>

#include "message/message.h"

namespace {

using Lignes = std::vector<std::string>;

// A pattern matches the whole candidate, bytes compared as they are: the
// reply lines of the mail store, address shapes, stars that must backtrack,
// classes (ranges, negation with "^" only, unclosed, high bytes).
TEST(Joker, Table) {
    struct { const char *pc_Motif, *pc_Candidat; int i_Res; } t[] = {
        {"5[0-9][0-9] *", "550 5.1.1", -1}, {"5[0-9][0-9] *", "550-5.1.1", 0}, {"a*", "a", -1},
        {"?*@?*.?*", "a@b.c", -1},          {"*ab*abc", "abxabyab", 0},       {"a**", "a", 0},
        {"*ab*ab", "abxabyab", -1},         {"[a-c]x", "dx", 0},              {"ab?", "ab", 0},
        {"[a-c]x", "bx", -1},               {"[^a]", "b", -1},                {"[^a]", "a", 0},
        {"[]", "a", 0},                     {"ab[cd", "abc", 0},              {"a", "ab", 0},
        {"[\xe0-\xef]", "\xe9", -1},        {"abc", "ABC", 0},                {nullptr, "a", 0},
    };
    for (auto &c : t) EXPECT_EQ(_expjok(c.pc_Motif, c.pc_Candidat), c.i_Res) << c.pc_Motif;
    // Many stars against a near miss: linear work, not every combination.
    std::string s_Motif;
    for (int i = 0; i < 30; i++) s_Motif += "*a";
    EXPECT_EQ(_expjok((s_Motif + "b").c_str(), std::string(5000, 'a').c_str()), 0);
}

// Sorted by the text from the last "@" on, in any case.
TEST(Tableaux, TriParDomaine) {
    char pc_1[] = "u@c", pc_2[] = "v@B", pc_3[] = "sans", pc_4[] = "x@y@a";
    char *tpc[] = {pc_1, pc_2, pc_3, pc_4, nullptr};
    TriDomSmtpTableau(tpc);
    EXPECT_EQ(Lignes(tpc, tpc + 4), (Lignes{"x@y@a", "v@B", "u@c", "sans"}));
}

// Reads a header from the bytes given as standard input; *ps_Reste gets
// what stays unread.
Entete *LitDepuis(std::string s, std::string *ps_Reste = nullptr) {
    FILE *pf_Sauve = stdin;
    stdin = fmemopen(s.data(), s.size(), "r");
    Entete *pet = nullptr;
    LitEntete(&pet);
    for (int c; ps_Reste != nullptr && (c = getchar()) != EOF;) ps_Reste->push_back(char(c));
    fclose(stdin);
    stdin = pf_Sauve;
    return pet;
}

// Folded fields joined (blank or tab), CRLF kept, NUL bytes replaced, long
// lines in pieces of 1023 bytes (the line feed after exactly 1023 ends that
// line, not the header), input left from the empty line on, 1783 when input
// ends first.
TEST(LitEntete, NoeudsEtReste) {
    const std::string s_L = "X-Long: " + std::string(2492, 'q');
    struct { std::string s_Entree; Lignes v_Noeuds; std::string s_Reste; bool b_1783; } t[] = {
        {"S: a\n b\n\tc\nTo: x\n\ncorps\n", {"S: a\n b\n\tc\n", "To: x\n", "\n"}, "corps\n", false},
        {"Subject: a\r\n b\r\n\r\nx\r\n", {"Subject: a\r\n b\r\n", "\r\n"}, "x\r\n", false},
        {std::string("A: 1\0002\n\n", 8), {"A: 1?2\n", "\n"}, "", false},
        {"A: 1\nB: 2", {"A: 1\n", "B: 2"}, "", true},
        {s_L + "\n\n", {s_L.substr(0, 1023), s_L.substr(1023, 1023), s_L.substr(2046) + "\n", "\n"},
         "", false},
        {s_L.substr(0, 1023) + "\nTo: x\n\ncorps\n", {s_L.substr(0, 1023), "\n", "To: x\n", "\n"}, "corps\n", false},
    };
    for (auto &c : t) {
        std::string s_Reste;
        ::testing::internal::CaptureStderr();
        Lignes v;
        for (Entete *p = LitDepuis(c.s_Entree, &s_Reste); p; p = p->pet_Suivant)
            v.push_back(p->pc_Ligne);
        std::string s_Err = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(v, c.v_Noeuds) << c.s_Entree;
        EXPECT_EQ(s_Reste, c.s_Reste) << c.s_Entree;
        EXPECT_EQ(s_Err.rfind(" !ERR:4, v1.1.0/1783: EOF avant ligne de fin d'entete. ", 0) == 0,
                  c.b_1783) << s_Err;
    }
}

// Lookups by field-name prefix in any case, going on from a node; values
// keep continuations, and one that starts on a continuation line is read
// from there; empty lines told apart, a text cut at its first one.
TEST(Recherches, PrefixeSansCasseEtLignesVides) {
    Entete *pet = LitDepuis("Received: 1\nTo-Do: 2\nTO: d@x\nSubject: a\n b\nReceived: 3\n"
                            "From:\n\tJ <j@x>\nReply-To: \r\n r@x\nCc:\n\n");
    EXPECT_STREQ(RecupEntete(pet, "to:")->pc_Ligne, "TO: d@x\n");
    Entete *pet_Suite = RecupEntete(pet, "received:")->pet_Suivant;
    EXPECT_STREQ(RecupEntete(pet_Suite, "Received:")->pc_Ligne, "Received: 3\n");
    EXPECT_STREQ(RecupValeurEntete(pet, "subject:"), "a\n b\n");
    EXPECT_STREQ(RecupValeurEntete(pet, "Cc:"), "\n");
    EXPECT_STREQ(RecupValeurEntete(pet, "from:"), "J <j@x>\n");
    EXPECT_STREQ(RecupValeurEntete(pet, "reply-to:"), "r@x\n");
    const char *tpc[] = {nullptr, "", "\nx", "\r\n", "\r\nx"};
    for (int i = 0; i < 5; i++) EXPECT_EQ(LigneEnteteVide(tpc[i]), i < 4 ? i + 1 : 0) << i;
    std::string s = "a\nb\n\nc\n\n";
    EXPECT_STREQ(VerifLigneEOL(s.data()), "a\nb\n");
    char pc[8] = "ZZZZZZZ";
    EXPECT_EQ(RecupValeur("<<abcdef>", "<", ">", pc, 4), 3);
    EXPECT_EQ(std::string(pc, 5), std::string("abc\0Z", 5));
}

// Address, phrase and the rest of the list: a comma inside quotes,
// comments or angle brackets, a trailing comment as display name, folds.
TEST(Extraction, AdressePhraseEtReste) {
    struct { const char *pc_Source, *pc_Adresse, *pc_Phrase, *pc_Reste; } t[] = {
        {"\"Dupont, Jean\" <jd>, b", "jd", "\"Dupont, Jean\"", " b"},
        {"jd (Jean Dupont)", "jd", "\"Jean Dupont\"", ""},
        {"x (c) (d)", "x", "(c) (d)", ""},
        {"(Dupont, Jean)  jd . dom  ", "jd.dom", "\"Dupont, Jean\"", ""},
        {"x <a,b> c", "a", "x", "b> c"},
        {"Jean\r\n\tDupont\n <jd@\n dom>", "jd@dom", "Jean Dupont", ""},
        {"a) b <c>", "", "a) b <c>", ""},
        {"ab\\", "ab\\", "", ""},
    };
    char pc_A[TAILLE_ADRESSE], pc_P[TAILLE_PHRASE];
    for (auto &c : t) {
        EXPECT_STREQ(FetchAddress(c.pc_Source, pc_A, sizeof pc_A, pc_P, sizeof pc_P), c.pc_Reste);
        EXPECT_EQ(std::string(pc_A) + "|" + pc_P, std::string(c.pc_Adresse) + "|" + c.pc_Phrase);
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
    EXPECT_EXIT(FetchAddress("<x>abcdefgh", pc_A, sizeof pc_A, pc_P, sizeof pc_P),
                ::testing::ExitedWithCode(65), "v1.1.0/979: Buffer phrase trop petit");
}

// A guard of 0 s counts as 1 s; after the first alarm the handler re-arms
// it, so a later blocking call is interrupted too; the end clears it.
TEST(Garde, LecturesBloqueesInterrompues) {
    int t_Tube[2];
    ASSERT_EQ(pipe(t_Tube), 0);
    char c;
    // Checked before each blocking read: a guard that never fires fails the
    // case instead of hanging it.
    itimerval it;
    auto AlarmeArmee = [&] {
        return getitimer(ITIMER_REAL, &it) == 0 && it.it_value.tv_sec + it.it_value.tv_usec > 0; };
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
