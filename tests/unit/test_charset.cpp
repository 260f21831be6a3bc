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
    if (pc_Res == nullptr) return {true, "", s_Err};
    EXPECT_EQ(pc_Res, pc);
    return {false, t_Taille == 0 ? "" : std::string(pc), s_Err};
}

TEST(ConvJc, ConversionsReussies) {
    EXPECT_EQ(Convertit(conv_jc, "\xC3\xA9t\xC3\xA9", "UTF-8", "ISO-8859-1").s_Sortie, "\xE9t\xE9");
    EXPECT_EQ(Convertit(conv_jc, "No\xEBl", "ISO-8859-1", "UTF-8").s_Sortie, "No\xC3\xABl");
    // Null or empty names are ISO-8859-1 on both sides: a plain copy.
    EXPECT_EQ(Convertit(conv_jc, "\xE9", "", nullptr).s_Sortie, "\xE9");
    EXPECT_EQ(Convertit(conv_jc, "\xE9", nullptr, "UTF-8").s_Sortie, "\xC3\xA9");
    EXPECT_EQ(Convertit(conv_jc2, "\xC3\xA9", "UTF-8", "").s_Sortie, "\xE9");
    EXPECT_EQ(Convertit(conv_jc, nullptr, "UTF-8", "UTF-8").s_Sortie, "");
    EXPECT_EQ(Convertit(conv_jc, "abc", "UTF-8", "UTF-8", 1).s_Sortie, "");
    EXPECT_EQ(Convertit(conv_jc, "abc", "UTF-8", "UTF-8", 0).s_Sortie, "");
}

// A full output keeps the whole characters that fit, without a message.
TEST(ConvJc, SortiePleineCoupeApresUnCaractereEntier) {
    for (Conversion f : {conv_jc, conv_jc2}) {
        Resultat r = Convertit(f, "\xE9\xE9\xE9", "ISO-8859-1", "UTF-8", 6);
        EXPECT_FALSE(r.b_Nul);
        EXPECT_EQ(r.s_Sortie, "\xC3\xA9\xC3\xA9");
        EXPECT_EQ(r.s_Erreur, "");
    }
}

TEST(ConvJc, EchecsCopieOuNul) {
    Resultat r = Convertit(conv_jc, "\xE9t\xE9", "UTF-8", "ISO-8859-1");
    EXPECT_EQ(r.s_Sortie, "\xE9t\xE9");
    EXPECT_EQ(r.s_Erreur.rfind(" !ERR:4, v1.1.0/2202: Erreur iconv <\xE9t\xE9> de <UTF-8> vers "
                               "<ISO-8859-1>, errno=84 (",
                               0),
              0u)
        << r.s_Erreur;

    r = Convertit(conv_jc2, "\xE9t\xE9", "UTF-8", "ISO-8859-1");
    EXPECT_TRUE(r.b_Nul);
    EXPECT_EQ(r.s_Erreur.rfind(" !ERR:4, v1.1.0/2238: Erreur iconv <\xE9t\xE9> de <UTF-8>", 0), 0u)
        << r.s_Erreur;

    r = Convertit(conv_jc, "abc", "X-INCONNU", "");
    EXPECT_EQ(r.s_Sortie, "abc");
    EXPECT_EQ(r.s_Erreur.rfind(" !ERR:4, v1.1.0/2194: Erreur iconv_open(<X-INCONNU>,<ISO-8859-1>), "
                               "errno=22 (",
                               0),
              0u)
        << r.s_Erreur;

    r = Convertit(conv_jc2, "abc", "UTF-8", "X-INCONNU");
    EXPECT_TRUE(r.b_Nul);
    EXPECT_EQ(r.s_Erreur.rfind(" !ERR:4, v1.1.0/2231: Erreur iconv_open(<UTF-8>,<X-INCONNU>)", 0), 0u)
        << r.s_Erreur;

    // An incomplete sequence at the end is a failure too.
    r = Convertit(conv_jc, "abcdef\xC3", "UTF-8", "ISO-8859-1");
    EXPECT_EQ(r.s_Sortie, "abcdef\xC3");
    EXPECT_NE(r.s_Erreur.find("v1.1.0/2202"), std::string::npos);
    // The unchanged copy is bounded by the size.
    r = Convertit(conv_jc, "\xE9xyz", "UTF-8", "ISO-8859-1", 3);
    EXPECT_EQ(r.s_Sortie, "\xE9x");
    EXPECT_NE(r.s_Erreur.find("v1.1.0/2202"), std::string::npos);
}

