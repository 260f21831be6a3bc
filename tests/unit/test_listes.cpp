// List expansion against a real slapd (nesting, placeholders, empty and
// self-containing lists, the nesting budget at its edge) and removal of
// duplicates.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "serveurs_essai.h"
#include "directory/directory.h"
#include "enfant_essai.h"
#include "message/message.h"
#include "report/report.h"
#include "socle.h"

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
    return EntreeLdif("uid=" + s_Uid, "objectClass: inetOrgPerson\nuid: " + s_Uid + "\ncn: " +
                                          s_Uid + "\nsn: S\nmail: " + s_Uid + "@vorane.example\n");
}

// A chain of n lists, chaineN-1 -> ... -> chaineN-n -> y@vorane.example.
std::string Chaine(int n) {
    std::string s, s_Nom = "chaine" + std::to_string(n) + "-";
    for (int i = 1; i <= n; i++) {
        std::string s_Suivant = i < n ? s_Nom + std::to_string(i + 1) : std::string("y");
        s += Liste(s_Nom + std::to_string(i), "LISTE", {s_Suivant + "@vorane.example"});
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

using V = std::vector<std::string>;

// Pointers to the texts of the list, null-terminated.
std::vector<char *> Pointeurs(V &v_Textes) {
    std::vector<char *> v;
    for (std::string &s : v_Textes) v.push_back(s.data());
    v.push_back(nullptr);
    return v;
}

// The texts of a null-terminated list, case folded when asked.
V Textes(char *const *tpc, bool b_Minuscules = false) {
    V v;
    for (int i = 0; tpc != nullptr && tpc[i] != nullptr; i++) v.emplace_back(tpc[i]);
    if (b_Minuscules)
        for (std::string &s : v) _minu(s.data());
    return v;
}

// The expansion of the members as strings.
V Explose(V v_Membres) {
    char **tpc = ExploseMembres(Pointeurs(v_Membres).data());
    V v = Textes(tpc);
    free(tpc);
    return v;
}

// Members stay in order, each expanded list leaving "" in its slot and its
// members appended (breadth first); empty lists, outside addresses, empty
// members and lists of another kind than LISTE* stay as they are.
TEST_F(Expansion, CasDeListes) {
    struct Cas {
        const char *pc_Nom;
        V v_Membres, v_Explose;
    };
    const Cas t_Cas[] = {
        {"sans_liste_copie_dans_l_ordre",
         {"z@vorane.example", "", "Dupont@ailleurs.example", "vide@vorane.example"},
         {"z@vorane.example", "", "Dupont@ailleurs.example", "vide@vorane.example"}},
        {"deux_niveaux_en_largeur",
         {"a@vorane.example", "z@vorane.example"},
         {"", "z@vorane.example", "x@vorane.example", "", "y@vorane.example", "z@vorane.example"}},
        {"toute_remise_LISTE_est_une_liste_mais_pas_SYMPA",
         {"c@vorane.example", "sympa@vorane.example"},
         {"", "sympa@vorane.example", "X@VORANE.EXAMPLE", "", "y@vorane.example",
          "z@vorane.example"}},
        {"sans_membre", {}, {}},
    };
    for (const Cas &c : t_Cas) EXPECT_EQ(Explose(c.v_Membres), c.v_Explose) << c.pc_Nom;

    // Duplicates across the lists go once the expansion is made unique.
    V v_Membres = {"y@vorane.example", "b@vorane.example", "a@vorane.example", "Y@vorane.example"};
    char **tpc = ExploseMembres(Pointeurs(v_Membres).data());
    UniciteMembres(tpc);
    EXPECT_EQ(Textes(tpc, true),
              (V{"", "x@vorane.example", "y@vorane.example", "z@vorane.example"}));
    free(tpc);
}

// Exactly the budget of nested lists is expanded; one more, or a list that
// contains itself, refuses the message (level 3: 65 on the main server).
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

// Sorting ignores case and keeps one entry of every run of equal addresses,
// however the runs interleave; an empty or null list is left alone.  (An
// expansion's duplicates and placeholders are checked above.)
TEST(UniciteMembres, Doublons) {
    for (auto [v_Entree, v_Unique] :
         {std::pair<V, V>{{"c", "a", "B", "b", "a", "b", "d"}, {"a", "b", "c", "d"}}, {{}, {}}}) {
        std::vector<char *> v = Pointeurs(v_Entree);
        UniciteMembres(v.data());
        EXPECT_EQ(Textes(v.data(), true), v_Unique);
    }
    UniciteMembres(nullptr);
}

}  // namespace
