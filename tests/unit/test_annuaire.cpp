// The directory against one real slapd: lookups, the connection under
// failure (dead, silent or frozen hosts, the retry window), list expansion,
// the rules' directory tests, the refusals of level 3, filters and host lists.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <vector>

#include "serveurs_essai.h"
#include "directory/directory.h"
#include "message/message.h"
#include "report/report.h"
#include "rules/rules.h"
#include "serveur_lmtp.h"
#include "socle.h"

namespace {

const std::string INFO = "message-id=<essai@x>, from=<a@b.c>, to=<-(-/1)";
using V = std::vector<std::string>;
constexpr int CHAINE = NB_MAX_LISTES_IMBRIQUEES;

std::string Personne(const std::string &s_Uid, const std::string &s_Mail, const std::string &s_Plus = "") {
    return EntreeLdif("uid=" + s_Uid, "objectClass: inetOrgPerson\n" + s_Plus + "uid: " + s_Uid +
                                          "\ncn: " + s_Uid + "\nsn: S\nmail: " + s_Mail + "\n");
}
std::string Liste(const std::string &s_Nom, const std::string &s_Remise, const V &v_Membres) {
    std::string s = "objectClass: ravokVixListe\ncn: " + s_Nom + "\nmail: " + s_Nom +
                    "@vorane.example\nravokVixRemise: " + s_Remise + "\n";
    for (const std::string &m : v_Membres) s += "ravokVixMembres: " + m + "\n";
    return EntreeLdif("cn=" + s_Nom, s);
}
// n nested lists, chaine<n>-1 -> ... -> chaine<n>-n -> y@vorane.example.
std::string Chaine(int n) {
    std::string s, s_Nom = "chaine" + std::to_string(n) + "-";
    for (int i = 1; i <= n; i++)
        s += Liste(s_Nom + std::to_string(i), "LISTE",
                   {(i < n ? s_Nom + std::to_string(i + 1) : "y") + "@vorane.example"});
    return s;
}

const std::string ENTREES =
    Personne("alice", "alice@vorane.example", "objectClass: ravokVixBoite\nravokVixRemise: LMTP\n"
             "ravokVixReponse: r1\nravokVixReponse: r2\nravokVixReponse: r3\n") +
    Personne("x", "x@vorane.example") + Personne("y", "y@vorane.example") + Personne("z", "z@vorane.example") +
    Personne("d1", "double@vorane.example") + Personne("d2", "double@vorane.example") +
    Personne("etoile", "x*y@vorane.example") + Liste("a", "LISTE-MU", {"x@vorane.example", "b@vorane.example"}) +
    Liste("b", "LISTE", {"y@vorane.example", "z@vorane.example"}) + Liste("vide", "LISTE-BR", {}) +
    Liste("soi", "LISTE-MU", {"soi@vorane.example"}) + Liste("sympa", "SYMPA", {"x@vorane.example"}) +
    Liste("c", "liste-autre", {"X@VORANE.EXAMPLE", "b@vorane.example"}) + Chaine(CHAINE) + Chaine(CHAINE + 1);

// One slapd for the suite; gld is open on it in every case.
class Annuaire : public ::testing::Test {
  protected:
    static AnnuaireEssai sst;
    static void SetUpTestSuite() { ASSERT_TRUE(DemarreAnnuaire(&sst, ENTREES)) << sst.s_Erreur; }
    static void TearDownTestSuite() { ArreteServeur(&sst); }
    void SetUp() override {
        _strncpy(gPc_InfoMessEnCours, INFO.c_str(), TAILLE_TEXTE);
        gi_OnEstSurServeurPrincipal = 1;
        gi_DureeReessaiLdap = 0;
        gi_PasReessaiLdap = 1;
        gi_DelaiReseauLdap = 5;
        gld = ldapConnect(sst.s_Hote.c_str());
        ASSERT_NE(gld, nullptr);
    }
    void TearDown() override { ldapClose(&gld); }

