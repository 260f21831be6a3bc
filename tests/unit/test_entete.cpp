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

// Frees a list whose texts are its own copies (the program leaves this to
// process exit; the tests free so that leak checks stay meaningful).
void Libere(Entete *pet) {
    while (pet != nullptr) {
        Entete *pet_Suivant = pet->pet_Suivant;
        free(pet->pc_Ligne);
        free(pet);
        pet = pet_Suivant;
    }
}

// Insertion after a middle node; a larger minimum leaves room to grow in
// place; adoption shares the very text, so an edit shows through.
TEST(ChargeLigne, InsertionCopieEtAdoption) {
    Entete *pet_Tete = Liste({"A: 1\n", "C: 3\n"});
    Entete *pet_Curseur = pet_Tete;
    EXPECT_EQ(ChargeLigne(&pet_Curseur, "B: 2\n", 0), pet_Curseur);
    ChargeLigne(&pet_Curseur, "B2: 2\n", 0);
    EXPECT_EQ(Textes(pet_Tete), (Lignes{"A: 1\n", "B: 2\n", "B2: 2\n", "C: 3\n"}));
    Libere(pet_Tete);

    char pc_Texte[] = "Subject: a\n";
    pet_Curseur = nullptr;
    Entete *pet_Large = ChargeLigne(&pet_Curseur, pc_Texte, 200);
    EXPECT_EQ(pet_Large->pet_Suivant, nullptr);
    EXPECT_NE(pet_Large->pc_Ligne, pc_Texte);
    strcat(pet_Large->pc_Ligne, std::string(150, 'x').c_str());  // in bounds under ASan
    Libere(pet_Large);

    pet_Curseur = nullptr;
    Entete *pet_Adopte = ChargeLigne(&pet_Curseur, pc_Texte, ADOPTE_TEXTE);
    EXPECT_EQ(pet_Adopte->pc_Ligne, pc_Texte);
    free(pet_Adopte);  // the adopted text is not the node's
}

const std::string LIGNE_1023 = "X-Long: " + std::string(1015, 'z');
const std::string LIGNE_2500 = "X-Tres-Long: " + std::string(2487, 'q');

// The header as read from a pipe: folded fields joined, CRLF kept, input
// left from the empty line on, pieces of 1023 bytes for long lines, and
// warning 1783 when input ends before the empty line.
TEST(LitEntete, NoeudsEtReste) {
    struct {
        const char *pc_Nom;
        std::string s_Entree;
        Lignes v_Noeuds;       // the header as read
        std::string s_Reste;   // what stays on standard input
        bool b_Avertissement;  // message 1783
    } t[] = {
        {"plies_puis_corps", "Subject: a\n b\n\tc\nTo: x\n\ncorps\n.\n",
         {"Subject: a\n b\n\tc\n", "To: x\n", "\n"}, "corps\n.\n", false},
        {"crlf", "Subject: a\r\n b\r\n\r\ncorps\r\n", {"Subject: a\r\n b\r\n", "\r\n"}, "corps\r\n",
         false},
        {"sans_ligne_vide", "A: 1\nB: 2", {"A: 1\n", "B: 2"}, "", true},
        {"premiere_ligne_vide", "\nA: 1\n\n", {"\n"}, "A: 1\n\n", false},
        {"suite_sans_champ_avant", " orpheline\nA: 1\n\n", {" orpheline\n", "A: 1\n", "\n"}, "",
         false},
        // 1023 bytes fill one piece; the line feed alone comes next and is
        // taken as the end of the header.
        {"ligne_de_1023", LIGNE_1023 + "\nB: 2\n\ncorps\n", {LIGNE_1023, "\n"}, "B: 2\n\ncorps\n",
         false},
        // Pieces of a long line that do not begin with a blank are nodes of
        // their own, even after a continuation line.
        {"ligne_longue_en_morceaux", LIGNE_2500 + "\n\n",
         {LIGNE_2500.substr(0, 1023), LIGNE_2500.substr(1023, 1023), LIGNE_2500.substr(2046) + "\n",
          "\n"}, "", false},
        {"suite_longue", "Subject: a\n " + std::string(1500, 's') + "\n\n",
         {"Subject: a\n " + std::string(1022, 's'), std::string(478, 's') + "\n", "\n"}, "", false},
    };
    for (auto &c : t) {
        EntreeTube st_Tube(c.s_Entree);
        Entete *pet_Tete = nullptr;
        std::string s_Err = CaptureErreur([&] { LitEntete(&pet_Tete); });
        EXPECT_EQ(Textes(pet_Tete), c.v_Noeuds) << c.pc_Nom;
        EXPECT_EQ(EntreeTube::Reste(), c.s_Reste) << c.pc_Nom;
        EXPECT_EQ(s_Err.rfind(" !ERR:4, v1.1.0/1783: EOF avant ligne de fin d'entete. ", 0) == 0,
                  c.b_Avertissement)
            << c.pc_Nom << ": " << s_Err;
        Libere(pet_Tete);
    }
}

