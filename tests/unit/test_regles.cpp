// Rule lines without a directory: restrictions and automatic replies from
// tables of lines and senders, the reply text's header insert, the reply
// guard off the main server, the label token, and the origin zone.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

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

// The sender of a case: From, envelope, known to the directory, a mailbox.
struct Emetteur {
    std::string s_From, s_Enveloppe;
    int i_Zeldor = 0, i_Boite = 0;
};
const Emetteur SPAM{"x@spam.example", "x@spam.example"};
const Emetteur AUTRE{"y@ailleurs.example", "y@ailleurs.example"};
const Emetteur ORG{"z@example.org", "z@example.org"};
const Emetteur CONNU{"k@vorane.example", "k@vorane.example", 1, 0};
const Emetteur BOITE{"k@vorane.example", "k@vorane.example", 1, 1};
const Emetteur ENV_ORG{"y@ailleurs.example", "w@example.org"};

// Sets the sender's globals; the lines as the directory hands them.
std::vector<char *> Pose(const Emetteur &e, Lignes &v) {
    static char pc[TAILLE_ADRESSE];
    _strncpy(pc, e.s_Enveloppe.c_str(), sizeof pc);
    gpc_MailFrom = pc;
    gi_EmetteurZeldor = e.i_Zeldor;
    gi_EmetteurZeldorBoite = e.i_Boite;
    std::vector<char *> t;
    for (std::string &s : v) t.push_back(s.data());
    t.push_back(nullptr);
    return t;
}

// Restrictions: lines sorted by key, the first true one decides; with none
// true, a well-formed "+" line refuses.
TEST(Regles, Restrictions) {
    struct Cas { Lignes v; Emetteur e; int i_Attendu; };
    const Cas tst[] = {
        {{"10- JOKE:*@spam.example"}, SPAM, 1},
        {{"10+ ZELD:x"}, CONNU, 0},
        {{"10+ ZELD:x"}, AUTRE, 1},
        {{"10+ JOKE:*@example.org", "20- TOUT:x"}, ORG, 0},
        {{"10- JOKE:*@spam.example", "20+ TOUT:x"}, AUTRE, 0},
        {{"20- TOUT:x", "10+ JOKE:*@example.org"}, ORG, 0},
        {{"aa- TOUT:x", "10+ TOUT:x"}, AUTRE, 0},
        {{"AB- tout:x"}, AUTRE, 1},
        {{"05- TOUT:", "10- RAIN:x", "#10- TOUT:x", "1- TOUT:x", "10+ TOUT:"}, AUTRE, 0},
        {{"10+ JOKE:*@EXAMPLE.ORG"}, ORG, 0},
        {{"10+ JOKE:*@example.org"}, ENV_ORG, 0},
        {{"10+ JOKE:*@a.example", "20- JOKE:*@b.example"}, AUTRE, 1},
        {{"10- PCRE:^X@SPAM\\."}, SPAM, 1},
        {{"10- PCRE:^w@"}, ENV_ORG, 1},
        {{"10+ VIXA:x"}, BOITE, 0},
        {{"10- ZELX:x"}, CONNU, 1},
        {{"10- ZELX:x"}, BOITE, 0},
    };
    for (Cas c : tst) {
        SCOPED_TRACE(c.v[0] + " " + c.e.s_From);
        EXPECT_EQ(RestrictionDeRemise(c.e.s_From.c_str(), Pose(c.e, c.v).data()), c.i_Attendu);
    }
    EXPECT_EQ(RestrictionDeRemise(AUTRE.s_From.c_str(), nullptr), 0);
}