    // Runs fn in a child, where it may end the process, on a session of its
    // own (closing the inherited one would close the parent's).
    static ResultatEnfant Enfant(const std::function<void()> &fn, int i_Limite = 30) {
        return ExecuteEnFils([&] { gld = ldapConnect(sst.s_Hote.c_str()); fn(); return std::string(); },
                             i_Limite);
    }
};
AnnuaireEssai Annuaire::sst;

int Cherche(const char *pc_Adresse, char ***ttpc) {
    char pc[TAILLE_FILTRE];
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", pc_Adresse), 0);
    return RecupUneEntreeLdap(gld, pc, gtpc_AttrLdapDest, ttpc);
}

// The expansion of the members, made unique when asked (case folded).
V Explose(V v_Membres, bool b_Unique = false) {
    std::vector<char *> v;
    for (std::string &s : v_Membres) v.push_back(s.data());
    v.push_back(nullptr);
    char **tpc = ExploseMembres(v.data());
    if (b_Unique) UniciteMembres(tpc);
    V v_Sortie;
    for (int i = 0; tpc[i] != nullptr; i++) v_Sortie.emplace_back(tpc[i]);
    free(tpc);
    for (std::string &s : v_Sortie)
        if (b_Unique) _minu(s.data());
    return v_Sortie;
}

// Every slot holds its own attribute's values in stored order, absent ones
// null; no entry nulls stale slots; filter metacharacters in an address
// match only themselves; the socket does not leak into the commands run.
TEST_F(Annuaire, RechercheParMail) {
    char **ttpc[NB_ATTR_LDAP_DEST] = {};
    ASSERT_EQ(Cherche("ALICE@vorane.example", ttpc), 1);
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "ravokVixRemise", 0), "LMTP");
    EXPECT_EQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "ravokVixMembres", 0), nullptr);
    EXPECT_EQ(pc_ValeurLdap(gtpc_AttrLdapListeM, ttpc, "mail", 0), nullptr);
    char **tpc_Rep = tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc, "ravokVixReponse");
    ASSERT_EQ(NblTableau(tpc_Rep), 3);
    EXPECT_STREQ(tpc_Rep[2], "r3");
    for (char **&tpc : ttpc) LibereValeursLdap(tpc);
    char pc_Vieux[] = "vieux", *tpc_Vieux[] = {pc_Vieux, nullptr};
    for (char **&tpc : ttpc) tpc = tpc_Vieux;
    EXPECT_EQ(Cherche("*", ttpc) + Cherche("a)(uid=*", ttpc), 0);
    for (char **tpc : ttpc) EXPECT_EQ(tpc, nullptr);
    ASSERT_EQ(Cherche("x*y@vorane.example", ttpc), 1);
    EXPECT_STREQ(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc, "uid", 0), "etoile");
    for (char **tpc : ttpc) LibereValeursLdap(tpc);
    int i_Fd = -1;
    ASSERT_EQ(ldap_get_option(gld, LDAP_OPT_DESC, &i_Fd), LDAP_OPT_SUCCESS);
    EXPECT_TRUE(fcntl(i_Fd, F_GETFD) & FD_CLOEXEC);
}

