// Header store and message reader: list insertion, reading real byte streams
// from a pipe on standard input, and the lookups.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "entree_tube.h"
#include "message/message.h"

namespace {

using Lignes = std::vector<std::string>;

// Texts of a list, in order.
Lignes Textes(const Entete *pet) {
    Lignes v;
    for (; pet != nullptr; pet = pet->pet_Suivant) v.emplace_back(pet->pc_Ligne);
    return v;
}

// Builds a list of copies of the lines.
Entete *Liste(const Lignes &v) {
    Entete *pet_Tete = nullptr, *pet_Curseur = nullptr;
    for (const std::string &s : v) {
        Entete *pet = ChargeLigne(&pet_Curseur, s.c_str(), 0);
        if (pet_Tete == nullptr) pet_Tete = pet;
    }
    return pet_Tete;
}

// Frees a list whose texts are its own copies (the program itself leaves
// this to process exit; the tests free so that leak checks stay meaningful).
void Libere(Entete *pet) {
    while (pet != nullptr) {
        Entete *pet_Suivant = pet->pet_Suivant;
        free(pet->pc_Ligne);
        free(pet);
        pet = pet_Suivant;
    }
}

// ---------------------------------------------------------------------------
// ChargeLigne
// ---------------------------------------------------------------------------

TEST(ChargeLigne, AjouteEnOrdreEtInsereApresLeCurseur) {
    Entete *pet_Tete = Liste({"A: 1\n", "C: 3\n"});
    Entete *pet_Curseur = pet_Tete;  // on the first node
    Entete *pet = ChargeLigne(&pet_Curseur, "B: 2\n", 0);
    EXPECT_EQ(pet_Curseur, pet);
    EXPECT_EQ(Textes(pet_Tete), (Lignes{"A: 1\n", "B: 2\n", "C: 3\n"}));
    // The same cursor goes on appending after the inserted node.
    ChargeLigne(&pet_Curseur, "B2: 2\n", 0);
    EXPECT_EQ(Textes(pet_Tete), (Lignes{"A: 1\n", "B: 2\n", "B2: 2\n", "C: 3\n"}));
    Libere(pet_Tete);
}

TEST(ChargeLigne, CurseurNulDonneUnNoeudSeul) {
    Entete *pet_Curseur = nullptr;
    Entete *pet = ChargeLigne(&pet_Curseur, "X: y\n", 0);
    ASSERT_NE(pet, nullptr);
    EXPECT_EQ(pet->pet_Suivant, nullptr);
    EXPECT_STREQ(pet->pc_Ligne, "X: y\n");
    Libere(pet);
}

// A copy is the node's own; a larger minimum leaves room to grow in place;
// adoption shares the very text, so an edit shows through both lists.
TEST(ChargeLigne, CopieTailleMinimaleEtAdoption) {
    char pc_Texte[] = "Subject: a\n";
    Entete *pet_Curseur = nullptr;
    Entete *pet_Copie = ChargeLigne(&pet_Curseur, pc_Texte, 0);
    EXPECT_NE(pet_Copie->pc_Ligne, pc_Texte);

    pet_Curseur = nullptr;
    Entete *pet_Large = ChargeLigne(&pet_Curseur, pc_Texte, 200);
    strcat(pet_Large->pc_Ligne, "une suite qui depasse la longueur du texte initial\n");  // in bounds (ASan)
    EXPECT_STREQ(pet_Large->pc_Ligne,
                 "Subject: a\nune suite qui depasse la longueur du texte initial\n");

    pet_Curseur = nullptr;
    Entete *pet_Adopte = ChargeLigne(&pet_Curseur, pc_Texte, ADOPTE_TEXTE);
    EXPECT_EQ(pet_Adopte->pc_Ligne, pc_Texte);
    pc_Texte[0] = 's';
    EXPECT_EQ(pet_Adopte->pc_Ligne[0], 's');
    EXPECT_EQ(pet_Copie->pc_Ligne[0], 'S');
    Libere(pet_Copie);
    Libere(pet_Large);
    free(pet_Adopte);  // the adopted text is not the node's
}

// ---------------------------------------------------------------------------
// LitEntete: byte streams through a pipe on standard input
// ---------------------------------------------------------------------------

struct CasLecture {
    const char *pc_Nom;
    std::string s_Entree;
    Lignes v_Noeuds;       // the header as read
    std::string s_Reste;   // what stays on standard input
    bool b_Avertissement;  // message 1783
};

void PrintTo(const CasLecture &c, std::ostream *os) { *os << c.pc_Nom; }

class Lecture : public ::testing::TestWithParam<CasLecture> {};

TEST_P(Lecture, NoeudsEtReste) {
    const CasLecture &c = GetParam();
    EntreeTube st_Tube(c.s_Entree);
    Entete *pet_Tete = nullptr;
    std::string s_Err = CaptureErreur([&] { LitEntete(&pet_Tete); });
    EXPECT_EQ(Textes(pet_Tete), c.v_Noeuds);
    EXPECT_EQ(EntreeTube::Reste(), c.s_Reste);
    if (c.b_Avertissement)
        EXPECT_EQ(s_Err.rfind(" !ERR:4, v1.1.0/1783: EOF avant ligne de fin d'entete. ", 0), 0u)
            << s_Err;
    else
        EXPECT_EQ(s_Err, "");
    Libere(pet_Tete);
}

const std::string LIGNE_1023 = "X-Long: " + std::string(1015, 'z');
const std::string LIGNE_2500 = "X-Tres-Long: " + std::string(2487, 'q');

INSTANTIATE_TEST_SUITE_P(
    Cas, Lecture,
    ::testing::Values(
        CasLecture{"simple",
                   "From: a@b.c\nSubject: x\n\ncorps\n.\n",
                   {"From: a@b.c\n", "Subject: x\n", "\n"},
                   "corps\n.\n",
                   false},
        CasLecture{"champs_plies_espace_et_tabulation",
                   "Subject: a\n b\n\tc\nTo: x\n\n",
                   {"Subject: a\n b\n\tc\n", "To: x\n", "\n"},
                   "",
                   false},
        CasLecture{"fin_crlf",
                   "Subject: a\r\n b\r\n\r\ncorps\r\n",
                   {"Subject: a\r\n b\r\n", "\r\n"},
                   "corps\r\n",
                   false},
        CasLecture{"entree_vide", "", {}, "", true},
        CasLecture{"sans_ligne_vide", "A: 1\nB: 2\n", {"A: 1\n", "B: 2\n"}, "", true},
        CasLecture{"sans_fin_de_ligne_finale", "A: 1\nB: 2", {"A: 1\n", "B: 2"}, "", true},
        CasLecture{"premiere_ligne_vide", "\nA: 1\n\n", {"\n"}, "A: 1\n\n", false},
        CasLecture{"suite_sans_champ_avant",
                   " orpheline\nA: 1\n\n",
                   {" orpheline\n", "A: 1\n", "\n"},
                   "",
                   false},
        // 1023 bytes fill one piece; the line feed alone comes next and is
        // taken as the end of the header.
        CasLecture{"ligne_de_1023",
                   LIGNE_1023 + "\nB: 2\n\ncorps\n",
                   {LIGNE_1023, "\n"},
                   "B: 2\n\ncorps\n",
                   false},
        CasLecture{"ligne_de_1022",
                   LIGNE_1023.substr(1) + "\nB: 2\n\n",
                   {LIGNE_1023.substr(1) + "\n", "B: 2\n", "\n"},
                   "",
                   false},
        // The pieces of a long line that do not begin with a blank are nodes
        // of their own.
        CasLecture{"ligne_longue_en_morceaux",
                   LIGNE_2500 + "\n\n",
                   {LIGNE_2500.substr(0, 1023), LIGNE_2500.substr(1023, 1023),
                    LIGNE_2500.substr(2046) + "\n", "\n"},
                   "",
                   false},
        // A long continuation line: its later pieces do not begin with a
        // blank either, so only the first joins the field.
        CasLecture{"suite_longue",
                   "Subject: a\n " + std::string(1500, 's') + "\n\n",
                   {"Subject: a\n " + std::string(1022, 's'), std::string(478, 's') + "\n", "\n"},
                   "",
                   false}),
    [](const ::testing::TestParamInfo<CasLecture> &i) { return std::string(i.param.pc_Nom); });

// A field folded over thousands of lines is one node holding them all.
TEST(LectureEntete, ChampPlieSurDesMilliersDeLignes) {
    std::string s_Champ = "References: <0@x>\n";
    for (int i = 1; i < 5000; i++) s_Champ += "\t<" + std::to_string(i) + "@x>\n";
    EntreeTube st_Tube(s_Champ + "\ncorps\n");
    Entete *pet_Tete = nullptr;
    LitEntete(&pet_Tete);
    EXPECT_EQ(Textes(pet_Tete), (Lignes{s_Champ, "\n"}));
    Libere(pet_Tete);
}

// ---------------------------------------------------------------------------
// LitMessage
// ---------------------------------------------------------------------------

// The body follows the header's empty line, one node per piece, nothing
// treated specially; lookups then reach body lines too.
TEST(LectureMessage, CorpsAjouteApresLEnteteEtVuParLesRecherches) {
    std::string s_Corps = "Premiere ligne\n\n.\nX-Corps: oui\n" + LIGNE_2500 + "\nfin sans saut";
    EntreeTube st_Tube("From: a@b.c\n\n" + s_Corps);
    Entete *pet_Tete = nullptr;
    LitEntete(&pet_Tete);
    LitMessage(pet_Tete, stdin);
    EXPECT_EQ(Textes(pet_Tete),
              (Lignes{"From: a@b.c\n", "\n", "Premiere ligne\n", "\n", ".\n", "X-Corps: oui\n",
                      LIGNE_2500.substr(0, 1023), LIGNE_2500.substr(1023, 1023),
                      LIGNE_2500.substr(2046) + "\n", "fin sans saut"}));
    EXPECT_STREQ(RecupValeurEntete(pet_Tete, "x-corps:"), "oui\n");
    EXPECT_EQ(EntreeTube::Reste(), "");
    Libere(pet_Tete);
}

// ---------------------------------------------------------------------------
// LigneEnteteVide and VerifLigneEOL
// ---------------------------------------------------------------------------

TEST(LigneEnteteVide, Codes) {
    EXPECT_EQ(LigneEnteteVide(nullptr), 1);
    EXPECT_EQ(LigneEnteteVide(""), 2);
    EXPECT_EQ(LigneEnteteVide("\n"), 3);
    EXPECT_EQ(LigneEnteteVide("\nsuite"), 3);
    EXPECT_EQ(LigneEnteteVide("\r\n"), 4);
    EXPECT_EQ(LigneEnteteVide("\r\nx"), 0);
    EXPECT_EQ(LigneEnteteVide(" \n"), 0);
    EXPECT_EQ(LigneEnteteVide("\r"), 0);
    EXPECT_EQ(LigneEnteteVide("a\n"), 0);
}

TEST(VerifLigneEOL, CoupeApresLePremierDeDeuxSauts) {
    struct {
        const char *pc_Entree, *pc_Sortie;
    } t[] = {{"Objet: x\n\n", "Objet: x\n"},
             {"a\nb\n\nc\n\n", "a\nb\n"},
             {"a\n", "a\n"},
             {"a\r\n\r\n", "a\r\n\r\n"},
             {"", ""}};
    for (auto &c : t) {
        std::string s = c.pc_Entree;
        EXPECT_STREQ(VerifLigneEOL(s.data()), c.pc_Sortie) << c.pc_Entree;
    }
    EXPECT_EQ(VerifLigneEOL(nullptr), nullptr);
}

// ---------------------------------------------------------------------------
// Lookups
// ---------------------------------------------------------------------------

class Recherches : public ::testing::Test {
protected:
    Entete *pet = Liste({"Received: un\n", "To-Do: rien\n", "TO: dest@x.y\n",
                         "Subject: a\n b\n", "Received: deux\n", "X-Vide:\n",
                         "X-Blancs: \t valeur\n", "\n"});
    void TearDown() override { Libere(pet); }
};

TEST_F(Recherches, PrefixeSansCasse) {
    EXPECT_STREQ(RecupEntete(pet, "to:")->pc_Ligne, "TO: dest@x.y\n");
    EXPECT_STREQ(RecupEntete(pet, "To")->pc_Ligne, "To-Do: rien\n");
    EXPECT_EQ(RecupEntete(pet, "Cc:"), nullptr);
    EXPECT_EQ(RecupLigneEntete(pet, "subject:"), RecupEntete(pet, "SUBJECT:"));
    EXPECT_EQ(RecupEntete(nullptr, "To:"), nullptr);
}

TEST_F(Recherches, OccurrenceSuivanteEnRepartantApresLeNoeud) {
    Entete *pet_Un = RecupEntete(pet, "Received:");
    ASSERT_NE(pet_Un, nullptr);
    Entete *pet_Deux = RecupEntete(pet_Un->pet_Suivant, "Received:");
    ASSERT_NE(pet_Deux, nullptr);
    EXPECT_STREQ(pet_Deux->pc_Ligne, "Received: deux\n");
    EXPECT_EQ(RecupEntete(pet_Deux->pet_Suivant, "Received:"), nullptr);
}

TEST_F(Recherches, Valeurs) {
    EXPECT_STREQ(RecupValeurEntete(pet, "subject:"), "a\n b\n");
    EXPECT_STREQ(RecupValeurEntete(pet, "X-Blancs:"), "valeur\n");
    // Present but empty, and absent: both empty for LigneEnteteVide.
    EXPECT_NE(LigneEnteteVide(RecupValeurEntete(pet, "X-Vide:")), 0);
    const char *pc_Absent = RecupValeurEntete(pet, "X-Absent:");
    EXPECT_STREQ(pc_Absent, "\n");
    EXPECT_NE(LigneEnteteVide(pc_Absent), 0);
    // The absent value is one shared constant.
    EXPECT_EQ(pc_Absent, RecupValeurEntete(nullptr, "Autre:"));
    EXPECT_EQ(LigneEnteteVide(RecupValeurEntete(pet, "to:")), 0);
}

// ---------------------------------------------------------------------------
// RecupValeur
// ---------------------------------------------------------------------------

struct CasValeur {
    const char *pc_Texte, *pc_Ouvrants, *pc_Fermants;
    std::size_t t_Taille;
    const char *pc_Attendu;
    int i_Attendu;
};

TEST(RecupValeur, Table) {
    const CasValeur t[] = {
        {"<id.123>\n", "<", ">", 1024, "id.123", 6},
        {"<<id>>", "<", ">", 1024, "id", 2},
        {"id", "<", ">", 1024, "", 0},
        {"<id", "<", ">", 1024, "id", 2},
        {nullptr, "<", ">", 1024, "", 0},
        {"\"Jean\" x", "\"", nullptr, 1024, "Jean", 4},  // closing set = opening set
        {"  a b ", " ", nullptr, 1024, "a", 1},
        {"<abcdef>", "<", ">", 4, "abc", 3},  // output bound
        {"<abcdef", "<", ">", 4, "abc", 3},
        {"<abc>", "<", ">", 1, "", 0},
        {"x<>y", "<", ">", 16, "", 0},
        {"a(b]c", "([", ")]", 16, "b", 1},
    };
    for (const CasValeur &c : t) {
        char pc_Sortie[1025];
        memset(pc_Sortie, 'Z', sizeof pc_Sortie);
        int i = RecupValeur(c.pc_Texte, c.pc_Ouvrants, c.pc_Fermants, pc_Sortie, c.t_Taille);
        std::string s_Cas = c.pc_Texte ? c.pc_Texte : "(nul)";
        EXPECT_EQ(i, c.i_Attendu) << s_Cas;
        EXPECT_STREQ(pc_Sortie, c.pc_Attendu) << s_Cas;
        EXPECT_EQ(pc_Sortie[c.t_Taille], 'Z') << s_Cas;  // nothing written past the size
    }
}

}  // namespace
