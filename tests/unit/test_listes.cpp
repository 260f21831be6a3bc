// List expansion against a real slapd (nesting, placeholders, empty and
// self-containing lists, the nesting budget at its edge) and removal of
// duplicates.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "annuaire_essai.h"
#include "directory/directory.h"
#include "driver/driver.h"
#include "enfant_essai.h"
#include "message/message.h"
#include "report/report.h"

namespace {

const char *const INFO = "message-id=<liste@x>, from=<a@b.c>, to=<l@vorane.example>(1/1)";
constexpr int LONGUEUR_CHAINE = NB_MAX_LISTES_IMBRIQUEES;

// LDIF of a list entry with its members.
std::string Liste(const std::string &s_Nom, const std::string &s_Remise,
                  const std::vector<std::string> &v_Membres) {
    std::string s = "objectClass: ravokVixListe\ncn: " + s_Nom + "\nmail: " + s_Nom +
                    "@vorane.example\nravokVixRemise: " + s_Remise + "\n";
    for (const std::string &m : v_Membres) s += "ravokVixMembres: " + m + "\n";
    return EntreeLdif("cn=" + s_Nom, s);
}

// LDIF of a mailbox.
std::string Boite(const std::string &s_Uid) {
    return EntreeLdif("uid=" + s_Uid,
                      "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: " + s_Uid +
                          "\ncn: " + s_Uid + "\nsn: " + s_Uid + "\nmail: " + s_Uid +
                          "@vorane.example\nravokVixRemise: LMTP\n");
}

// A chain of n lists, chaineN-1 -> ... -> chaineN-n -> y@vorane.example.
std::string Chaine(int n) {
    std::string s;
    for (int i = 1; i <= n; i++) {
        std::string s_Suivant =
            i < n ? "chaine" + std::to_string(n) + "-" + std::to_string(i + 1) + "@vorane.example"
                  : "y@vorane.example";
        s += Liste("chaine" + std::to_string(n) + "-" + std::to_string(i), "LISTE", {s_Suivant});
    }
    return s;
}

const std::string ENTREES = Boite("x") + Boite("y") + Boite("z") +
                            Liste("a", "LISTE-MU", {"x@vorane.example", "b@vorane.example"}) +
                            Liste("b", "LISTE", {"y@vorane.example", "z@vorane.example"}) +
                            Liste("vide", "LISTE-BR", {}) +
                            Liste("soi", "LISTE-MU", {"soi@vorane.example"}) +
                            Liste("c", "liste-autre", {"X@VORANE.EXAMPLE", "b@vorane.example"}) +
                            Liste("sympa", "SYMPA", {"x@vorane.example"}) +
                            Chaine(LONGUEUR_CHAINE) + Chaine(LONGUEUR_CHAINE + 1);

class Expansion : public ::testing::Test {
  protected:
    static AnnuaireEssai sst_Annuaire;
    static void SetUpTestSuite() {
        ASSERT_TRUE(DemarreAnnuaire(&sst_Annuaire, ENTREES)) << sst_Annuaire.s_Erreur;
    }
    static void TearDownTestSuite() { ArreteAnnuaire(&sst_Annuaire); }
    void SetUp() override {
        _strncpy(gPc_InfoMessEnCours, INFO, TAILLE_TEXTE);
        gi_OnEstSurServeurPrincipal = 1;
        gld = ldapConnect(sst_Annuaire.s_Hote.c_str());
        ASSERT_NE(gld, nullptr);
    }
    void TearDown() override { ldapClose(&gld); }
};
AnnuaireEssai Expansion::sst_Annuaire;

// The expansion of the members as strings.
std::vector<std::string> Explose(std::vector<std::string> v_Membres, bool b_Unicite = false) {
    std::vector<char *> v;
    for (std::string &s : v_Membres) v.push_back(s.data());
    v.push_back(nullptr);
    char **tpc = ExploseMembres(v.data());
    if (b_Unicite) UniciteMembres(tpc);
    std::vector<std::string> v_Resultat;
    for (int i = 0; tpc != nullptr && tpc[i] != nullptr; i++) v_Resultat.emplace_back(tpc[i]);
    free(tpc);
    return v_Resultat;
}

using V = std::vector<std::string>;

TEST_F(Expansion, CasDeListes) {
    struct Cas {
        const char *pc_Nom;
        V v_Membres;
        V v_Explose;
        V v_Unique;
    };
    const Cas t_Cas[] = {
        {"boites_seules_copie_dans_l_ordre",
         {"z@vorane.example", "x@vorane.example", "y@vorane.example"},
         {"z@vorane.example", "x@vorane.example", "y@vorane.example"},
         {"x@vorane.example", "y@vorane.example", "z@vorane.example"}},
        {"liste_imbriquee_en_largeur",
         {"x@vorane.example", "b@vorane.example"},
         {"x@vorane.example", "", "y@vorane.example", "z@vorane.example"},
         {"", "x@vorane.example", "y@vorane.example", "z@vorane.example"}},
        {"deux_niveaux_en_largeur",
         {"a@vorane.example", "z@vorane.example"},
         {"", "z@vorane.example", "x@vorane.example", "", "y@vorane.example", "z@vorane.example"},
         {"", "x@vorane.example", "y@vorane.example", "z@vorane.example"}},
        {"liste_vide_reste_sous_son_adresse",
         {"vide@vorane.example", "x@vorane.example"},
         {"vide@vorane.example", "x@vorane.example"},
         {"vide@vorane.example", "x@vorane.example"}},
        {"adresse_inconnue_inchangee",
         {"Dupont@ailleurs.example", "x@vorane.example"},
         {"Dupont@ailleurs.example", "x@vorane.example"},
         {"Dupont@ailleurs.example", "x@vorane.example"}},
        {"toute_remise_LISTE_est_une_liste_mais_pas_SYMPA",
         {"c@vorane.example", "sympa@vorane.example"},
         {"", "sympa@vorane.example", "X@VORANE.EXAMPLE", "", "y@vorane.example",
          "z@vorane.example"},
         {"", "sympa@vorane.example", "X@VORANE.EXAMPLE", "y@vorane.example", "z@vorane.example"}},
        {"doublons_a_travers_les_listes",
         {"y@vorane.example", "b@vorane.example", "a@vorane.example", "Y@vorane.example"},
         {"y@vorane.example", "", "", "Y@vorane.example", "y@vorane.example", "z@vorane.example",
          "x@vorane.example", "", "y@vorane.example", "z@vorane.example"},
         {"", "x@vorane.example", "y@vorane.example", "z@vorane.example"}},
        {"membre_vide_ignore",
         {"", "x@vorane.example"},
         {"", "x@vorane.example"},
         {"", "x@vorane.example"}},
        {"sans_membre", {}, {}, {}},
    };
    for (const Cas &c : t_Cas) {
        EXPECT_EQ(Explose(c.v_Membres), c.v_Explose) << c.pc_Nom;
        V v_Unique = Explose(c.v_Membres, true);
        // Which spelling survives among case variants is the sort's choice.
        for (std::string &s : v_Unique) _minu(s.data());
        V v_Attendu = c.v_Unique;
        for (std::string &s : v_Attendu) _minu(s.data());
        EXPECT_EQ(v_Unique, v_Attendu) << c.pc_Nom;
    }
}

// Exactly the budget of nested lists is expanded; one more refuses the
// message (level 3: 65 on the main server).
TEST_F(Expansion, BudgetDeListesImbriquees) {
    V v_Attendu(LONGUEUR_CHAINE, "");
    v_Attendu.push_back("y@vorane.example");
    EXPECT_EQ(Explose({"chaine" + std::to_string(LONGUEUR_CHAINE) + "-1@vorane.example"}),
              v_Attendu);

    const std::string s_Message =
        "v1.1.0/3395: Trop de listes dans des listes (>300). " + std::string(INFO);
    for (const std::string &s_Tete :
         {"chaine" + std::to_string(LONGUEUR_CHAINE + 1) + "-1@vorane.example",
          std::string("soi@vorane.example")}) {
        ResultatProcessus r = ExecuteDansEnfant([&] {
            Explose({"x@vorane.example", s_Tete});
            FinProcessus(0);
        });
        EXPECT_EQ(r.i_Statut, 65) << s_Tete;
        EXPECT_EQ(r.s_Erreur, " !ERR:3, " + s_Message + "\n" + s_Message + "\n") << s_Tete;
    }
}

// A member too long for a filter is never looked up with a cut filter: it
// stays as it is, with a warning.
TEST_F(Expansion, MembreTropLongGardeTelQuel) {
    const std::string s_Long = std::string(400, 'b') + "@vorane.example";
    testing::internal::CaptureStderr();
    EXPECT_EQ(Explose({s_Long, "b@vorane.example"}),
              (V{s_Long, "", "y@vorane.example", "z@vorane.example"}));
    std::string s_Erreur = testing::internal::GetCapturedStderr();
    EXPECT_EQ(s_Erreur.rfind(" !ERR:4, v1.1.0/3388: ", 0), 0u) << s_Erreur;
}

// ---------------------------------------------------------------------------
// Duplicates, without a directory.
// ---------------------------------------------------------------------------

// Unique entries, case folded, of the list after UniciteMembres.
V Unique(V v_Entree) {
    std::vector<char *> v;
    for (std::string &s : v_Entree) v.push_back(s.data());
    v.push_back(nullptr);
    UniciteMembres(v.data());
    V v_Resultat;
    for (int i = 0; v[i] != nullptr; i++) {
        v_Resultat.emplace_back(v[i]);
        _minu(v_Resultat.back().data());
    }
    return v_Resultat;
}

TEST(UniciteMembres, Doublons) {
    EXPECT_EQ(Unique({"b", "a", "c", "A", "b"}), (V{"a", "b", "c"}));
    EXPECT_EQ(Unique({"c", "a", "B", "b", "a", "b", "d"}), (V{"a", "b", "c", "d"}));
    EXPECT_EQ(Unique({"x", "x", "x", "x"}), (V{"x"}));
    EXPECT_EQ(Unique({"", "y", "", "x"}), (V{"", "x", "y"}));
    EXPECT_EQ(Unique({"seul"}), (V{"seul"}));
    EXPECT_EQ(Unique({}), V{});
    UniciteMembres(nullptr);
}

}  // namespace