// One attempt: a dead first host, or one that takes the connection and
// never answers, passes to the next silently; otherwise
// null and one warning naming the cause, within the 1 s time-out.  Then the
// retry window: attempts every P s while no more than D s have passed (D/P
// + 2 when each fails at once), then level 2 and 75.  A server frozen after
// the bind ends the search on its time-out with 75, never an endless wait.
TEST_F(Annuaire, ConnexionEtReessais) {
    ServeurMuet st_Accepte, st_Plein;
    ASSERT_TRUE(DemarreServeurMuet(&st_Accepte, ModeMuet::Accepte));
    ASSERT_TRUE(DemarreServeurMuet(&st_Plein, ModeMuet::FilePleine));
    const std::string s_Mort = "127.0.0.1:" + std::to_string(PortLibre()),
                      s_107 = "2542: Erreur ldap_open <" + s_Mort + ">, errno=107 (Transport endpoint is not connected)";
    const std::pair<std::string, std::string> t_Cas[] = {
        {s_Mort + "," + sst.s_Hote, ""},
        {st_Accepte.s_Hote + "," + sst.s_Hote, ""},
        {s_Mort, s_107},
        {"hote/chemin?x", "2542: Erreur ldap_open <hote/chemin?x>, errno=22 (Invalid argument)"},
        {st_Accepte.s_Hote, "2556: Erreur ldap_simple_bind_s, ld_errno=-5 (Timed out)"},
        {st_Plein.s_Hote, "2542: Erreur ldap_open <" + st_Plein.s_Hote + ">, errno=110 (Connection timed out)"},
    };
    for (const auto &[s_Hotes, s_Message] : t_Cas) {
        ResultatEnfant r = Enfant([&] { gi_DelaiReseauLdap = 1; FinProcessus(_ldapConnect(s_Hotes.c_str()) ? 0 : 1); }, 20);
        EXPECT_EQ(r.i_Statut, s_Message.empty() ? 0 : 1) << s_Hotes;
        EXPECT_EQ(r.s_Erreur, s_Message.empty() ? "" : " !ERR:4, v1.1.0/" + s_Message + ". " + INFO + "\n");
    }
    ArreteServeurMuet(&st_Accepte);
    ArreteServeurMuet(&st_Plein);

    ResultatEnfant r = Enfant([&] { gi_DureeReessaiLdap = 2; ldapConnect(s_Mort.c_str()); });
    std::string s_Attendu;
    for (int i = 0; i < 4; i++) s_Attendu += " !ERR:4, v1.1.0/" + s_107 + ". " + INFO + "\n";
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(r.s_Erreur, s_Attendu + " !ERR:2, v1.1.0/2576: Erreur connection LDAP sur <" + s_Mort + ">. " +
                              INFO + ". Possibilite de depots repetes\n");
    r = Enfant(
        [&] {
            gi_DelaiReseauLdap = 2;
            gld = ldapConnect(sst.s_Hote.c_str());
            SuspendServeur(sst);
            char **ttpc[NB_ATTR_LDAP_DEST] = {};
            Cherche("x@vorane.example", ttpc);
        },
        20);
    ReprendServeur(sst);
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(r.s_Erreur, " !ERR:2, v1.1.0/2604: Erreur ldap_search_s, filtre=<(mail=x@vorane.example)> "
                          "ld_errno=-5 (Timed out). " + INFO + ". Possibilite de depots repetes\n");
}

// What refuses the message (level 3: 65): two entries for one address, one
// list too many in a nesting or a list containing itself, a rule filter
// past its buffer (through the template or through the address).
TEST_F(Annuaire, RefusDuMessage) {
    const std::string s_Param = "%s" + std::string(100, 'x'), s_Etoiles(1360, '*'), s_Long(2000, '*'),
                      s_Liste = "3395: Trop de listes dans des listes (>300). ";
    const std::pair<std::function<void()>, std::string> t_Cas[] = {
        {[] { char **ttpc[NB_ATTR_LDAP_DEST] = {}; Cherche("double@vorane.example", ttpc); },
         "2618: Incoherence annuaire, 2 entree(s) trouvee(s), filtre=<(mail=double@vorane.example)>. "},
        {[] { Explose({"x@vorane.example", "chaine" + std::to_string(CHAINE + 1) + "-1@vorane.example"}); }, s_Liste},
        {[] { Explose({"soi@vorane.example"}); }, s_Liste},
        {[&] { TestRestrLDAP(s_Param.c_str(), s_Etoiles.c_str()); }, "2951: erreur buffer trop petit"},
        {[&] { TestRestrLDAP("(mail=%s)", s_Long.c_str()); }, "2944: erreur buffer trop petit"},
    };
    for (const auto &[fn, s_Message] : t_Cas) {
        ResultatEnfant r = Enfant([&] { fn(); FinProcessus(0); });
        EXPECT_EQ(r.i_Statut, 65) << s_Message;
        const std::string s = "v1.1.0/" + s_Message + INFO;
        if (s_Message.back() == ' ')  // the whole report known: standard error, then the dump's copy
            EXPECT_EQ(r.s_Erreur, " !ERR:3, " + s + "\n" + s + "\n");
        else
            EXPECT_EQ(r.s_Erreur.rfind(" !ERR:3, v1.1.0/" + s_Message, 0), 0u) << r.s_Erreur;
    }
}

