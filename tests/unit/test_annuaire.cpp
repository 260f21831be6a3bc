// Directory access against a real slapd: lookups and their outcomes, value
// access, filters and host lists, and the connection under failure (dead
// host, refused bind, silent host, frozen server, the retry window).
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>

#include "serveurs_essai.h"
#include "directory/directory.h"
#include "enfant_essai.h"
#include "message/message.h"
#include "report/report.h"
#include "socle.h"

namespace {

const char *const INFO = "message-id=<essai@x>, from=<a@b.c>, to=<-(-/1)";

// LDIF of a person known by the mail address.
std::string Personne(const std::string &s_Uid, const std::string &s_Mail) {
    return EntreeLdif("uid=" + s_Uid, "objectClass: inetOrgPerson\nuid: " + s_Uid +
                                          "\ncn: " + s_Uid + "\nsn: S\nmail: " + s_Mail + "\n");
}

const std::string ENTREES =
    EntreeLdif("uid=alice",
               "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: alice\n"
               "cn: Alice Martin\nsn: Martin\nmail: alice@vorane.example\n"
               "ravokVixRemise: LMTP\nravokVixServeurPrincipal: mx1\n"
               "ravokVixmailEmission: a.martin@vorane.example\n"
               "ravokVixReponse: premiere regle\nravokVixReponse: deuxieme regle\n"
               "ravokVixReponse: troisieme regle\n") +
    Personne("bob", "bob@vorane.example") + Personne("double1", "double@vorane.example") +
    Personne("double2", "double@vorane.example") + Personne("etoile", "x*y@vorane.example");

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

// True when a shared object of the SASL plug-in directory is mapped.
bool PluginSaslCharge() {
    std::ifstream f("/proc/self/maps");
    for (std::string s; std::getline(f, s);)
        if (s.find("/sasl2/lib") != std::string::npos) return true;
    return false;
}

// One entry: every slot of the table holds the values of its own attribute
// in the order stored, attributes the entry lacks stay null.  No entry:
// slots that held stale pointers come back null.  Filter metacharacters in
// an address match literally and never widen the search.  The session,
// bound simply, has loaded no SASL mechanism plug-in.
TEST_F(Annuaire, RechercheParMail) {
    Ouvre();
    EXPECT_FALSE(PluginSaslCharge());
    char **ttpc[NB_ATTR_LDAP_DEST] = {};
    ASSERT_EQ(Cherche(gld, "ALICE@vorane.example", gtpc_AttrLdapDest, ttpc), 1);
    const std::pair<const char *, const char *> t_Attendus[] = {
        {"uid", "alice"}, {"cn", "Alice Martin"}, {"ravokVixRemise", "LMTP"},
        {"ravokVixServeurPrincipal", "mx1"}, {"ravokVixmailEmission", "a.martin@vorane.example"},
        {"ravokVixMembres", nullptr}, {"ravokVixRestrictions", nullptr}, {"info", nullptr}};
    for (auto [pc_Nom, pc_Valeur] : t_Attendus)
        EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, pc_Nom, 0), pc_Valeur) << pc_Nom;
    char **tpc_Rep = tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc, "ravokVixReponse");
    ASSERT_EQ(NblTableau(tpc_Rep), 3);
    EXPECT_STREQ(tpc_Rep[0], "premiere regle");
    EXPECT_STREQ(tpc_Rep[2], "troisieme regle");
    for (char **&tpc : ttpc) LibereValeursLdap(tpc);

    char pc_Vieux[] = "vieux";
    char *tpc_Vieux[] = {pc_Vieux, nullptr};
    for (char **&tpc : ttpc) tpc = tpc_Vieux;
    EXPECT_EQ(Cherche(gld, "inconnu@vorane.example", gtpc_AttrLdapDest, ttpc), 0);
    for (int i = 0; i < NB_ATTR_LDAP_DEST; i++) EXPECT_EQ(ttpc[i], nullptr) << gtpc_AttrLdapDest[i];

    EXPECT_EQ(Cherche(gld, "*", gtpc_AttrLdapDest, ttpc), 0);
    EXPECT_EQ(Cherche(gld, "a)(uid=*", gtpc_AttrLdapDest, ttpc), 0);
    ASSERT_EQ(Cherche(gld, "x*y@vorane.example", gtpc_AttrLdapDest, ttpc), 1);
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "uid", 0), "etoile");
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
    const std::string s_Message = "v1.1.0/2618: Incoherence annuaire, 2 entree(s) trouvee(s), "
                                  "filtre=<(mail=double@vorane.example)>. " + std::string(INFO);
    EXPECT_EQ(r.i_Statut, 65);
    EXPECT_EQ(r.s_Erreur, " !ERR:3, " + s_Message + "\n" + s_Message + "\n");
}

// The session's socket must not leak into the commands the run starts.
TEST_F(Annuaire, SessionFermeeALExec) {
    Ouvre();
    int i_Fd = -1;
    ASSERT_EQ(ldap_get_option(gld, LDAP_OPT_DESC, &i_Fd), LDAP_OPT_SUCCESS);
    ASSERT_GE(i_Fd, 0);
    EXPECT_TRUE(fcntl(i_Fd, F_GETFD) & FD_CLOEXEC);
}

