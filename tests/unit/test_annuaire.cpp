// Directory access against a real slapd: lookups and their outcomes, value
// access, filters and host lists, and the connection under failure (dead
// host, refused bind, silent host, frozen server, the retry window).
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <vector>

#include "annuaire_essai.h"
#include "directory/directory.h"
#include "driver/deploiement.h"
#include "driver/driver.h"
#include "enfant_essai.h"
#include "message/message.h"
#include "report/report.h"

namespace {

const char *const INFO = "message-id=<essai@x>, from=<a@b.c>, to=<-(-/1)";

const std::string ENTREES =
    EntreeLdif("uid=alice",
               "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: alice\n"
               "cn: Alice Martin\nsn: Martin\nmail: alice@vorane.example\n"
               "ravokVixRemise: LMTP\nravokVixServeurPrincipal: mx1\n"
               "ravokVixmailEmission: a.martin@vorane.example\n"
               "ravokVixReponse: premiere regle\nravokVixReponse: deuxieme regle\n"
               "ravokVixReponse: troisieme regle\n"
               "info: REPONSE: secretariat@vorane.example\n"
               "info: avis: \t  rebonds@vorane.example\ninfo: AVIS: second@vorane.example\n") +
    EntreeLdif("uid=bob",
               "objectClass: inetOrgPerson\nuid: bob\ncn: Bob\nsn: B\nmail: bob@vorane.example\n") +
    EntreeLdif(
        "uid=double1",
        "objectClass: inetOrgPerson\nuid: double1\ncn: D1\nsn: D\nmail: double@vorane.example\n") +
    EntreeLdif(
        "uid=double2",
        "objectClass: inetOrgPerson\nuid: double2\ncn: D2\nsn: D\nmail: double@vorane.example\n") +
    EntreeLdif("uid=etoile",
               "objectClass: inetOrgPerson\nuid: etoile\ncn: E\nsn: E\nmail: x*y@vorane.example\n");

// One slapd for the suite; a second one that refuses anonymous binds.
class Annuaire : public ::testing::Test {
  protected:
    static AnnuaireEssai sst_Annuaire;
    static AnnuaireEssai sst_Ferme;

    static void SetUpTestSuite() {
        ASSERT_TRUE(DemarreAnnuaire(&sst_Annuaire, ENTREES)) << sst_Annuaire.s_Erreur;
        OptionsAnnuaire st_Ferme;
        st_Ferme.b_RefuseAnonyme = true;
        ASSERT_TRUE(DemarreAnnuaire(&sst_Ferme, "", st_Ferme)) << sst_Ferme.s_Erreur;
    }
    static void TearDownTestSuite() {
        ArreteAnnuaire(&sst_Annuaire);
        ArreteAnnuaire(&sst_Ferme);
    }
    void SetUp() override {
        _strncpy(gPc_InfoMessEnCours, INFO, TAILLE_TEXTE);
        gi_OnEstSurServeurPrincipal = 1;
        // Generous limits where a test does not shorten them itself: a
        // loaded machine must not turn a slow answer into a failure.
        gi_DureeReessaiLdap = 0;
        gi_PasReessaiLdap = 1;
        gi_DelaiReseauLdap = 5;
    }
    void TearDown() override { ldapClose(&gld); }

