// Rule lines: restriction and reply evaluation from tables of lines and
// senders, and the directory tests against a real slapd (escaping, base,
// reduction, failures).
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "serveurs_essai.h"
#include "directory/directory.h"
#include "enfant_essai.h"
#include "rules/rules.h"
#include "socle.h"

namespace {

using Lignes = std::vector<std::string>;

// A date as YYYYMMDD, days from today.
std::string Jour(int i_Decalage) {
    time_t t = time(nullptr) + i_Decalage * 86400;
    struct tm st;
    localtime_r(&t, &st);
    char pc[16];
    strftime(pc, sizeof pc, "%Y%m%d", &st);
    return pc;
}

// The lines as the directory hands them: a null-terminated table of copies.
struct Table {
    std::vector<std::string> v;
    std::vector<char *> t;
    explicit Table(const Lignes &v_Lignes) : v(v_Lignes) {
        for (std::string &s : v) t.push_back(s.data());
        t.push_back(nullptr);
    }
};

// The sender state of one case: From address, envelope, directory flags.
struct Emetteur {
    std::string s_From, s_Enveloppe;
    int i_Zeldor = 0, i_Boite = 0;
};
void Pose(const Emetteur &e) {
    static char pc[TAILLE_ADRESSE];
    _strncpy(pc, e.s_Enveloppe.c_str(), sizeof pc);
    gpc_MailFrom = pc;
    gi_EmetteurZeldor = e.i_Zeldor;
    gi_EmetteurZeldorBoite = e.i_Boite;
}

const Emetteur SPAM{"x@spam.example", "x@spam.example"};
const Emetteur AUTRE{"y@ailleurs.example", "y@ailleurs.example"};
const Emetteur ORG{"z@example.org", "z@example.org"};
const Emetteur CONNU{"k@vorane.example", "k@vorane.example", 1, 0};
const Emetteur BOITE{"k@vorane.example", "k@vorane.example", 1, 1};
const Emetteur ENV_ORG{"y@ailleurs.example", "w@example.org"};

// Restrictions: the first true line decides; with none true, a well-formed
// "+" line refuses.
TEST(Regles, Restrictions) {
    struct Cas {
        const char *pc_Nom;
        Lignes v;
        Emetteur e;
        int i_Attendu;
    };
    const Cas tst[] = {
        {"liste noire", {"10- JOKE:*@spam.example"}, SPAM, 1},
        {"liste noire, autre", {"10- JOKE:*@spam.example"}, AUTRE, 0},
        {"liste blanche connu", {"10+ ZELD:x"}, CONNU, 0},
        {"liste blanche inconnu", {"10+ ZELD:x"}, AUTRE, 1},
        {"blanche puis tout", {"10+ JOKE:*@example.org", "20- TOUT:x"}, ORG, 0},
        {"blanche puis tout, ailleurs", {"10+ JOKE:*@example.org", "20- TOUT:x"}, AUTRE, 1},
        {"noire puis tout", {"10- JOKE:*@spam.example", "20+ TOUT:x"}, SPAM, 1},
        {"noire puis tout, ailleurs", {"10- JOKE:*@spam.example", "20+ TOUT:x"}, AUTRE, 0},
        {"ordre des cles", {"20- TOUT:x", "10+ JOKE:*@example.org"}, ORG, 0},
        {"chiffres avant lettres", {"aa- TOUT:x", "10+ TOUT:x"}, AUTRE, 0},
        {"cle et type en capitales", {"AB- tout:x"}, AUTRE, 1},
        {"mal formees seulement", {"05- TOUT:", "10- RAIN:x", "#10- TOUT:x", "1- TOUT:x"}, AUTRE, 0},
        {"plus mal forme", {"10+ TOUT:"}, AUTRE, 0},
        {"joker en capitales", {"10+ JOKE:*@EXAMPLE.ORG"}, ORG, 0},
        {"second essai sur l'enveloppe", {"10+ JOKE:*@example.org"}, ENV_ORG, 0},
        {"plus faux puis moins faux", {"10+ JOKE:*@a.example", "20- JOKE:*@b.example"}, AUTRE, 1},
        {"pcre sans casse", {"10- PCRE:^X@SPAM\\."}, SPAM, 1},
        {"pcre sur l'enveloppe", {"10- PCRE:^w@"}, ENV_ORG, 1},
        {"boite", {"10+ VIXA:x"}, BOITE, 0},
        {"connu sans boite", {"10- ZELX:x"}, CONNU, 1},
        {"connu avec boite", {"10- ZELX:x"}, BOITE, 0},
    };
    for (const Cas &c : tst) {
        SCOPED_TRACE(c.pc_Nom);
        Pose(c.e);
        Table t(c.v);
        EXPECT_EQ(RestrictionDeRemise(c.e.s_From.c_str(), t.t.data()), c.i_Attendu);
    }
    Pose(AUTRE);
    EXPECT_EQ(RestrictionDeRemise(AUTRE.s_From.c_str(), nullptr), 0);
}

// Automatic replies: legacy values, dates and DSVT, carried-over texts and
// frequencies, disabled lines.
TEST(Regles, Reponses) {
    struct Cas {
        const char *pc_Nom;
        Lignes v;
        Emetteur e;
        int i_Attendu;
        const char *pc_Texte;
        int i_Freq;
    };
    const std::string HIER = Jour(-1), AUJ = Jour(0);
    const Cas tst[] = {
        {"ancienne forme, inconnu", {"Je suis absent"}, AUTRE, 0, "", 720},
        {"ancienne forme, connu", {"Je suis absent"}, CONNU, 1, "Je suis absent", 720},
        {"ancienne forme desactivee", {"#Je suis absent"}, CONNU, 0, "", 720},
        {"cle en capitales: ancienne forme", {"AB~ TOUT:x TEXTE:Absent"}, CONNU, 1,
         "AB~ TOUT:x TEXTE:Absent", 720},
        {"deux valeurs", {"Je suis absent", "10~ TOUT:x TEXTE:A"}, AUTRE, 1, "A", 720},
        {"frequence nulle", {"10~ TOUT:x FREQ:0 TEXTE:A"}, AUTRE, 1, "A", 1},
        {"frequence negative", {"10~ TOUT:x TEXTE:A FREQ:-5"}, AUTRE, 1, "A", 1},
        {"frequence et options dans le desordre", {"10~ TOUT:x TEXTE:  A b DFIN:99999999 FREQ:1440"},
         AUTRE, 1, "A b", 1440},
        {"fini hier", {"10~ TOUT:x DFIN:" + HIER + " TEXTE:A", "20~ TOUT:x TEXTE:B"}, AUTRE, 0, "A",
         720},
        {"fini hier, suivant", {"10~ TOUT:x DSVT:1 DFIN:" + HIER + " TEXTE:A", "20~ TOUT:x TEXTE:B"},
         AUTRE, 1, "B", 720},
        {"commence demain, suivant sans texte",
         {"10~ TOUT:x DSVT:1 DDEB:" + Jour(1) + " TEXTE:A FREQ:60", "20~ TOUT:x"}, AUTRE, 1, "A", 60},
        {"du jour au jour", {"10~ TOUT:x DDEB:" + AUJ + " DFIN:" + AUJ + " TEXTE:A"}, AUTRE, 1, "A",
         720},
        {"texte repris", {"10~ JOKE:*@example.org TEXTE:A", "20~ TOUT:x"}, AUTRE, 1, "A", 720},
        {"sans texte", {"10~ TOUT:x FREQ:5"}, AUTRE, 0, "", 5},
        {"ligne desactivee", {"#10~ TOUT:x TEXTE:B", "20~ TOUT:x TEXTE:A"}, AUTRE, 1, "A", 720},
        {"mal formee ignoree", {"1~ TOUT:x TEXTE:B", "20~ RAEX:x TEXTE:A"}, AUTRE, 1, "A", 720},
        {"inconnu de l'annuaire", {"10~ RAIN:x TEXTE:A", "20~ RAEX:x TEXTE:B"}, AUTRE, 1, "B", 720},
        {"connu de l'annuaire", {"10~ RAIN:x TEXTE:A", "20~ RAEX:x TEXTE:B"}, CONNU, 1, "A", 720},
    };
    for (const Cas &c : tst) {
        SCOPED_TRACE(c.pc_Nom);
        Pose(c.e);
        Table t(c.v);
        char *pc_Texte = nullptr;
        int i_Freq = -1;
        EXPECT_EQ(DetReponseAuto(c.e.s_From.c_str(), t.t.data(), &pc_Texte, &i_Freq), c.i_Attendu);
        EXPECT_STREQ(pc_Texte, c.pc_Texte);
        EXPECT_EQ(i_Freq, c.i_Freq);
    }
}

// The reply text: "%h" becomes the incoming header, without the local
// hops of the site's relays, cut at a whole line.
TEST(Regles, MiseEnFormeMess) {
    char pc_Sans[] = "Absent";
    EXPECT_EQ(pc_MiseEnFormeMess(pc_Sans), pc_Sans);
    Entete st3 = {const_cast<char *>("Subject: s\n"), nullptr};
    Entete st2 = {const_cast<char *>("Received: from rly-inet-1 (127.0.0.1)\n"), &st3};
    Entete st1 = {const_cast<char *>("Received: by rly-intra-2\n"), &st2};
    Entete st0 = {const_cast<char *>("Received: from rly-inet-1 ([10.1.2.3])\n"), &st1};
    gpet_EnteteMessOrigine = &st0;
    char pc_Texte[] = "Bonjour%hAdieu";
    EXPECT_STREQ(pc_MiseEnFormeMess(pc_Texte),
                 "Bonjour\nReceived: from rly-inet-1 ([10.1.2.3])\nSubject: s\n\nAdieu");
    std::string s_Long(5000, 'x');
    s_Long += "\n";
    // The insert stops at the first line that no longer fits: a shorter
    // line after it is not taken either.
    Entete st6 = {const_cast<char *>("Subject: s\n"), nullptr};
    Entete st5 = {s_Long.data(), &st6};
    Entete st4 = {s_Long.data(), &st5};
    gpet_EnteteMessOrigine = &st4;
    char pc_Texte2[] = "a%hb";
    EXPECT_EQ(std::string(pc_MiseEnFormeMess(pc_Texte2)), "a\n" + s_Long + "\nb");
    gpet_EnteteMessOrigine = nullptr;
}

// Off the main server no reply leaves, whichever caller asks: the guard
// comes before any look at the sender or the header.
TEST(Regles, GardeHorsServeurPrincipal) {
    Entete st = {const_cast<char *>("Subject: s\n"), nullptr};
    const char *pc_Detail = nullptr;
    gi_OnEstSurServeurPrincipal = 0;
    EXPECT_EQ(GardeReponse(&st, "", &pc_Detail), 2699);
    gi_OnEstSurServeurPrincipal = 1;
}

// The label token names a reply's kind with ASCII letters only.
TEST(Regles, JetonLibelle) {
    char pc[TAILLE_JETON];
    JetonLibelle("R\xe9ponse automatique", pc);
    EXPECT_STREQ(pc, "Reponse_automatique");
    JetonLibelle("Non remis (restriction)", pc);
    EXPECT_STREQ(pc, "Non_remis__restriction_");
}

// Directory tests against a real slapd.
class ReglesAnnuaire : public ::testing::Test {
protected:
    static AnnuaireEssai sst;
    static void SetUpTestSuite() {
        std::string s;
        for (const char *pc : {"bob", "x*y"})
            s += EntreeLdif(std::string("uid=") + (pc[0] == 'b' ? "bob" : "xy"),
                            "objectClass: inetOrgPerson\nuid: u\ncn: c\nsn: s\nmail: " +
                                std::string(pc) + "@vorane.example\n");
        ASSERT_TRUE(DemarreAnnuaire(&sst, s)) << sst.s_Erreur;
    }
    static void TearDownTestSuite() { ArreteAnnuaire(&sst); }
    void SetUp() override {
        gi_DelaiReseauLdap = 5;
        gld = ldapConnect(sst.s_Hote.c_str());
        ASSERT_NE(gld, nullptr);
    }
    void TearDown() override { ldapClose(&gld); }
};
AnnuaireEssai ReglesAnnuaire::sst;

// Searches with and without a base, templates with and without "%s", an
// address that would widen an unescaped filter, a broken filter (false,
// dereferencing restored), and the ".-." reduction of restriction lines.
TEST_F(ReglesAnnuaire, TestsAnnuaire) {
    struct Cas {
        const char *pc_Param, *pc_Adresse;
        int i_Attendu;
    };
    const Cas tst[] = {
        {"(mail=%s)", "bob@vorane.example", 1},
        {"dc=vorane,dc=example//(&(objectClass=*)(mail=%s))", "bob@vorane.example", 1},
        {"ou=absente,dc=vorane,dc=example//(mail=%s)", "bob@vorane.example", 0},
        {"(mail=*@vorane.example)", "ignore", 2},
        {"(mail=%s)", "*", 0},
        {"(mail=%s)", "x*y@vorane.example", 1},
        {"(|(mail=%s)(mail=%s))", "bob@vorane.example", 1},
        {"(mail=%s", "bob@vorane.example", 0},
    };
    for (const Cas &c : tst) {
        SCOPED_TRACE(c.pc_Param);
        EXPECT_EQ(TestRestrLDAP(c.pc_Param, c.pc_Adresse), c.i_Attendu);
        int i_Deref = -1;
        ldap_get_option(gld, LDAP_OPT_DEREF, &i_Deref);
        EXPECT_EQ(i_Deref, LDAP_DEREF_NEVER);
    }
    // ".-." reduces the From address in restriction lines only.
    Pose({"", "alice.-.bob@vorane.example"});
    char pc_Restr[] = "10- LDAP:(mail=%s)";
    char *t_Restr[] = {pc_Restr, nullptr};
    EXPECT_EQ(RestrictionDeRemise("alice.-.bob@vorane.example", t_Restr), 1);
    char pc_Rep[] = "10~ LDAP:(mail=%s) TEXTE:A";
    char *t_Rep[] = {pc_Rep, nullptr};
    char *pc_Texte = nullptr;
    int i_Freq = 0;
    EXPECT_EQ(DetReponseAuto("alice.-.bob@vorane.example", t_Rep, &pc_Texte, &i_Freq), 0);
}

// A filter that would pass its buffer refuses the message (level 3).
TEST_F(ReglesAnnuaire, FiltreTropLong) {
    std::string s_Param = "%s" + std::string(100, 'x'), s_Etoiles(1360, '*');
    ResultatProcessus r =
        ExecuteDansEnfant([&] { TestRestrLDAP(s_Param.c_str(), s_Etoiles.c_str()); });
    EXPECT_EQ(r.i_Statut, 65) << r.s_Erreur;
    EXPECT_NE(r.s_Erreur.find(" !ERR:3, v1.1.0/2951: erreur buffer trop petit"), std::string::npos);
    std::string s_Adresse(2000, '*');
    r = ExecuteDansEnfant([&] { TestRestrLDAP("(mail=%s)", s_Adresse.c_str()); });
    EXPECT_NE(r.s_Erreur.find(" !ERR:3, v1.1.0/2944: erreur buffer trop petit"), std::string::npos);
}

}  // namespace
