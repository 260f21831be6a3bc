// Character-set conversion, the ASCII fold, unfolding and quote removal.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "codec/codec.h"
#include "entree_tube.h"

namespace {

using Conversion = char *(*)(const char *, const char *, char *, const char *, std::size_t);

struct Resultat {
    bool b_Nul;
    std::string s_Sortie;
    std::string s_Erreur;
};

// Runs a conversion with standard error captured and a guard past the size.
Resultat Convertit(Conversion f, const char *pc_Source, const char *pc_De, const char *pc_Vers,
                   std::size_t t_Taille = 256) {
    char pc[300];
    memset(pc, 'Z', sizeof pc);
    char *pc_Res = nullptr;
    std::string s_Err = CaptureErreur([&] { pc_Res = f(pc_Source, pc_De, pc, pc_Vers, t_Taille); });
    EXPECT_EQ(pc[t_Taille], 'Z');
    return {pc_Res == nullptr, pc_Res == nullptr || t_Taille == 0 ? "" : std::string(pc), s_Err};
}

// Null or empty charset names are Latin-1; a full output keeps the whole
// characters that fit, without a message.
TEST(ConvJc, ConversionsEtSortiePleine) {
    EXPECT_EQ(Convertit(conv_jc, "\xC3\xA9t\xC3\xA9", "UTF-8", "ISO-8859-1").s_Sortie, "\xE9t\xE9");
    EXPECT_EQ(Convertit(conv_jc, "\xE9", "", nullptr).s_Sortie, "\xE9");
    EXPECT_EQ(Convertit(conv_jc2, "\xE9", nullptr, "UTF-8").s_Sortie, "\xC3\xA9");
    EXPECT_EQ(Convertit(conv_jc, nullptr, "UTF-8", "UTF-8").s_Sortie, "");
    EXPECT_EQ(Convertit(conv_jc, "abc", "UTF-8", "UTF-8", 1).s_Sortie, "");
    // ASCII text: copied and cut like a conversion between ASCII-compatible
    // sets, converted for any other target.
    EXPECT_EQ(Convertit(conv_jc2, "Jean Dupont", "utf-8", "ISO-8859-15", 6).s_Sortie, "Jean ");
    EXPECT_EQ(Convertit(conv_jc2, "ab", "UTF-8", "UTF-16LE").s_Sortie, "a");
    for (Conversion f : {conv_jc, conv_jc2}) {
        Resultat r = Convertit(f, "\xE9\xE9\xE9", "ISO-8859-1", "UTF-8", 6);
        EXPECT_EQ(r.s_Sortie, "\xC3\xA9\xC3\xA9");
        EXPECT_EQ(r.s_Erreur, "");
    }
}

// A failed conversion is reported; conv_jc then copies the text unchanged
// (bounded), conv_jc2 gives null.
TEST(ConvJc, EchecsCopieOuNul) {
    struct {
        Conversion f;
        const char *pc_Source, *pc_De, *pc_Vers;
        std::size_t t_Taille;
        bool b_Nul;
        const char *pc_Sortie, *pc_Message;
    } t[] = {
        {conv_jc, "\xE9t\xE9", "UTF-8", "ISO-8859-1", 256, false, "\xE9t\xE9",
         "2202: Erreur iconv <\xE9t\xE9> de <UTF-8> vers <ISO-8859-1>, errno=84 ("},
        {conv_jc2, "\xE9t\xE9", "UTF-8", "ISO-8859-1", 256, true, "",
         "2238: Erreur iconv <\xE9t\xE9> de <UTF-8> vers <ISO-8859-1>, errno=84 ("},
        {conv_jc, "abc", "X-INCONNU", "", 256, false, "abc",
         "2194: Erreur iconv_open(<X-INCONNU>,<ISO-8859-1>), errno=22 ("},
        {conv_jc2, "abc", "UTF-8", "X-INCONNU", 256, true, "",
         "2231: Erreur iconv_open(<UTF-8>,<X-INCONNU>), errno=22 ("},
        // An incomplete sequence at the end fails too; the copy is bounded.
        {conv_jc, "ab\xC3", "UTF-8", "ISO-8859-1", 256, false, "ab\xC3", "2202: "},
        {conv_jc, "\xE9xyz", "UTF-8", "ISO-8859-1", 3, false, "\xE9x", "2202: "},
    };
    for (auto &c : t) {
        Resultat r = Convertit(c.f, c.pc_Source, c.pc_De, c.pc_Vers, c.t_Taille);
        EXPECT_EQ(r.b_Nul, c.b_Nul);
        EXPECT_EQ(r.s_Sortie, c.pc_Sortie);
        EXPECT_EQ(r.s_Erreur.rfind(std::string(" !ERR:4, v1.1.0/") + c.pc_Message, 0), 0u)
            << r.s_Erreur;
    }
}

// Accented Latin-1 letters lose their accent, other high bytes become "?".
TEST(ConvIso8859Ascii7, TableEtOctetsHorsTable) {
    std::string s = "\xC9l\xE8ve \xC0\xC1\xE4 \x80 \xFD\xFB\xD9 \xEE\xEF \xF4\xD6 \xE7\xC7 ~";
    conv_Iso8859_Ascii7(s.data());
    EXPECT_EQ(s, "eleve aaa e yuu ii oo cc ~");
    s = "\xF6\xE1\xC4\xF1\xFF\xCE\xFA\xDC\xA0";
    EXPECT_EQ(std::string(conv_Iso8859_Ascii7(s.data())), "?????????");
}

// Unfolds into a buffer of the given size, checking nothing is written past it.
std::string Nettoie(char *(*f)(const char *, char *, std::size_t), const char *pc_Source,
                    std::size_t t_Taille = 256) {
    char pc[300];
    memset(pc, 'Z', sizeof pc);
    EXPECT_EQ(f(pc_Source, pc, t_Taille), pc);
    EXPECT_EQ(pc[t_Taille], 'Z');
    return t_Taille == 0 ? "" : std::string(pc);
}

// Deplie drops line breaks and whatever follows one up to the next blank;
// DeQuotte also drops double quotes and quoted pairs (backslash and byte).
TEST(Deplie, EtDeQuotte) {
    EXPECT_EQ(Nettoie(Deplie, "premiere\n\tseconde\n"), "premiere\tseconde");
    EXPECT_EQ(Nettoie(Deplie, "a\nxx b"), "a b");  // dropped up to the next blank
    EXPECT_EQ(Nettoie(Deplie, "a\nrien"), "a");
    EXPECT_EQ(Nettoie(Deplie, "\"J\" \\x"), "\"J\" \\x");
    EXPECT_EQ(Nettoie(Deplie, "abcdef", 4), "abc");
    EXPECT_EQ(Nettoie(DeQuotte, "\"Jean \\\"Jo\\\" Dupont\"\n\t(x)"), "Jean Jo Dupont\t(x)");
    EXPECT_EQ(Nettoie(DeQuotte, "a\\\\b\\"), "ab");
    EXPECT_EQ(Nettoie(DeQuotte, "\"\"\"abcdef", 4), "abc");
    EXPECT_EQ(Nettoie(DeQuotte, nullptr, 0), "");
}

}  // namespace