    // Opens gld on the suite's directory.
    void Ouvre() {
        gld = ldapConnect(sst_Annuaire.s_Hote.c_str());
        ASSERT_NE(gld, nullptr);
    }
};
AnnuaireEssai Annuaire::sst_Annuaire;
AnnuaireEssai Annuaire::sst_Ferme;

// Filter for mail = address, built as the program builds it.
std::string FiltreMail(const char *pc_Adresse) {
    char pc[TAILLE_FILTRE];
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", pc_Adresse), 0);
    return pc;
}

// Looks the address up by mail.
int Cherche(LDAP *ld, const char *pc_Adresse, const char *const *tpc_Attr, char ***ttpc) {
    return RecupUneEntreeLdap(ld, FiltreMail(pc_Adresse).c_str(), tpc_Attr, ttpc);
}

// Number of lines of the text that contain the piece.
int CompteLignes(const std::string &s, const std::string &s_Morceau) {
    int n = 0;
    for (std::size_t i = s.find(s_Morceau); i != std::string::npos; i = s.find(s_Morceau, i + 1))
        n++;
    return n;
}

TEST_F(Annuaire, EntreeTrouveeRemplitLaTableDansLOrdreDeLaListe) {
    Ouvre();
    char **ttpc[NB_ATTR_LDAP_DEST] = {};
    ASSERT_EQ(Cherche(gld, "ALICE@vorane.example", gtpc_AttrLdapDest, ttpc), 1);
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "uid", 0), "alice");
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "cn", 0), "Alice Martin");
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "ravokVixRemise", 0), "LMTP");
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "ravokVixServeurPrincipal", 0), "mx1");
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "ravokVixmailEmission", 0),
                 "a.martin@vorane.example");
    EXPECT_EQ(tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc, "ravokVixMembres"), nullptr);
    EXPECT_EQ(tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc, "ravokVixRestrictions"), nullptr);

    // Multi-valued: every value, in the order stored.
    char **tpc_Rep = tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc, "ravokVixReponse");
    ASSERT_NE(tpc_Rep, nullptr);
    ASSERT_EQ(NblTableau(tpc_Rep), 3);
    EXPECT_STREQ(tpc_Rep[0], "premiere regle");
    EXPECT_STREQ(tpc_Rep[2], "troisieme regle");

    // The info values as a list recipient's are read.
    char **tpc_Info = tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc, "info");
    EXPECT_STREQ(RecupValeurTableau(tpc_Info, "AVIS:"), "rebonds@vorane.example");
    EXPECT_STREQ(RecupValeurTableau(tpc_Info, "REPONSE:"), "secretariat@vorane.example");
    for (char **tpc : ttpc) LibereValeursLdap(tpc);

    // The sender list: objectClass values as the sender analysis tests them.
    char **ttpc_Emet[NB_ATTR_LDAP_EMET] = {};
    ASSERT_EQ(Cherche(gld, "alice@vorane.example", gtpc_AttrLdapEmet, ttpc_Emet), 1);
    char **tpc_Classes = tpc_ValeursLdap(gtpc_AttrLdapEmet, ttpc_Emet, "objectClass");
    EXPECT_NE(RecupValeurTableau(tpc_Classes, "ravokVixBoite"), nullptr);
    EXPECT_EQ(RecupValeurTableau(tpc_Classes, "ravokVixBoite")[0], '\0');  // the class name alone
    EXPECT_EQ(RecupValeurTableau(tpc_Classes, "ravokVixObjetPartage")[0], '\0');
    EXPECT_EQ(NblTableau(tpc_Classes), 2);
    for (char **tpc : ttpc_Emet) LibereValeursLdap(tpc);
}

TEST_F(Annuaire, AucuneEntreeVideChaqueCase) {
    Ouvre();
    // Slots hold stale pointers on entry: every one must come back null.
    char pc_Vieux[] = "vieux";
    char *tpc_Vieux[] = {pc_Vieux, nullptr};
    char **ttpc[NB_ATTR_LDAP_DEST];
    for (char **&tpc : ttpc) tpc = tpc_Vieux;
    EXPECT_EQ(Cherche(gld, "inconnu@vorane.example", gtpc_AttrLdapDest, ttpc), 0);
    for (int i = 0; i < NB_ATTR_LDAP_DEST; i++) EXPECT_EQ(ttpc[i], nullptr) << gtpc_AttrLdapDest[i];
    EXPECT_EQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "uid", 0), nullptr);
}

TEST_F(Annuaire, EntreeSansRemiseLaisseSaCaseNulle) {
    Ouvre();
    char **ttpc[NB_ATTR_LDAP_DEST] = {};
    ASSERT_EQ(Cherche(gld, "bob@vorane.example", gtpc_AttrLdapDest, ttpc), 1);
    EXPECT_EQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "ravokVixRemise", 0), nullptr);
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "uid", 0), "bob");
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "cn", 0), "Bob");
    for (char **tpc : ttpc) LibereValeursLdap(tpc);
}

// Two entries for one address refuse the message (level 3; 65 on the main
// server) and name the filter.
TEST_F(Annuaire, DeuxEntreesRefusentLeMessage) {
    const std::string s_Filtre = FiltreMail("double@vorane.example");
    ResultatProcessus r = ExecuteDansEnfant([&] {
        gld = ldapConnect(sst_Annuaire.s_Hote.c_str());
        char **ttpc[NB_ATTR_LDAP_DEST] = {};
        RecupUneEntreeLdap(gld, s_Filtre.c_str(), gtpc_AttrLdapDest, ttpc);
    });
    const std::string s_Message = std::string(
                                      "v1.1.0/2618: Incoherence annuaire, 2 entree(s) trouvee(s), "
                                      "filtre=<(mail=double@vorane.example)>. ") +
                                  INFO;
    EXPECT_EQ(r.i_Statut, 65);
    EXPECT_EQ(r.s_Erreur, " !ERR:3, " + s_Message + "\n" + s_Message + "\n");
}