// Members keep their order, each expanded list leaving "" and appending its
// members (breadth first); outside addresses, empty members, empty lists and
// kinds other than LISTE* stay.  Duplicates go in any case.  Exactly the
// nesting budget expands.  A member too long for a filter stays, with a warning.
TEST_F(Annuaire, ExpansionDesListes) {
    EXPECT_EQ(Explose({"z@vorane.example", "", "Dupont@ailleurs.example", "vide@vorane.example",
                       "c@vorane.example", "sympa@vorane.example"}),
              (V{"z@vorane.example", "", "Dupont@ailleurs.example", "vide@vorane.example", "",
                 "sympa@vorane.example", "X@VORANE.EXAMPLE", "", "y@vorane.example", "z@vorane.example"}));
    EXPECT_EQ(Explose({"a@vorane.example", "z@vorane.example"}),
              (V{"", "z@vorane.example", "x@vorane.example", "", "y@vorane.example", "z@vorane.example"}));
    EXPECT_EQ(Explose({"y@vorane.example", "b@vorane.example", "a@vorane.example", "Y@vorane.example"}, true),
              (V{"", "x@vorane.example", "y@vorane.example", "z@vorane.example"}));
    UniciteMembres(nullptr);
    V v_Attendu(CHAINE, "");
    v_Attendu.push_back("y@vorane.example");
    EXPECT_EQ(Explose({"chaine" + std::to_string(CHAINE) + "-1@vorane.example"}), v_Attendu);
    const std::string s_Long = std::string(400, 'b') + "@vorane.example";
    testing::internal::CaptureStderr();
    EXPECT_EQ(Explose({s_Long, "b@vorane.example"}), (V{s_Long, "", "y@vorane.example", "z@vorane.example"}));
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind(" !ERR:4, v1.1.0/3388: ", 0), 0u);
}

// Rule directory tests: with and without a base, "%s" twice or not at all,
// a broken filter (false), an address that would widen an unescaped filter;
// dereferencing restored each time.  ".-." reduces restriction lines only.
TEST_F(Annuaire, ReglesAnnuaire) {
    const std::pair<const char *, int> t_Cas[] = {
        {"(mail=%s)", 1}, {"dc=vorane,dc=example//(&(objectClass=*)(mail=%s))", 1},
        {"ou=absente,dc=vorane,dc=example//(mail=%s)", 0}, {"(mail=double@vorane.example)", 2},
        {"(|(mail=%s)(mail=%s))", 1}, {"(mail=%s", 0},
    };
    for (const auto &[pc_Param, i_Attendu] : t_Cas) {
        EXPECT_EQ(TestRestrLDAP(pc_Param, "x@vorane.example"), i_Attendu) << pc_Param;
        int i_Deref = -1;
        ldap_get_option(gld, LDAP_OPT_DEREF, &i_Deref);
        EXPECT_EQ(i_Deref, LDAP_DEREF_NEVER);
    }
    EXPECT_EQ(TestRestrLDAP("(mail=%s)", "*"), 0);
    EXPECT_EQ(TestRestrLDAP("(mail=%s)", "x*y@vorane.example"), 1);
    char pc_Env[] = "alice.-.x@vorane.example", pc_Restr[] = "10- LDAP:(mail=%s)",
         pc_Rep[] = "10~ LDAP:(mail=%s) TEXTE:A", *t_Restr[] = {pc_Restr, nullptr},
         *t_Rep[] = {pc_Rep, nullptr}, *pc_Texte = nullptr;
    gpc_MailFrom = pc_Env;
    gi_EmetteurZeldor = 0;
    EXPECT_EQ(RestrictionDeRemise(pc_Env, t_Restr), 1);
    int i_Freq = 0;
    EXPECT_EQ(DetReponseAuto(pc_Env, t_Rep, &pc_Texte, &i_Freq), 0);
    // A line already true on the From address makes no search with the
    // envelope sender (here one whose escaped filter would not fit: a
    // refusal of the whole message).
    std::string s_Env = std::string(240, '(') + "@p.test";
    char pc_Six[] = "10+ LDAP:(|(mail=%s)(mail=%s)(mail=%s)(mail=%s)(mail=%s)(mail=%s))", *t_Six[] = {pc_Six, nullptr};
    gpc_MailFrom = s_Env.data();
    ResultatEnfant r = Enfant([&] { RestrictionDeRemise("x@vorane.example", t_Six); });
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(r.s_Erreur.find(" !ERR:"), std::string::npos) << r.s_Erreur;
}