// Automatic replies: legacy values, dates and DSVT, carried-over texts and
// frequencies (720 by default, at least 1), disabled and malformed lines.
TEST(Regles, Reponses) {
    struct Cas { Lignes v; Emetteur e; int i_Attendu; const char *pc_Texte; int i_Freq; };
    const std::string HIER = Jour(-1), AUJ = Jour(0);
    const Cas tst[] = {
        {{"Je suis absent"}, AUTRE, 0, "", 720},
        {{"Je suis absent"}, CONNU, 1, "Je suis absent", 720},
        {{"#Je suis absent"}, CONNU, 0, "", 720},
        {{"AB~ TOUT:x TEXTE:Absent"}, CONNU, 1, "AB~ TOUT:x TEXTE:Absent", 720},
        {{"Je suis absent", "10~ TOUT:x TEXTE:A"}, AUTRE, 1, "A", 720},
        {{"10~ TOUT:x FREQ:0 TEXTE:A"}, AUTRE, 1, "A", 1},
        {{"10~ TOUT:x TEXTE:  A b DFIN:99999999 FREQ:1440"}, AUTRE, 1, "A b", 1440},
        {{"10~ TOUT:x DFIN:" + HIER + " TEXTE:A", "20~ TOUT:x TEXTE:B"}, AUTRE, 0, "A", 720},
        {{"10~ TOUT:x DSVT:1 DFIN:" + HIER + " TEXTE:A", "20~ TOUT:x TEXTE:B"}, AUTRE, 1, "B", 720},
        {{"10~ TOUT:x DSVT:1 DDEB:" + Jour(1) + " TEXTE:A FREQ:60", "20~ TOUT:x"}, AUTRE, 1, "A", 60},
        {{"10~ TOUT:x DDEB:" + AUJ + " DFIN:" + AUJ + " TEXTE:A"}, AUTRE, 1, "A", 720},
        {{"10~ JOKE:*@example.org TEXTE:A", "20~ TOUT:x"}, AUTRE, 1, "A", 720},
        {{"10~ TOUT:x FREQ:5"}, AUTRE, 0, "", 5},
        {{"#10~ TOUT:x TEXTE:B", "1~ TOUT:x TEXTE:C", "20~ RAEX:x TEXTE:A"}, AUTRE, 1, "A", 720},
        {{"10~ RAIN:x TEXTE:A", "20~ RAEX:x TEXTE:B"}, CONNU, 1, "A", 720},
    };
    for (Cas c : tst) {
        SCOPED_TRACE(c.v[0] + " " + c.e.s_From);
        char *pc_Texte = nullptr;
        int i_Freq = -1;
        EXPECT_EQ(DetReponseAuto(c.e.s_From.c_str(), Pose(c.e, c.v).data(), &pc_Texte, &i_Freq),
                  c.i_Attendu);
        EXPECT_STREQ(pc_Texte, c.pc_Texte);
        EXPECT_EQ(i_Freq, c.i_Freq);
    }
}

// "%h" becomes the incoming header without the local hops of the site's
// relays, stopping at the first line that no longer fits (a shorter one
// after it is not taken).  Off the main server no reply leaves, before any
// look at the header.  The label token keeps ASCII letters only.
TEST(Regles, TexteGardeEtJeton) {
    char pc_Sans[] = "Absent";
    EXPECT_EQ(pc_MiseEnFormeMess(pc_Sans), pc_Sans);
    std::string s_Long(5000, 'x');
    s_Long += "\n";
    Entete st6 = {const_cast<char *>("Subject: s\n"), nullptr}, st5 = {s_Long.data(), &st6},
           st4 = {s_Long.data(), &st5};
    Entete st2 = {const_cast<char *>("Received: from rly-inet-1 (127.0.0.1)\n"), &st4};
    Entete st1 = {const_cast<char *>("Received: by rly-intra-2\n"), &st2};
    Entete st0 = {const_cast<char *>("Received: from rly-inet-1 ([10.1.2.3])\n"), &st1};
    gpet_EnteteMessOrigine = &st0;
    char pc_Texte[] = "a%hb";
    EXPECT_EQ(std::string(pc_MiseEnFormeMess(pc_Texte)),
              "a\nReceived: from rly-inet-1 ([10.1.2.3])\n" + s_Long + "\nb");
    gpet_EnteteMessOrigine = nullptr;

    const char *pc_Detail = nullptr;
    gi_OnEstSurServeurPrincipal = 0;
    EXPECT_EQ(GardeReponse(&st6, "", &pc_Detail), 2699);
    gi_OnEstSurServeurPrincipal = 1;

    char pc[TAILLE_JETON];
    JetonLibelle("R\xe9ponse (automatique)", pc);
    EXPECT_STREQ(pc, "Reponse__automatique_");
}

// The origin zone is the first zone of the table (not of the header) that a
// Received line names, by field name in any case and a whole bracketed
// address; a webmail line (any case) ends the search.
TEST(Regles, ZoneOrigine) {
    const std::string R_INTERNET = "Received: from mx (mx [10.0.1.77])\n", R_C7 =
                      "Received: from c7 (c7.example [10.0.17.4]) by relais\n";
    const std::pair<Lignes, int> t_Cas[] = {
        {{}, ZONE_AUCUNE},
        {{R_C7, R_INTERNET}, 0},
        {{R_C7}, 13},
        {{"received: FROM WEBMAIL (PAR INTRANET [10.0.5.1])\n", R_C7}, 3},
        {{"Received: from x ([10.32.31.200])\n"}, 2},
        {{"X-Origine: [10.0.1.1]\n", "Received: from x ([10.0.5.2])\n", "Received: from x ([10.32.32.1])\n",
          "Received: from 10.0.1.7 by y\n"}, ZONE_AUCUNE},
    };
    for (auto [v, i_Zone] : t_Cas) {
        std::vector<Entete> v_Noeuds(v.size());
        for (std::size_t i = 0; i < v.size(); i++)
            v_Noeuds[i] = {v[i].data(), i + 1 < v.size() ? &v_Noeuds[i + 1] : nullptr};
        EXPECT_EQ(ZoneOrigine(v.empty() ? nullptr : v_Noeuds.data()), i_Zone) << testing::PrintToString(v);
    }
}

}  // namespace