// Filter metacharacters in an address are matched literally: a "*" does not
// widen the search to every entry, a "(" does not break the filter.
TEST_F(Annuaire, AdresseAvecMetacaracteresChercheeTelleQuelle) {
    Ouvre();
    char **ttpc[NB_ATTR_LDAP_LISTEM] = {};
    EXPECT_EQ(Cherche(gld, "*", gtpc_AttrLdapListeM, ttpc), 0);
    EXPECT_EQ(Cherche(gld, "a)(uid=*", gtpc_AttrLdapListeM, ttpc), 0);
    EXPECT_EQ(Cherche(gld, "(", gtpc_AttrLdapListeM, ttpc), 0);
    EXPECT_EQ(Cherche(gld, "\\", gtpc_AttrLdapListeM, ttpc), 0);
    char **ttpc_Dest[NB_ATTR_LDAP_DEST] = {};
    ASSERT_EQ(Cherche(gld, "x*y@vorane.example", gtpc_AttrLdapDest, ttpc_Dest), 1);
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Dest, "uid", 0), "etoile");
    for (char **tpc : ttpc_Dest) LibereValeursLdap(tpc);
}

// The session's socket must not leak into the commands the run starts;
// closing twice is harmless.
TEST_F(Annuaire, SessionFermeeALExecEtFermetureRepetee) {
    Ouvre();
    int i_Fd = -1;
    ASSERT_EQ(ldap_get_option(gld, LDAP_OPT_DESC, &i_Fd), LDAP_OPT_SUCCESS);
    ASSERT_GE(i_Fd, 0);
    EXPECT_TRUE(fcntl(i_Fd, F_GETFD) & FD_CLOEXEC);
    ldapClose(&gld);
    EXPECT_EQ(gld, nullptr);
    ldapClose(&gld);
    EXPECT_EQ(gld, nullptr);
}

