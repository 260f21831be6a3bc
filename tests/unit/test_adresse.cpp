// FetchAddress: the worked examples, walking a list, folded values, and the
// buffer bounds (refused at level 3, never overflowed).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "message/message.h"

namespace {

struct CasAdresse {
    const char *pc_Nom;
    const char *pc_Source;
    const char *pc_Adresse;
    const char *pc_Phrase;
    const char *pc_Reste;
};

void PrintTo(const CasAdresse &c, std::ostream *os) { *os << c.pc_Nom; }

class Extraction : public ::testing::TestWithParam<CasAdresse> {};

TEST_P(Extraction, AdressePhraseEtReste) {
    const CasAdresse &c = GetParam();
    char pc_Adresse[TAILLE_ADRESSE];
    char pc_Phrase[TAILLE_PHRASE];
    const char *pc = FetchAddress(c.pc_Source, pc_Adresse, sizeof pc_Adresse, pc_Phrase,
                                  sizeof pc_Phrase);
    EXPECT_STREQ(pc_Adresse, c.pc_Adresse);
    EXPECT_STREQ(pc_Phrase, c.pc_Phrase);
    EXPECT_STREQ(pc, c.pc_Reste);
    EXPECT_GE(pc, c.pc_Source);
    EXPECT_LE(pc, c.pc_Source + strlen(c.pc_Source));
}

INSTANTIATE_TEST_SUITE_P(
    ExemplesTravailles, Extraction,
    ::testing::Values(
        CasAdresse{"nom_et_chevrons", "Jean Dupont <jd>", "jd", "Jean Dupont", ""},
        CasAdresse{"virgule_entre_guillemets", "\"Dupont, Jean\" <jd>, other", "jd",
                   "\"Dupont, Jean\"", " other"},
        CasAdresse{"commentaire_devient_nom", "jd (Jean Dupont)", "jd", "\"Jean Dupont\"", ""},
        CasAdresse{"blancs_hors_guillemets", "  jd . dom  ", "jd.dom", "", ""},
        CasAdresse{"partie_locale_entre_guillemets", "\"a b\".dom", "\"a b\".dom", "", ""},
        CasAdresse{"deux_elements", "a, b", "a", "", " b"},
        CasAdresse{"element_vide", ",x", "", "", "x"},
        CasAdresse{"guillemet_echappe", "jd\\\"x", "jd\"x", "", ""},
        CasAdresse{"echappements_gardes_dans_la_phrase", "\"Jean \\\"J\\\" D\" <jd>", "jd",
                   "\"Jean \\\"J\\\" D\"", ""},
        CasAdresse{"deux_commentaires", "x (c) (d)", "x", "(c) (d)", ""},
        CasAdresse{"phrase_autour_des_chevrons", "a <b> c", "b", "a c", ""},
        CasAdresse{"deux_paires_de_chevrons", "x <a> <b>", "ab", "x", ""},
        CasAdresse{"blanc_echappe", "a\\ b", "a b", "", ""},
        CasAdresse{"chevron_non_ferme", "Name <a", "a", "Name", ""},
        CasAdresse{"chevron_fermant_seul", "a>b", "ab", ">", ""},
        CasAdresse{"virgule_dans_commentaire_avant_chevrons", "(Dupont, Jean) <jd>", "jd",
                   "(Dupont, Jean) < >", ""},
        CasAdresse{"chevron_dans_commentaire", "(a<b) c", "", "(a<b) c", ""},
        CasAdresse{"commentaire_dans_chevrons", "Jean (x) <jd(y).dom>", "jdy.dom",
                   "Jean (x) ( )", ""},
        CasAdresse{"groupe_non_reconnu", "Group: a, b;", "Group:a", "", " b;"},
        CasAdresse{"source_vide", "", "", "", ""},
        CasAdresse{"virgule_dans_chevrons", "x <a,b> c", "a", "x", "b> c"},
        CasAdresse{"pli_de_champ", "Jean\r\n\tDupont\n <jd@\n dom>", "jd@dom", "Jean Dupont",
                   ""},
        CasAdresse{"parenthese_fermante_desequilibre", "a) b <c>", "", "a) b <c>", ""},
        CasAdresse{"barre_finale_seule", "ab\\", "ab\\", "", ""}),
    [](const ::testing::TestParamInfo<CasAdresse> &i) { return std::string(i.param.pc_Nom); });

// A caller walks a list of addresses by calling again from the result.
TEST(FetchAddress, ParcoursDUneListe) {
    const char *pc = "\"B, A\" <a@x>, c@y (C), <d@z>";
    std::vector<std::string> v_Adresses, v_Phrases;
    char pc_A[TAILLE_ADRESSE], pc_P[TAILLE_PHRASE];
    while (*pc != '\0') {
        pc = FetchAddress(pc, pc_A, sizeof pc_A, pc_P, sizeof pc_P);
        v_Adresses.emplace_back(pc_A);
        v_Phrases.emplace_back(pc_P);
    }
    EXPECT_EQ(v_Adresses, (std::vector<std::string>{"a@x", "c@y", "d@z"}));
    EXPECT_EQ(v_Phrases, (std::vector<std::string>{"\"B, A\"", "\"C\"", ""}));
}

// The address buffer holds size - 1 characters; one more is refused.
TEST(FetchAddress, BorneDuTamponAdresse) {
    std::string s_255(255, 'a');
    char pc_A[TAILLE_ADRESSE], pc_P[TAILLE_PHRASE];
    FetchAddress(s_255.c_str(), pc_A, sizeof pc_A, pc_P, sizeof pc_P);
    EXPECT_EQ(std::string(pc_A), s_255);

    std::string s_256(256, 'a');
    EXPECT_EXIT(FetchAddress(s_256.c_str(), pc_A, sizeof pc_A, pc_P, sizeof pc_P),
                ::testing::ExitedWithCode(65), "v1.1.0/958: Buffer adresse trop petit \\(a+\\)");
}

// The phrase countdown tells a folded blank (972) from any other character
// (979); a phrase that fits exactly is kept whole.
TEST(FetchAddress, BorneDuTamponPhrase) {
    char pc_A[TAILLE_ADRESSE];
    char pc_P[8];
    FetchAddress("<x>abcdefg", pc_A, sizeof pc_A, pc_P, sizeof pc_P);
    EXPECT_STREQ(pc_P, "abcdefg");
    EXPECT_EXIT(FetchAddress("<x>abcdefgh", pc_A, sizeof pc_A, pc_P, sizeof pc_P),
                ::testing::ExitedWithCode(65), "v1.1.0/979: Buffer phrase trop petit");
    EXPECT_EXIT(FetchAddress("abcdef   gh <x>", pc_A, sizeof pc_A, pc_P, 7),
                ::testing::ExitedWithCode(65), "v1.1.0/972: Buffer phrase trop petit");
}

// The written form of an address in a line the program composes: ordinary
// addresses as they are; anything a reader could take for more than one
// address goes into a quoted string; the output's bound is checked.
TEST(EcritAdresse, FormeEcrite) {
    struct {
        const char *pc_Adresse;
        const char *pc_Ecrite;
    } t[] = {
        {"jd@partenaire.test", "jd@partenaire.test"},
        {"\"a b\"@x.test", "\"a b\"@x.test"},
        {"postmaster@[10.0.0.1]", "postmaster@[10.0.0.1]"},
        {"j\xe9r\xf4me@x.test", "j\xe9r\xf4me@x.test"},
        {"jd", "jd"},
        {"a>, \"Boss\" <ceo@vorane.example", "\"a>, \\\"Boss\\\" <ceo\"@vorane.example"},
        {"x\nReply-To:y@evil.example", "\"x Reply-To:y\"@evil.example"},
        {"\"Boss ceo@vorane.example", "\"\\\"Boss ceo\"@vorane.example"},
        {"a@b@c.test", "\"a@b\"@c.test"},
        {"x@partenaire.test\\", "\"x@partenaire.test\\\\\""},
        {"a@[1.2.3.4>]", "\"a@[1.2.3.4>]\""},
        {"", ""},
    };
    for (auto &c : t) {
        char pc[TAILLE_TEXTE];
        EXPECT_EQ(EcritAdresse(c.pc_Adresse, pc, sizeof pc), static_cast<int>(strlen(c.pc_Ecrite)));
        EXPECT_STREQ(pc, c.pc_Ecrite) << c.pc_Adresse;
    }
    char pc[5];
    EXPECT_EQ(EcritAdresse("a b@x", pc, sizeof pc), -1);
    EXPECT_STREQ(pc, "");
}

}  // namespace
