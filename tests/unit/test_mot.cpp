// Encoded words: DecodeQP and EncodeQP, their cut rule and their round trip.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>

#include "codec/codec.h"
#include "entree_tube.h"

namespace {

struct Decode {
    std::string s_Sortie;
    std::string s_Erreur;
};

// DecodeQP into a buffer of the given size, with standard error captured
// and a guard past the size.
Decode DQ(const std::string &s_Valeur, const char *pc_Cible, std::size_t t_Taille = 512) {
    static char pc[2048];
    memset(pc, 'Z', sizeof pc);
    char *pc_Res = nullptr;
    std::string s_Err =
        CaptureErreur([&] { pc_Res = DecodeQP(s_Valeur.c_str(), pc_Cible, pc, t_Taille); });
    EXPECT_EQ(pc_Res, pc);
    EXPECT_EQ(pc[t_Taille], 'Z') << s_Valeur;
    return {t_Taille == 0 ? "" : std::string(pc), s_Err};
}

// EncodeQP into a buffer of the given size, with a guard past the size.
std::string EQ(const std::string &s_Valeur, const char *pc_Charset, int i_Taille = 1024) {
    static char pc[2048];
    memset(pc, 'Z', sizeof pc);
    EXPECT_EQ(EncodeQP(s_Valeur.c_str(), pc_Charset, pc, i_Taille), pc);
    EXPECT_EQ(pc[i_Taille], 'Z') << s_Valeur;
    return pc;
}

// Whether standard error starts with the level-4 line of the message.
::testing::AssertionResult Avertit(const std::string &s_Erreur, const std::string &s_Debut) {
    if (s_Erreur.rfind(" !ERR:4, v1.1.0/" + s_Debut, 0) == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "standard error: " << s_Erreur;
}

// ---------------------------------------------------------------------------
// DecodeQP
// ---------------------------------------------------------------------------

// Encoded words are decoded into the target charset (none: Latin-1), text
// around them copied as it is, blanks between adjacent words dropped; a
// value without any word is copied folded to ASCII.
TEST(DecodeQP, MotsDecodes) {
    struct {
        const char *pc_Nom;
        std::string s_Valeur;
        const char *pc_Cible;
        std::string s_Attendu;
    } t[] = {
        {"sans_mot_ramene_a_ascii", "Caf\xE9 \xF1 ok", "UTF-8", "Cafe ? ok"},
        {"b_utf8_vers_latin1", "=?UTF-8?B?w6l0w6k=?=", "ISO-8859-1", "\xE9t\xE9"},
        {"lettres_minuscules", "=?utf-8?q?=C3=A9t=C3=A9?= / =?utf-8?b?w6k=?=", "ISO-8859-1",
         "\xE9t\xE9 / \xE9"},
        {"cible_vide_latin1", "=?UTF-8?B?w6k=?=", "", "\xE9"},
        {"charset_vide_latin1", "=??Q?caf=E9?=", "UTF-8", "caf\xC3\xA9"},
        {"latin1_vers_utf8", "=?ISO-8859-1?Q?No=EBl_et_=5F?=", "UTF-8", "No\xC3\xABl et _"},
        {"blancs_entre_mots_supprimes",
         "=?ISO-8859-1?Q?a?=\n\t=?ISO-8859-1?Q?b?= \r\n =?ISO-8859-1?Q?c?=", "UTF-8", "abc"},
        {"blanc_avant_texte_garde", "=?ISO-8859-1?Q?a?= suite", "UTF-8", "a suite"},
        {"texte_hors_mot_inchange", "\xE9 =?UTF-8?B?w6k=?= \xE9", "ISO-8859-1", "\xE9 \xE9 \xE9"},
        {"octet_nul_dans_le_mot", "=?ISO-8859-1?Q?ab=00cd?=x", "UTF-8", "abx"},
        {"mot_vide", "a=?UTF-8?Q?" "?=b", "UTF-8", "ab"},
    };
    for (auto &c : t) {
        Decode d = DQ(c.s_Valeur, c.pc_Cible);
        EXPECT_EQ(d.s_Sortie, c.s_Attendu) << c.pc_Nom;
        EXPECT_EQ(d.s_Erreur, "") << c.pc_Nom;
    }
}

// Every malformed or unconvertible value is reported and copied unchanged.
TEST(DecodeQP, ErreursDonnentLaValeurInchangee) {
    const std::string s_Long = "CHARSET-INCONNU-DE-PLUS-DE-TRENTE-ET-UN-CARACTERES";
    struct {
        std::string s_Valeur;
        const char *pc_Cible;
        std::string s_Message;
    } t[] = {
        {"Jean =?UTF-8", "UTF-8", "2414: Mauvais format <Jean =?UTF-8>. "},
        {"=?UTF-8?X?abc?=", "UTF-8", "2421: Mauvais format <=?UTF-8?X?abc?=>. "},
        {"=?UTF-8?", "UTF-8", "2421: Mauvais format <=?UTF-8?>. "},
        {"=?UTF-8?Qabc?=", "UTF-8", "2421: Mauvais format <=?UTF-8?Qabc?=>. "},
        {"a =?UTF-8?Q?abc", "UTF-8", "2428: Mauvais format <a =?UTF-8?Q?abc>. "},
        {"=?" + s_Long + "?Q?a?=", "UTF-8",
         "2457: Erreur iconv_open(<UTF-8>,<" + s_Long.substr(0, 31) + ">), errno=22 ("},
        {"=?UTF-8?Q?=E9t=E9?=", "ISO-8859-1",
         "2467: Erreur iconv <\xE9t\xE9> de <UTF-8> vers <ISO-8859-1>, errno=84 ("},
        // The part not yet converted is what the message shows; a sequence
        // cut by the end of the word is a failure too.
        {"=?UTF-8?Q?ab=E9?=", "ISO-8859-1",
         "2467: Erreur iconv <\xE9> de <UTF-8> vers <ISO-8859-1>, errno=22 ("},
        // A good word before a bad one: the whole value comes back.
        {"=?UTF-8?B?w6k=?= =?UTF-8?Q?a", "ISO-8859-1",
         "2428: Mauvais format <=?UTF-8?B?w6k=?= =?UTF-8?Q?a>. "},
    };
    for (auto &c : t) {
        Decode d = DQ(c.s_Valeur, c.pc_Cible);
        EXPECT_EQ(d.s_Sortie, c.s_Valeur);
        EXPECT_TRUE(Avertit(d.s_Erreur, c.s_Message)) << c.s_Valeur;
    }
}

// Output full inside a word: cut after the last whole character, then
// plain text byte by byte while room is left; the unchanged copy after a
// failure is bounded by the room left then.
TEST(DecodeQP, BornesDeLaSortie) {
    EXPECT_EQ(DQ("abcdef", "UTF-8", 4).s_Sortie, "abc");
    EXPECT_EQ(DQ("=?UTF-8?Q?=C3=A9=C3=A9=C3=A9?= xyz", "UTF-8", 6).s_Sortie, "\xC3\xA9\xC3\xA9 ");
    EXPECT_EQ(DQ("=?UTF-8?Q?abcdef?=", "UTF-8", 4).s_Sortie, "abc");
    EXPECT_EQ(DQ("=?UTF-8?Q?a?=", "UTF-8", 1).s_Sortie, "");
    EXPECT_EQ(DQ("=?UTF-8?Q?a?=", "UTF-8", 0).s_Sortie, "");
    EXPECT_EQ(DQ("abc =?UTF-8?Q?=E9?=", "ISO-8859-1", 8).s_Sortie, "ab");
}

// ---------------------------------------------------------------------------
// EncodeQP and its cut rule
// ---------------------------------------------------------------------------

// A word closes before an ASCII byte once counter + unit (the byte and the
// run of high bytes after it, in input bytes) would pass 75, never before
// a high byte.  The exact boundary shows in no whole encoding.
TEST(Yfautcouper, Regle) {
    EXPECT_EQ(yfautcouper("a", 74), 0);
    EXPECT_EQ(yfautcouper("a", 75), 1);
    EXPECT_EQ(yfautcouper("a\xE9", 73), 0);
    EXPECT_EQ(yfautcouper("a\xE9", 74), 1);
    EXPECT_EQ(yfautcouper("a\xE9\xE9\xE9z", 72), 1);
    EXPECT_EQ(yfautcouper("\xE9", 500), 0);
}

// Q words in the named charset (none: Latin-1); only letters stay as they
// are, a blank becomes "_"; ASCII text is copied unchanged.
TEST(EncodeQP, MotsAttendus) {
    struct {
        const char *pc_Valeur, *pc_Charset, *pc_Attendu;
    } t[] = {
        {"Bonjour 2024 =?x?=", "UTF-8", "Bonjour 2024 =?x?="},
        {"No\xEBl", "ISO-8859-1", "=?ISO-8859-1?Q?No=EBl?="},
        {"No\xEBl", "", "=?ISO-8859-1?Q?No=EBl?="},
        {"No\xEBl", nullptr, "=?ISO-8859-1?Q?No=EBl?="},
        {"\xE9t\xE9 2024!", "iso8859-15", "=?iso8859-15?Q?=E9t=E9_=32=30=32=34=21?="},
        {"a_b=c?d\xE9", "ISO-8859-1", "=?ISO-8859-1?Q?a=5Fb=3Dc=3Fd=E9?="},
    };
    for (auto &c : t) EXPECT_EQ(EQ(c.pc_Valeur, c.pc_Charset), c.pc_Attendu);
    EXPECT_EQ(EncodeQP(nullptr, "UTF-8", nullptr, 0), nullptr);
}

// A long Latin-1 text: cut before an ASCII byte where counter + unit would
// pass 75, every line within 76 columns.
TEST(EncodeQP, TexteLongCoupeEnPlusieursMots) {
    std::string s;
    for (int i = 0; i < 40; i++) s += "\xE9" "a";
    std::string s_Sortie = EQ(s, "ISO-8859-1");
    std::string s_Premier = "=?ISO-8859-1?Q?";
    for (int i = 0; i < 13; i++) s_Premier += "=E9a";
    s_Premier += "=E9?=\n\t=?ISO-8859-1?Q?a";
    EXPECT_EQ(s_Sortie.substr(0, s_Premier.size()), s_Premier);
    std::istringstream is(s_Sortie);
    for (std::string s_Ligne; std::getline(is, s_Ligne);) EXPECT_LE(s_Ligne.size(), 76u) << s_Ligne;
}

// Out of room: the output ends with the separator, bytes left are dropped.
TEST(EncodeQP, BorneDeLaSortie) {
    std::string s;
    for (int i = 0; i < 100; i++) s += "x\xE9";
    std::string s_Sortie = EQ(s, "UTF-8", 100);
    EXPECT_LT(s_Sortie.size(), 100u);
    EXPECT_EQ(s_Sortie.substr(s_Sortie.size() - 4), "?=\n\t");
}

// Multi-byte text is never cut inside its run of high bytes, every word
// carries text, and the text comes back through DecodeQP.
TEST(EncodeQP, MultiOctetsJamaisCoupeEtAllerRetour) {
    std::string s_Cyr;
    for (int i = 0; i < 60; i++) s_Cyr += "\xD0\x96";
    std::string s_Sortie = EQ(s_Cyr, "UTF-8");
    EXPECT_EQ(s_Sortie.find('\n'), std::string::npos);
    EXPECT_EQ(s_Sortie.size(), 10 + 120 * 3 + 2u);
    for (const std::string &s_Texte :
         {"Re: " + s_Cyr,
          std::string("Fran\xC3\xA7ois M\xC3\xBCller \xE2\x82\xAC 100 \xD0\x96\xD0\xB8\xD0\xB7"
                      "\xD0\xBD\xD1\x8C"),
          std::string("\xC3\xA9\xC3\xA9 \xC3\xA9 a b c d e f g h i j k l m n o p q r s t u v w x y "
                      "z 0 1 2 3 4 5 6 7 8 9 \xC3\xA8\xC3\xA8\xC3\xA8 fin")}) {
        s_Sortie = EQ(s_Texte, "UTF-8");
        EXPECT_EQ(s_Sortie.find("?Q?" "?="), std::string::npos) << s_Sortie;
        Decode d = DQ(s_Sortie, "UTF-8", 1024);
        EXPECT_EQ(d.s_Sortie, s_Texte) << s_Sortie;
        EXPECT_EQ(d.s_Erreur, "");
    }
}

}  // namespace