// The first host accepts no connection: the next one of the list serves,
// within the same attempt and without a warning.
TEST_F(Annuaire, PremierHoteMortLeSuivantSert) {
    for (const char *pc_Separateur : {" ", ","}) {
        std::string s_Hotes =
            "127.0.0.1:" + std::to_string(PortLibre()) + pc_Separateur + sst_Annuaire.s_Hote;
        testing::internal::CaptureStderr();
        LDAP *ld = _ldapConnect(s_Hotes.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        ASSERT_NE(ld, nullptr) << s_Hotes;
        char **ttpc[NB_ATTR_LDAP_LISTEM] = {};
        EXPECT_EQ(Cherche(ld, "bob@vorane.example", gtpc_AttrLdapListeM, ttpc), 1);
        ldapClose(&ld);
    }
}

// One attempt that fails: null and one warning naming the cause, never a
// wait beyond the time-outs (1 s here).
TEST_F(Annuaire, TentativeQuiEchoue) {
    ServeurMuet st_Accepte, st_Plein;
    ASSERT_TRUE(DemarreServeurMuet(&st_Accepte, ModeMuet::Accepte));
    ASSERT_TRUE(DemarreServeurMuet(&st_Plein, ModeMuet::FilePleine));
    const std::string s_Mort = "127.0.0.1:" + std::to_string(PortLibre());
    struct Cas {
        const char *pc_Nom;
        std::string s_Hotes;
        std::string s_Message;
    };
    const Cas t_Cas[] = {
        {"hote_mort", s_Mort,
         "2542: Erreur ldap_open <" + s_Mort +
             ">, errno=107 (Transport endpoint is not connected)"},
        {"liste_invalide", "hote/chemin?x",
         "2542: Erreur ldap_open <hote/chemin?x>, errno=22 (Invalid argument)"},
        {"liaison_refusee", sst_Ferme.s_Hote,
         "2556: Erreur ldap_simple_bind_s, ld_errno=48 (Inappropriate authentication)"},
        {"muet_apres_connexion", st_Accepte.s_Hote,
         "2556: Erreur ldap_simple_bind_s, ld_errno=-5 (Timed out)"},
        {"connexion_jamais_etablie", st_Plein.s_Hote,
         "2542: Erreur ldap_open <" + st_Plein.s_Hote + ">, errno=110 (Connection timed out)"},
    };
    for (const Cas &c : t_Cas) {
        ResultatProcessus r = ExecuteDansEnfant(
            [&] {
                gi_DelaiReseauLdap = 1;
                if (_ldapConnect(c.s_Hotes.c_str()) == nullptr) FinProcessus(1);
            },
            20);
        EXPECT_FALSE(r.b_Expire) << c.pc_Nom;
        EXPECT_EQ(r.i_Statut, 1) << c.pc_Nom;
        EXPECT_EQ(r.s_Erreur, " !ERR:4, v1.1.0/" + c.s_Message + ". " + INFO + "\n") << c.pc_Nom;
    }
    ArreteServeurMuet(&st_Accepte);
    ArreteServeurMuet(&st_Plein);
}

// The retry window: attempts every P seconds while no more than D seconds
// have passed, then level 2 and status 75.  With attempts that fail at once
// that is D/P + 2 attempts (61 for 299 s and 5 s).
TEST_F(Annuaire, FenetreDeReessaiPuisStatut75) {
    struct Cas {
        int i_Duree, i_Pas, i_Tentatives;
    };
    for (const Cas &c : {Cas{0, 1, 2}, Cas{2, 1, 4}}) {
        ResultatProcessus r = ExecuteDansEnfant([&] {
            gi_DureeReessaiLdap = c.i_Duree;
            gi_PasReessaiLdap = c.i_Pas;
            ldapConnect(sst_Ferme.s_Hote.c_str());
        });
        EXPECT_EQ(r.i_Statut, 75);
        EXPECT_EQ(CompteLignes(r.s_Erreur, " !ERR:4, v1.1.0/2556: "), c.i_Tentatives) << r.s_Erreur;
        const std::string s_Fin = " !ERR:2, v1.1.0/2576: Erreur connection LDAP sur <" +
                                  sst_Ferme.s_Hote + ">. " + INFO +
                                  ". Possibilite de depots repetes\n";
        ASSERT_GE(r.s_Erreur.size(), s_Fin.size());
        EXPECT_EQ(r.s_Erreur.substr(r.s_Erreur.size() - s_Fin.size()), s_Fin);
    }
}

// A server that stops answering after the bind: the search ends on the
// time-out with level 2 (status 75), never in a wait without end.
TEST_F(Annuaire, RechercheSansReponseFinitEnReessai) {
    const std::string s_Filtre = FiltreMail("bob@vorane.example");
    ResultatProcessus r = ExecuteDansEnfant(
        [&] {
            gi_DelaiReseauLdap = 2;
            gi_DureeReessaiLdap = 10;
            gld = ldapConnect(sst_Annuaire.s_Hote.c_str());
            SuspendAnnuaire(sst_Annuaire);
            char **ttpc[NB_ATTR_LDAP_LISTEM] = {};
            RecupUneEntreeLdap(gld, s_Filtre.c_str(), gtpc_AttrLdapListeM, ttpc);
        },
        20);
    ReprendAnnuaire(sst_Annuaire);
    EXPECT_FALSE(r.b_Expire);
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(r.s_Erreur,
              " !ERR:2, v1.1.0/2604: Erreur ldap_search_s, filtre=<(mail=bob@vorane.example)> "
              "ld_errno=-5 (Timed out). " +
                  std::string(INFO) + ". Possibilite de depots repetes\n");
}

// ---------------------------------------------------------------------------
// Socket-free parts.
// ---------------------------------------------------------------------------

TEST(RecupValeurTableau, PrefixesEtAbsence) {
    char v1[] = "REPONSE: r@x", v2[] = "avis:", v3[] = "AVIS: \t\t premier@x",
         v4[] = "Avis:second@x", v5[] = "AVI", v6[] = "AVIS-NON: z";
    struct Cas {
        const char *pc_Nom;
        std::vector<char *> v_Valeurs;  // without the terminator
        const char *pc_Prefixe;
        const char *pc_Attendu;
    };
    const Cas t_Cas[] = {
        {"sans_valeur_commencant_ainsi", {v1, v5, v6}, "AVIS:", ""},
        {"prefixe_seul_vaut_absence", {v2, v3}, "AVIS:", ""},
        {"blancs_et_tabulations_sautes", {v1, v3, v4}, "AVIS:", "premier@x"},
        {"le_premier_gagne", {v4, v3}, "AVIS:", "second@x"},
        {"valeur_plus_courte_que_prefixe", {v5}, "AVIS:", ""},
        {"autre_prefixe", {v3, v1}, "reponse:", "r@x"},
    };
    for (const Cas &c : t_Cas) {
        std::vector<char *> v = c.v_Valeurs;
        v.push_back(nullptr);
        const char *pc = RecupValeurTableau(v.data(), c.pc_Prefixe);
        ASSERT_NE(pc, nullptr) << c.pc_Nom;
        EXPECT_STREQ(pc, c.pc_Attendu) << c.pc_Nom;
    }
    const char *pc = RecupValeurTableau(nullptr, "AVIS:");
    ASSERT_NE(pc, nullptr);
    EXPECT_STREQ(pc, "");
    // The result points into the value itself.
    char *tpc[] = {v3, nullptr};
    EXPECT_EQ(RecupValeurTableau(tpc, "avis:"), v3 + strlen(v3) - strlen("premier@x"));
}

TEST(AttributsLdap, IndicesEtNomAbsent) {
    EXPECT_EQ(i_IndiceAttr(gtpc_AttrLdapDest, "ravokVixmailEmission"), NB_ATTR_LDAP_DEST - 1);
    EXPECT_EQ(i_IndiceAttr(gtpc_AttrLdapDest, "UID"), NB_ATTR_LDAP_DEST);  // exact bytes
    // A name the list lacks reads as "no values", never past the table.
    char pc[] = "v";
    char *tpc[] = {pc, nullptr};
    char **ttpc[NB_ATTR_LDAP_LISTEM] = {tpc, tpc};
    EXPECT_EQ(tpc_ValeursLdap(gtpc_AttrLdapListeM, ttpc, "mail"), nullptr);
    EXPECT_EQ(pc_ValeurLdap(gtpc_AttrLdapListeM, ttpc, "mail", 0), nullptr);
}

TEST(FiltreLdap, EchappementEtBorne) {
    struct Cas {
        const char *pc_Valeur;
        const char *pc_Attendu;
    };
    const Cas t_Cas[] = {
        {"alice@vorane.example", "(mail=alice@vorane.example)"},
        {"", "(mail=)"},
        {"a*b", "(mail=a\\2ab)"},
        {"x)(uid=*", "(mail=x\\29\\28uid=\\2a)"},
        {"back\\slash", "(mail=back\\5cslash)"},
        {"\xc3\xa9t\xc3\xa9@x", "(mail=\xc3\xa9t\xc3\xa9@x)"},
    };
    for (const Cas &c : t_Cas) {
        char pc[TAILLE_FILTRE];
        ASSERT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", c.pc_Valeur), 0) << c.pc_Valeur;
        EXPECT_STREQ(pc, c.pc_Attendu);
    }

    // "(mail=" + value + ")" is 7 + n bytes: 312 fits in 320 with the NUL,
    // 313 does not and is refused, never cut.  An escape counts 3 bytes.
    char pc[TAILLE_FILTRE];
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", std::string(312, 'a').c_str()), 0);
    EXPECT_EQ(strlen(pc), TAILLE_FILTRE - 1);
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", std::string(313, 'a').c_str()), -1);
    EXPECT_STREQ(pc, "");
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", (std::string(310, 'a') + "*").c_str()),
              -1);
}