// The body follows the header's empty line in pieces of 1023 bytes, not
// cut at line ends (a body of short lines is held in about its own size),
// nothing treated specially.
TEST(LectureMessage, CorpsAjouteEnMorceaux) {
    const std::string s_Corps = "ligne\n\n.\nX-Corps: oui\n" + LIGNE_2500 + "\nfin";
    EntreeTube st_Tube("From: a@b.c\n\n" + s_Corps);
    Entete *pet_Tete = nullptr;
    LitEntete(&pet_Tete);
    LitMessage(pet_Tete, stdin);
    Lignes v = Textes(pet_Tete);
    ASSERT_EQ(v.size(), 5u);
    EXPECT_EQ(v[0] + v[1], "From: a@b.c\n\n");
    EXPECT_EQ(v[2] + v[3] + v[4], s_Corps);
    EXPECT_EQ(v[2].size(), 1023u);
    EXPECT_EQ(v[3].size(), 1023u);
    Libere(pet_Tete);
}

// LigneEnteteVide tells the kinds of empty line apart (0 for any other
// text); VerifLigneEOL cuts a text at its first empty line.
TEST(LigneEnteteVide, CodesEtVerifLigneEOL) {
    const char *tpc[] = {nullptr, "", "\nx", "\r\n", "\r\nx", " \n"};
    const int ti[] = {1, 2, 3, 4, 0, 0};
    for (int i = 0; i < 6; i++) EXPECT_EQ(LigneEnteteVide(tpc[i]), ti[i]) << i;
    std::string s = "a\nb\n\nc\n\n";
    EXPECT_STREQ(VerifLigneEOL(s.data()), "a\nb\n");
    s = "a\r\n\r\n";
    EXPECT_STREQ(VerifLigneEOL(s.data()), "a\r\n\r\n");
}

// Lookups match the field-name prefix in any case and go on from a node;
// values skip leading blanks and keep continuations; an absent field has
// the one shared value "\n".
TEST(Recherches, PrefixeSansCasseValeursEtSuite) {
    Entete *pet = Liste({"Received: un\n", "To-Do: rien\n", "TO: d@x.y\n", "Subject: a\n b\n",
                         "Received: deux\n", "X-Vide:\n", "X-Blancs: \t v\n", "\n"});
    EXPECT_STREQ(RecupEntete(pet, "to:")->pc_Ligne, "TO: d@x.y\n");
    EXPECT_STREQ(RecupEntete(pet, "To")->pc_Ligne, "To-Do: rien\n");
    Entete *pet_Un = RecupEntete(pet, "received:");
    EXPECT_STREQ(RecupEntete(pet_Un->pet_Suivant, "Received:")->pc_Ligne, "Received: deux\n");

    EXPECT_STREQ(RecupValeurEntete(pet, "subject:"), "a\n b\n");
    EXPECT_STREQ(RecupValeurEntete(pet, "X-Blancs:"), "v\n");
    // Present but empty, and absent: both empty for LigneEnteteVide; the
    // absent value is one shared constant.
    EXPECT_NE(LigneEnteteVide(RecupValeurEntete(pet, "X-Vide:")), 0);
    const char *pc_Absent = RecupValeurEntete(pet, "Cc:");
    EXPECT_STREQ(pc_Absent, "\n");
    EXPECT_EQ(pc_Absent, RecupValeurEntete(nullptr, "Autre:"));
    Libere(pet);
}

// The text between the first opener and the next closer (or the end),
// bounded by the size: never a byte written past it.
TEST(RecupValeur, Table) {
    struct {
        const char *pc_Texte, *pc_Ouvrants, *pc_Fermants;
        std::size_t t_Taille;
        const char *pc_Attendu;
    } t[] = {
        {"<id.123>\n", "<", ">", 1024, "id.123"}, {"<<id>>", "<", ">", 1024, "id"},
        {"id", "<", ">", 1024, ""},               {"<id", "<", ">", 1024, "id"},
        {nullptr, "<", ">", 1024, ""},            {"\"Jean\" x", "\"", nullptr, 1024, "Jean"},
        {"<abcdef>", "<", ">", 4, "abc"},         {"<abc>", "<", ">", 1, ""},
    };
    for (auto &c : t) {
        char pc_Sortie[1025];
        memset(pc_Sortie, 'Z', sizeof pc_Sortie);
        int i = RecupValeur(c.pc_Texte, c.pc_Ouvrants, c.pc_Fermants, pc_Sortie, c.t_Taille);
        EXPECT_EQ(i, static_cast<int>(strlen(c.pc_Attendu)));
        EXPECT_STREQ(pc_Sortie, c.pc_Attendu);
        EXPECT_EQ(pc_Sortie[c.t_Taille], 'Z');
    }
}

}  // namespace