TEST(ConvIso8859Ascii7, Table) {
    struct {
        const char *pc_Entree, *pc_Attendu;
    } t[] = {
        {"\xC9l\xE8ve", "eleve"},
        {"\xE0\xE2\xE4\xC0\xC1\xC2", "aaaaaa"},
        {"\xE9\xE8\xEA\xEB\x80\xC9\xC8\xCA\xCB", "eeeeeeeee"},
        {"\xFD", "y"},
        {"\xFB\xFC\xF9\xD9\xDA\xDB", "uuuuuu"},
        {"\xEE\xEF", "ii"},
        {"\xF4\xD6\xD4", "ooo"},
        {"\xE7\xC7", "cc"},
        {"\xF6\xE1\xC4\xF1\xFF\xCE\xFA\xDC\x81\xA0", "??????????"},
        {"ASCII inchange ~\x7F\x01", "ASCII inchange ~\x7F\x01"},
        {"", ""},
    };
    for (auto &c : t) {
        std::string s = c.pc_Entree;
        EXPECT_EQ(conv_Iso8859_Ascii7(s.data()), s.data());
        EXPECT_EQ(s, c.pc_Attendu) << c.pc_Entree;
    }
    EXPECT_EQ(conv_Iso8859_Ascii7(nullptr), nullptr);
    // Every high byte comes out as 7-bit ASCII.
    std::string s_Tous;
    for (int c = 0x80; c <= 0xFF; c++) s_Tous.push_back(static_cast<char>(c));
    conv_Iso8859_Ascii7(s_Tous.data());
    EXPECT_EQ(s_Tous.size(), 128u);
    for (char c : s_Tous) EXPECT_LT(static_cast<unsigned char>(c), 0x80);
}

using Nettoyage = char *(*)(const char *, char *, std::size_t);

std::string Nettoie(Nettoyage f, const char *pc_Source, std::size_t t_Taille = 256) {
    char pc[300];
    memset(pc, 'Z', sizeof pc);
    EXPECT_EQ(f(pc_Source, pc, t_Taille), pc);
    EXPECT_EQ(pc[t_Taille], 'Z');
    return t_Taille == 0 ? "" : std::string(pc);
}

TEST(Deplie, Table) {
    EXPECT_EQ(Nettoie(Deplie, "premiere\n\tseconde"), "premiere\tseconde");
    EXPECT_EQ(Nettoie(Deplie, "a\n b\n"), "a b");
    EXPECT_EQ(Nettoie(Deplie, "a\nxx b"), "a b");  // up to the next blank
    EXPECT_EQ(Nettoie(Deplie, "a\nsans blanc"), "a blanc");
    EXPECT_EQ(Nettoie(Deplie, "a\nrien"), "a");
    EXPECT_EQ(Nettoie(Deplie, "\"Jean\" \\x"), "\"Jean\" \\x");
    EXPECT_EQ(Nettoie(Deplie, "abcdef", 4), "abc");
    EXPECT_EQ(Nettoie(Deplie, "abc", 1), "");
    EXPECT_EQ(Nettoie(Deplie, "abc", 0), "");
    EXPECT_EQ(Nettoie(Deplie, nullptr), "");
}

TEST(DeQuotte, Table) {
    EXPECT_EQ(Nettoie(DeQuotte, "\"Jean \\\"Jo\\\" Dupont\""), "Jean Jo Dupont");
    EXPECT_EQ(Nettoie(DeQuotte, "\"Dupont, Jean\"\n\t(x)"), "Dupont, Jean\t(x)");
    EXPECT_EQ(Nettoie(DeQuotte, "a\\\\b"), "ab");
    EXPECT_EQ(Nettoie(DeQuotte, "ab\\"), "ab");
    EXPECT_EQ(Nettoie(DeQuotte, "\"\"\"abcdef", 4), "abc");
}

}  // namespace
