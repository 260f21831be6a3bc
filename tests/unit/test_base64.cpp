// Base64 and Q decoding of encoded-word texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "codec/codec.h"

namespace {

// Decodes into a buffer of the given size and checks nothing is written past it.
template <typename F>
std::string Decode(F f, const std::string &s_Entree, std::size_t t_Taille = 256) {
    char pc[300];
    memset(pc, 'Z', sizeof pc);
    f(s_Entree.c_str(), pc, t_Taille);
    EXPECT_EQ(pc[t_Taille], 'Z') << s_Entree << " / " << t_Taille;
    return t_Taille == 0 ? "" : std::string(pc);
}

// Decoding stops after a padded group or at a blank or line feed between
// groups (inside a group they are skipped); an unpadded tail decodes as if
// padded; a group is decoded only while it fits whole with the NUL.
TEST(DecodeBase64, OuSArreteLeDecodageEtBorne) {
    struct {
        const char *pc_Entree, *pc_Attendu;
    } t[] = {
        {"QUJD", "ABC"},        {"QUI=", "AB"},        {"QQ==QUJD", "A"},  // stops after padding
        {"QU JD", "ABC"},       {"QUJD REVG", "ABC"},  {"QUJD\nREVG", "ABC"},
        {"QUJD====", "ABC"},    {"Y2Fmw6k=", "caf\xC3\xA9"},
        {"QUJDQUI", "ABCAB"},   {"QUJDQ", "ABC"},      // unpadded end: as if padded
        {"!!!!", "\xFB\xEF\xBF"},  // outside the alphabet: -1 with arithmetic shifts
    };
    for (auto &c : t) EXPECT_EQ(Decode(DecodeBase64, c.pc_Entree), c.pc_Attendu) << c.pc_Entree;

    EXPECT_EQ(Decode(DecodeBase64, "QUJDREVG", 5), "ABC");
    EXPECT_EQ(Decode(DecodeBase64, "QUJDREVG", 4), "");
    EXPECT_EQ(Decode(DecodeBase64, "QUJD", 0), "");

    int i_Pos = 0;
    char pc[4];
    EXPECT_EQ(DecodeQuadruplet(pc, "Q===", &i_Pos), 0);
    EXPECT_EQ(i_Pos, 4);
    i_Pos = 0;
    EXPECT_EQ(DecodeQuadruplet(pc, "QQ", &i_Pos), 1);
    EXPECT_EQ(i_Pos, 2);  // never past the end of the text
}

// "=XX" gives the byte, "_" a blank; an "=" too near the end stays, one
// without hexadecimal digits gives byte 0 (the end); the output is bounded.
TEST(DecodeCodageQ, Table) {
    struct {
        const char *pc_Entree, *pc_Attendu;
    } t[] = {
        {"caf=E9_au_lait", "caf\xE9 au lait"},
        {"100=", "100="}, {"a=4", "a=4"},     // "=" near the end stays
        {"=5F", "_"},                          // an encoded underscore stays one
        {"=e9=3D", "\xE9="}, {"ab=00cd", "ab"}, {"=zzx", ""},  // no number: byte 0
    };
    for (auto &c : t) EXPECT_EQ(Decode(DecodeCodageQ, c.pc_Entree), c.pc_Attendu) << c.pc_Entree;
    EXPECT_EQ(Decode(DecodeCodageQ, "=41=42=43=44", 3), "AB");
    EXPECT_EQ(Decode(DecodeCodageQ, "abc", 1), "");
    EXPECT_EQ(Decode(DecodeCodageQ, "abc", 0), "");
}

}  // namespace