// An info value: the first with the prefix in any case, after its blanks,
// pointing into the value; none (or a prefix alone) gives "".  A filter
// value is escaped as \XX and one that does not fit (an escape counts 3) is
// refused whole, never cut into a search for another address.  Host lists
// become ldap:// URIs; anything else, or one too long, is refused whole.
TEST(AnnuaireValeurs, RecupValeurTableauFiltreLdapEtHotes) {
    char v1[] = "REPONSE: r@x", v2[] = "avis:", v3[] = "AVIS: \t\t premier@x", v4[] = "Avis:second@x",
         *tpc_Blancs[] = {v1, v3, v4, nullptr}, *tpc_Seul[] = {v2, v3, nullptr}, *tpc_Premier[] = {v4, v3, nullptr};
    EXPECT_EQ(RecupValeurTableau(tpc_Blancs, "avis:"), v3 + strlen(v3) - strlen("premier@x"));
    EXPECT_STREQ(RecupValeurTableau(tpc_Premier, "AVIS:"), "second@x");
    EXPECT_STREQ(RecupValeurTableau(tpc_Seul, "AVIS:"), "");
    EXPECT_STREQ(RecupValeurTableau(nullptr, "AVIS:"), "");

    char pc[TAILLE_FILTRE];
    ASSERT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", "x)(uid=*\\"), 0);
    EXPECT_STREQ(pc, "(mail=x\\29\\28uid=\\2a\\5c)");
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", std::string(312, 'a').c_str()), 0);
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", std::string(313, 'a').c_str()), -1);
    EXPECT_STREQ(pc, "");
    EXPECT_EQ(ConstruitFiltreLdap(pc, sizeof pc, "mail", (std::string(310, 'a') + "*").c_str()), -1);

    char pc_Uris[TAILLE_TEXTE];
    EXPECT_EQ(ConstruitUrisLdap(" ldap1 ldap2:3389,\t[::1]:636 [fe80::1], ", pc_Uris, sizeof pc_Uris), 4);
    EXPECT_STREQ(pc_Uris, "ldap://ldap1:389,ldap://ldap2:3389,ldap://[::1]:636,ldap://[fe80::1]:389");
    for (const char *pc_Hotes : {"", "h:0", "h:65536", "h:", "bon mau/vais", "ldap://h", "[::1", "::1"}) {
        EXPECT_EQ(ConstruitUrisLdap(pc_Hotes, pc_Uris, sizeof pc_Uris), -1) << pc_Hotes;
        EXPECT_STREQ(pc_Uris, "") << pc_Hotes;
    }
    EXPECT_EQ(ConstruitUrisLdap("a.example b.example c.example", pc_Uris, 48), -1);
    EXPECT_EQ(ConstruitUrisLdap("a.example b.example", pc_Uris, 48), 2);
}

}  // namespace