// The first host accepts no connection: the next one of the list serves,
// within the same attempt and without a warning.
TEST_F(Annuaire, PremierHoteMortLeSuivantSert) {
    std::string s_Hotes = "127.0.0.1:" + std::to_string(PortLibre()) + "," + sst_Annuaire.s_Hote;
    testing::internal::CaptureStderr();
    LDAP *ld = _ldapConnect(s_Hotes.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_NE(ld, nullptr) << s_Hotes;
    char **ttpc[NB_ATTR_LDAP_LISTEM] = {};
    EXPECT_EQ(Cherche(ld, "bob@vorane.example", gtpc_AttrLdapListeM, ttpc), 1);
    ldapClose(&ld);
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
        std::string s_Hotes, s_Message;
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
// that is D/P + 2 attempts (61 for 299 s and 5 s; 4 for 2 s and 1 s here).
TEST_F(Annuaire, FenetreDeReessaiPuisStatut75) {
    ResultatProcessus r = ExecuteDansEnfant([&] {
        gi_DureeReessaiLdap = 2;
        ldapConnect(sst_Ferme.s_Hote.c_str());
    });
    std::string s_Attendu;
    for (int i = 0; i < 4; i++)
        s_Attendu += " !ERR:4, v1.1.0/2556: Erreur ldap_simple_bind_s, ld_errno=48 (Inappropriate "
                     "authentication). " + std::string(INFO) + "\n";
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(r.s_Erreur, s_Attendu + " !ERR:2, v1.1.0/2576: Erreur connection LDAP sur <" +
                              sst_Ferme.s_Hote + ">. " + INFO +
                              ". Possibilite de depots repetes\n");
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

// The first value with the prefix in any case gives what follows its
// blanks, pointing into the value; no such value (or a prefix alone) gives "".
TEST(RecupValeurTableau, PrefixesEtAbsence) {
    char v1[] = "REPONSE: r@x", v2[] = "avis:", v3[] = "AVIS: \t\t premier@x",
         v4[] = "Avis:second@x", v5[] = "AVI", v6[] = "AVIS-NON: z";
    char *tpc_Sans[] = {v1, v5, v6, nullptr}, *tpc_Seul[] = {v2, v3, nullptr},
         *tpc_Blancs[] = {v1, v3, v4, nullptr}, *tpc_Premier[] = {v4, v3, nullptr};
    EXPECT_STREQ(RecupValeurTableau(tpc_Sans, "AVIS:"), "");
    EXPECT_STREQ(RecupValeurTableau(tpc_Seul, "AVIS:"), "");
    EXPECT_EQ(RecupValeurTableau(tpc_Blancs, "avis:"), v3 + strlen(v3) - strlen("premier@x"));
    EXPECT_STREQ(RecupValeurTableau(tpc_Premier, "AVIS:"), "second@x");
    EXPECT_STREQ(RecupValeurTableau(nullptr, "AVIS:"), "");
}

// A name the attribute list lacks reads as "no values", never past the table.
TEST(AttributsLdap, NomAbsent) {
    char pc[] = "v";
    char *tpc[] = {pc, nullptr};
    char **ttpc[NB_ATTR_LDAP_LISTEM] = {tpc, tpc};
    EXPECT_EQ(tpc_ValeursLdap(gtpc_AttrLdapListeM, ttpc, "mail"), nullptr);
    EXPECT_EQ(pc_ValeurLdap(gtpc_AttrLdapListeM, ttpc, "mail", 0), nullptr);
}

// Metacharacters are escaped as \XX; a filter that does not fit is refused
// whole, never cut into a search for another address.
TEST(FiltreLdap, EchappementEtBorne) {
    char pc[TAILLE_FILTRE];
    for (auto [pc_Valeur, pc_Attendu] :
         {std::pair{"alice@x.y", "(mail=alice@x.y)"}, {"a*b", "(mail=a\\2ab)"},
          {"x)(uid=*", "(mail=x\\29\\28uid=\\2a)"}, {"back\\slash", "(mail=back\\5cslash)"}}) {
        ASSERT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", pc_Valeur), 0) << pc_Valeur;
        EXPECT_STREQ(pc, pc_Attendu);
    }
    // "(mail=" + value + ")" is 7 + n bytes: 312 fits in 320 with the NUL,
    // 313 does not.  An escape counts 3 bytes.
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", std::string(312, 'a').c_str()), 0);
    EXPECT_EQ(strlen(pc), TAILLE_FILTRE - 1);
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", std::string(313, 'a').c_str()), -1);
    EXPECT_STREQ(pc, "");
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", (std::string(310, 'a') + "*").c_str()),
              -1);
}

// Host lists become ldap://host:port URIs (default port 389, IPv6 in
// brackets); anything else, or a list whose URIs do not fit, is refused whole.
TEST(ListeHotes, UrisConstruites) {
    char pc[TAILLE_TEXTE];
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
    };
    for (const Cas &c : t_Cas) {
        EXPECT_EQ(ConstruitUrisLdap(c.pc_Hotes, pc, sizeof pc), c.i_Nb) << c.pc_Hotes;
        EXPECT_STREQ(pc, c.pc_Uris) << c.pc_Hotes;
    }
    for (const char *pc_Hotes :
         {"", "h:0", "h:65536", "h:", "bon mau/vais", "ldap://h", "[::1", "::1"}) {
        EXPECT_EQ(ConstruitUrisLdap(pc_Hotes, pc, sizeof pc), -1) << pc_Hotes;
        EXPECT_STREQ(pc, "") << pc_Hotes;
    }
    EXPECT_EQ(ConstruitUrisLdap("a.example b.example c.example", pc, 48), -1);
    EXPECT_EQ(ConstruitUrisLdap("a.example b.example", pc, 48), 2);
}

}  // namespace
