// Base64 and Q decoding of encoded-word texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "codec/codec.h"

namespace {

// Decodes with a buffer of the given size inside a larger one, and checks
// that nothing is written past the size.
std::string B64(const std::string &s_Entree, std::size_t t_Taille = 256) {
    char pc[300];
    memset(pc, 'Z', sizeof pc);
    DecodeBase64(s_Entree.c_str(), pc, t_Taille);
    EXPECT_EQ(pc[t_Taille], 'Z') << s_Entree << " / " << t_Taille;
    return t_Taille == 0 ? "" : std::string(pc);
}

std::string Q(const std::string &s_Entree, std::size_t t_Taille = 256) {
    char pc[300];
    memset(pc, 'Z', sizeof pc);
    char *pc_Res = DecodeCodageQ(s_Entree.c_str(), pc, t_Taille);
    EXPECT_EQ(pc_Res, pc);
    EXPECT_EQ(pc[t_Taille], 'Z') << s_Entree << " / " << t_Taille;
    return t_Taille == 0 ? "" : std::string(pc);
}

TEST(CharToBase64, Alphabet) {
    EXPECT_EQ(CharToBase64('A'), 0);
    EXPECT_EQ(CharToBase64('Z'), 25);
    EXPECT_EQ(CharToBase64('a'), 26);
    EXPECT_EQ(CharToBase64('z'), 51);
    EXPECT_EQ(CharToBase64('0'), 52);
    EXPECT_EQ(CharToBase64('9'), 61);
    EXPECT_EQ(CharToBase64('+'), 62);
    EXPECT_EQ(CharToBase64('/'), 63);
    for (char c : {'=', '-', '_', ' ', '\0', '\xE9', '\x80', '\xFF'}) EXPECT_EQ(CharToBase64(c), -1);
}

TEST(DecodeQuadruplet, CompteEtPosition) {
    struct {
        const char *pc_Entree;
        int i_Compte, i_Position;
        const char *pc_Octets;
    } t[] = {{"QUJD", 3, 4, "ABC"},     {"QUI=", 2, 4, "AB"},   {"QQ==", 1, 4, "A"},
             {"Q===", 0, 4, ""},        {"====", 0, 4, ""},     {"Q U\nJD", 3, 6, "ABC"},
             {"QUI", 2, 3, "AB"},       {"QQ", 1, 2, "A"},      {"", 0, 0, ""}};
    for (auto &c : t) {
        char pc[4] = {0, 0, 0, 0};
        int i_Pos = 0;
        EXPECT_EQ(DecodeQuadruplet(pc, c.pc_Entree, &i_Pos), c.i_Compte) << c.pc_Entree;
        EXPECT_EQ(i_Pos, c.i_Position) << c.pc_Entree;
        EXPECT_EQ(std::string(pc, static_cast<std::size_t>(c.i_Compte)), c.pc_Octets);
    }
}

TEST(DecodeBase64, OuSArreteLeDecodage) {
    struct {
        const char *pc_Entree, *pc_Attendu;
    } t[] = {
        {"QUJD", "ABC"},
        {"QUI=", "AB"},
        {"QQ==", "A"},
        {"QQ==QUJD", "A"},         // stops after a padded group
        {"QU JD", "ABC"},          // blank inside a group
        {"QUJD REVG", "ABC"},      // blank between groups
        {"QUJD\nREVG", "ABC"},
        {"QUJD====", "ABC"},
        {" QUJD", ""},
        {"Y2Fmw6k=", "caf\xC3\xA9"},
        {"QUJDQQ", "ABCA"},        // unpadded last group, as if padded
        {"QUJDQUI", "ABCAB"},
        {"QUJDQ", "ABC"},
        {"!!!!", "\xFB\xEF\xBF"},  // outside the alphabet: -1, arithmetic shifts
    };
    for (auto &c : t) EXPECT_EQ(B64(c.pc_Entree), c.pc_Attendu) << c.pc_Entree;
}

TEST(DecodeBase64, BorneDuTampon) {
    EXPECT_EQ(B64("QUJDREVG", 5), "ABC");
    EXPECT_EQ(B64("QUJDREVG", 4), "");
    EXPECT_EQ(B64("QUJDREVG", 0), "");
    // A buffer of size N receives at most N - 2 bytes, whatever N.
    std::string s_Long(200, 'Q');
    for (std::size_t n = 1; n < 120; n++) EXPECT_LE(B64(s_Long, n).size() + 2, std::max<std::size_t>(n, 2));
}

TEST(DecodeCodageQ, Table) {
    struct {
        const char *pc_Entree, *pc_Attendu;
    } t[] = {
        {"caf=E9_au_lait", "caf\xE9 au lait"},
        {"100=", "100="},
        {"a=4", "a=4"},
        {"=5F", "_"},             // an encoded underscore stays one
        {"=e9", "\xE9"},
        {"=3D=3F", "=?"},
        {"ab=00cd", "ab"},        // a zero byte ends the text
        {"=zzx", ""},             // no number: byte 0
        {"=", "="},
    };
    for (auto &c : t) EXPECT_EQ(Q(c.pc_Entree), c.pc_Attendu) << c.pc_Entree;
}

TEST(DecodeCodageQ, BorneDuTampon) {
    EXPECT_EQ(Q("abcdef", 4), "abc");
    EXPECT_EQ(Q("=41=42=43=44", 3), "AB");
    EXPECT_EQ(Q("abc", 1), "");
    EXPECT_EQ(Q("abc", 0), "");
}

}  // namespace