TEST(ListeHotes, UrisConstruites) {
    struct Cas {
        const char *pc_Hotes;
        int i_Nb;
        const char *pc_Uris;
    };
    const Cas t_Cas[] = {
        {"127.0.0.1", 1, "ldap://127.0.0.1:389"},
        {"ldap1 ldap2:3389,ldap3", 3, "ldap://ldap1:389,ldap://ldap2:3389,ldap://ldap3:389"},
        {" ,a.b.c:1\t, ", 1, "ldap://a.b.c:1"},
        {"[::1]:636 [fe80::1]", 2, "ldap://[::1]:636,ldap://[fe80::1]:389"},
        {"", -1, ""},
        {"h:0", -1, ""},
        {"h:65536", -1, ""},
        {"h:", -1, ""},
        {"bon mau/vais", -1, ""},
        {"ldap://h", -1, ""},
        {"[::1", -1, ""},
        {"::1", -1, ""},
    };
    for (const Cas &c : t_Cas) {
        char pc[TAILLE_TEXTE];
        EXPECT_EQ(ConstruitUrisLdap(c.pc_Hotes, pc, sizeof pc), c.i_Nb) << c.pc_Hotes;
        EXPECT_STREQ(pc, c.pc_Uris) << c.pc_Hotes;
    }
    // A list whose URIs do not fit is refused whole.
    char pc[48];
    EXPECT_EQ(ConstruitUrisLdap("a.example b.example c.example", pc, sizeof pc), -1);
    EXPECT_EQ(ConstruitUrisLdap("a.example b.example", pc, sizeof pc), 2);
}

}  // namespace
