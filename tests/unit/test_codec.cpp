// Codec unit: base64 and Q decoding, encoded words both ways and their cut
// rule, character-set conversion, the ASCII fold, unfolding.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "codec/codec.h"

namespace {

// Runs f(output, size) on a buffer of 'Z': nothing may be written past the
// size, and standard error is empty or starts with the level-4 line of the
// message given.  Returns the output ("<nul>" when f gives null).
template <typename F>
std::string Borne(std::size_t t_Taille, F f, const std::string &s_Message = "") {
    static char pc[2048];
    memset(pc, 'Z', sizeof pc);
    ::testing::internal::CaptureStderr();
    bool b_Nul = f(pc, t_Taille) == nullptr;
    std::string s_Err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(pc[t_Taille], 'Z') << t_Taille;
    if (s_Message.empty()) EXPECT_EQ(s_Err, "");
    else EXPECT_EQ(s_Err.rfind(" !ERR:4, v1.1.0/" + s_Message, 0), 0u) << s_Err;
    return b_Nul ? "<nul>" : t_Taille == 0 ? "" : std::string(pc);
}

char *B64(const char *pc_E, char *pc_S, std::size_t t) { return DecodeBase64(pc_E, pc_S, t), pc_S; }
using Filtre = char *(*)(const char *, char *, std::size_t);
const Filtre Q = DecodeCodageQ, DEP = Deplie, DEQ = DeQuotte;

// Base64 stops after a padded group or at a blank between groups and
// decodes a group only while it fits whole; "=XX" and "_" of Q, an "="
// too near the end kept; unfolding keeps the continuation's blank; a
// trailing backslash ends the text (the "zz" after its NUL stays unread).
TEST(Decodeurs, Base64QDeplieDeQuotte) {
    struct { Filtre f; const char *pc_Entree; std::size_t t; const char *pc_Attendu; } t[] = {
        {B64, "QUJD", 256, "ABC"},      {B64, "QUI=", 256, "AB"},     {B64, "QQ==QUJD", 256, "A"},
        {B64, "QUJDREVG", 5, "ABC"},    {B64, "QUJDREVG", 4, ""},     {B64, "QU JD RE", 256, "ABC"},
        {B64, "QUJDQUI", 256, "ABCAB"}, {Q, "a=4", 256, "a=4"},       {Q, "100=", 256, "100="},
        {Q, "ab=00cd", 256, "ab"},      {Q, "=41=42=43=44", 3, "AB"}, {DEP, "abcdef", 4, "abc"},
        {Q, "caf=E9_au_lait", 256, "caf\xE9 au lait"}, {DEQ, "a\\\\b\\\0zz", 256, "ab"},
        {DEP, "un\n\tdeux\nxx b\n", 256, "un\tdeux b"}, {DEQ, "\"\"\"abcdef", 4, "abc"},
        {DEQ, "\"J \\\"Jo\\\" D\"\n\t(x)", 256, "J Jo D\t(x)"},
    };
    for (auto &c : t)
        EXPECT_EQ(Borne(c.t, [&](char *pc, std::size_t n) { return c.f(c.pc_Entree, pc, n); }),
                  c.pc_Attendu) << c.pc_Entree;
}

std::string DQ(const std::string &s, const char *pc_Cs, std::size_t t, const std::string &s_M) {
    return Borne(t, [&](char *pc, auto n) { return DecodeQP(s.c_str(), pc_Cs, pc, n); }, s_M);
}

// Words decoded into the target charset (a word without charset: Latin-1),
// blanks between adjacent words dropped, a value without words folded to
// ASCII; a bad value is reported and copied unchanged (a failing row
// without an output of its own), within the room left.
TEST(DecodeQP, MotsErreursEtBornes) {
    const std::string s_Long = "CHARSET-INCONNU-DE-PLUS-DE-TRENTE-ET-UN-CARACTERES";
    struct { std::string s_Valeur; const char *pc_Cible; std::size_t t;
             std::string s_Sortie, s_Message; } t[] = {
        {"Caf\xE9 \xF1 ok", "UTF-8", 512, "Cafe ? ok", ""},
        {"=?utf-8?q?=C3=A9t=C3=A9?= / =?utf-8?b?w6k=?=", "ISO-8859-1", 512, "\xE9t\xE9 / \xE9", ""},
        {"=??Q?caf=E9?=", "UTF-8", 512, "caf\xC3\xA9", ""},
        {"=??Q?a?=\n\t=??Q?b?= \r\n =??Q?c?= fin", "UTF-8", 512, "abc fin", ""},
        {"=?UTF-8?Q?=C3=A9=C3=A9=C3=A9?= xyz", "UTF-8", 6, "\xC3\xA9\xC3\xA9 ", ""},
        {"Jean =?UTF-8", "UTF-8", 512, "", "2414: Mauvais format <Jean =?UTF-8>. "},
        {"=?UTF-8?X?abc?=", "UTF-8", 512, "", "2421: Mauvais format <=?UTF-8?X?abc?=>. "},
        {"=?UTF-8?B?w6k=?= =?UTF-8?Q?a", "UTF-8", 512, "", "2428: Mauvais format <=?UTF-8?B"},
        {"=?" + s_Long + "?Q?a?=", "UTF-8", 512, "",
         "2457: Erreur iconv_open(<UTF-8>,<" + s_Long.substr(0, 31) + ">), errno=22 ("},
        {"=?UTF-8?Q?ab=E9?=", "ISO-8859-1", 512, "", "2467: Erreur iconv <\xE9> de <UTF-8> vers"},
        {"abc =?UTF-8?Q?=E9?=", "ISO-8859-1", 8, "ab", "2467: "},
    };
    for (auto &c : t) {
        const bool b_Inchange = c.s_Sortie.empty() && !c.s_Message.empty();
        EXPECT_EQ(DQ(c.s_Valeur, c.pc_Cible, c.t, c.s_Message),
                  b_Inchange ? c.s_Valeur : c.s_Sortie);
    }
}

std::string EQ(const std::string &s, const char *pc_Cs, std::size_t t = 1024) {
    return Borne(t, [&](char *pc, auto n) { return EncodeQP(s.c_str(), pc_Cs, pc, int(n)); });
}

// A word closes before an ASCII byte once counter + unit (the byte and the
// high bytes after it) would pass 75, never before a high byte.  Only
// letters stay as they are, a blank becomes "_"; ASCII values are copied;
// out of room, the output ends with the separator.
TEST(EncodeQP, CoupureMotsBornesEtAllerRetour) {
    EXPECT_EQ(yfautcouper("a", 74), 0);
    EXPECT_EQ(yfautcouper("a", 75), 1);
    EXPECT_EQ(yfautcouper("a\xE9", 74), 1);
    EXPECT_EQ(yfautcouper("\xE9", 500), 0);
    struct { const char *pc_Valeur, *pc_Charset, *pc_Attendu; } t[] = {
        {"Bonjour 2024 =?x?=", "UTF-8", "Bonjour 2024 =?x?="},
        {"No\xEBl", nullptr, "=?ISO-8859-1?Q?No=EBl?="},
        {"\xE9t\xE9 2024!", "iso8859-15", "=?iso8859-15?Q?=E9t=E9_=32=30=32=34=21?="},
        {"a_b=c?d\xE9", "ISO-8859-1", "=?ISO-8859-1?Q?a=5Fb=3Dc=3Fd=E9?="},
    };
    for (auto &c : t) EXPECT_EQ(EQ(c.pc_Valeur, c.pc_Charset), c.pc_Attendu);
    std::string s, s_Cyr;
    for (int i = 0; i < 100; i++) s += "\xE9" "a";
    std::string s_Sortie = EQ(s.substr(0, 80), "ISO-8859-1");
    EXPECT_EQ(s_Sortie.substr(0, 90), "=?ISO-8859-1?Q?=E9a=E9a=E9a=E9a=E9a=E9a=E9a=E9a=E9a=E9a"
                                      "=E9a=E9a=E9a=E9?=\n\t=?ISO-8859-1?Q?a");
    std::istringstream is(s_Sortie);
    for (std::string s_Ligne; std::getline(is, s_Ligne);) EXPECT_LE(s_Ligne.size(), 76u);
    s_Sortie = EQ(s, "UTF-8", 100);
    EXPECT_EQ(s_Sortie.substr(s_Sortie.size() - 4), "?=\n\t");
    // Multi-byte texts: no empty word, no word cut inside a character (each
    // word decodes alone), and the text back through DecodeQP.
    for (int i = 0; i < 60; i++) s_Cyr += "\xD0\x96";
    EXPECT_EQ(EQ(s_Cyr, "UTF-8").size(), 10 + 120 * 3 + 2u);  // one word: a unit is never split
    for (const std::string &s_Texte :
         {"Re: " + s_Cyr, std::string("Fran\xC3\xA7ois \xE2\x82\xAC \xD0\x96\xD0\xB8\xD0\xB7"),
          std::string("\xC3\xA9\xC3\xA9 \xC3\xA9 a b c d e f g h i j k l m n o p q r s t u v w x y "
                      "z 0 1 2 3 4 5 6 7 8 9 \xC3\xA8\xC3\xA8\xC3\xA8 fin")}) {
        std::string s_Sortie = EQ(s_Texte, "UTF-8");
        EXPECT_EQ(s_Sortie.find("?Q?" "?="), std::string::npos) << s_Sortie;
        EXPECT_EQ(DQ(s_Sortie, "UTF-8", 1024, ""), s_Texte);
    }
    // Out of room, a UTF-8 text ends on a whole character at every size:
    // what is written decodes, word by word, to the start of the text.
    const std::string s_Utf8 = "\"a" + std::string("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80") + "b \xD0\x96\"";
    std::string s_Long;
    for (int i = 0; i < 12; i++) s_Long += s_Utf8;
    for (std::size_t t = 20; t < 220; t++) {
        std::string s_Mots = EQ(s_Long, "utf-8", t);
        std::string s_Decode = DQ(s_Mots.substr(0, s_Mots.find_last_of('=') + 1), "UTF-8", 1024, "");
        EXPECT_EQ(s_Long.rfind(s_Decode, 0), 0u) << t << ": " << s_Mots;
    }
}

// A full output keeps the whole characters that fit; on failure conv_jc
// copies the source (bounded), conv_jc2 gives null.  Accented Latin-1
// letters lose their accent, other high bytes become "?".
TEST(Charsets, ConversionsEtRepliAscii) {
    const auto Conv = [](auto f, const char *pc_S, const char *pc_De, auto t, const char *pc_M) {
        return Borne(t, [&](char *pc, auto n) { return f(pc_S, pc_De, pc, "UTF-8", n); }, pc_M);
    };
    EXPECT_EQ(Conv(conv_jc, "\xE9\xE9\xE9", nullptr, 6, ""), "\xC3\xA9\xC3\xA9");
    EXPECT_EQ(Conv(conv_jc, "\xE9xyz", "UTF-8", 3, "2202: Erreur iconv <\xE9xyz>"), "\xE9x");
    EXPECT_EQ(Conv(conv_jc2, "\xE9t\xE9", "UTF-8", 256, "2238: "), "<nul>");
    std::string s = "\xC9l\xE8ve \x80 \xE7\xA0";
    conv_Iso8859_Ascii7(s.data());
    EXPECT_EQ(s, "eleve e c?");
}

}  // namespace
