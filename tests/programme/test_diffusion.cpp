// Directory lists and Sympa lists delivered by the whole program, against a
// real slapd, with the capture program standing in for sendmail and the
// Sympa queue programs: who receives what, with which arguments and which
// bytes, and what every exit status of those commands makes of the run.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "serveurs_essai.h"
#include "capture_essai.h"
#include "processus.h"
#include "serveur_lmtp.h"

namespace {

using Liste = std::vector<std::string>;
const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string EMETTEUR = "k@dept.vorane.example";

// A list entry of the suite: name, delivery kind, further attribute lines.
std::string Entree(const std::string &s_Nom, const std::string &s_Remise,
                   const std::string &s_Plus = "") {
    return EntreeLdif("cn=" + s_Nom, "objectClass: ravokVixListe\ncn: " + s_Nom + "\nmail: " +
                                         s_Nom + "@vorane.example\nravokVixRemise: " + s_Remise +
                                         "\n" + s_Plus);
}

// Members of the big list: 250 addresses over three domains.
Liste Grande() {
    Liste v;
    for (int i = 0; i < 250; i++)
        v.push_back("g" + std::to_string(i) + "@" + std::string(1, "zam"[i % 3]) + ".example");
    return v;
}
const Liste HOSTILES = {"\"; touch /tmp/pirate; \"@x.example", "$(id)@x.example",
                        "`id`@x.example", "-oQ/tmp@x.example"};

std::string Membres(const Liste &v) {
    std::string s;
    for (const std::string &m : v) s += "ravokVixMembres: " + m + "\n";
    return s;
}

const std::string ENTREES =
    Entree("liste", "LISTE",
           "ravokVixMembres: m2@b.example\nravokVixMembres: m1@a.example\n"
           "info: avis:  \tbounce@vorane.example\ninfo: REPONSE: liste@vorane.example\n") +
    Entree("listemu", "LISTE-MU",
           "ravokVixMembres: x@c.example\nravokVixMembres: sous@vorane.example\n") +
    Entree("sous", "LISTE-BR", "ravokVixMembres: y@c.example\nravokVixMembres: X@C.example\n") +
    Entree("vide", "LISTE-BR") + Entree("fax", "LISTE-FAX", "ravokVixMembres: f@a.example\n") +
    Entree("grande", "LISTE", Membres(Grande())) + Entree("hostile", "LISTE", Membres(HOSTILES)) +
    Entree("sympa", "SYMPA") + Entree("rebonds", "SYMPA-BOUNCE") +
    EntreeLdif("uid=boite", "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: boite\n"
                            "cn: b\nsn: b\nmail: boite@vorane.example\nravokVixRemise: LMTP\n") +
    Entree("attente", "ATTENTE");

// A message from an internal sender through no known relay: nothing
// decorates its From, so the header gets no Reply-to of its own.
std::string Message(const std::string &s_EnPlus = "To: Liste <sympa@vorane.example>\n") {
    return "From: " + EMETTEUR + "\nReceived: from poste by relais\nMessage-ID: <d-1@vorane.example>\n"
           "Subject: diffusion\n" + s_EnPlus + "\ncorps\n.\n..x\nfin\n";
}

class Diffusion : public ::testing::Test {
protected:
    static AnnuaireEssai sst_Annuaire;
    static void SetUpTestSuite() {
        ASSERT_TRUE(DemarreAnnuaire(&sst_Annuaire, ENTREES)) << sst_Annuaire.s_Erreur;
    }
    static void TearDownTestSuite() { ArreteAnnuaire(&sst_Annuaire); }

    ResultatProcessus Lance(const Liste &v_Dest, const std::string &s_Message,
                            const std::string &s_Lmtp = "/nulle/part") {
        Liste v = {PROG, "-r", s_Lmtp, "-l", sst_Annuaire.s_Hote, "-e", EMETTEUR, "-d"};
        v.insert(v.end(), v_Dest.begin(), v_Dest.end());
        return LanceProgramme(v, s_Message, 60);
    }
};
AnnuaireEssai Diffusion::sst_Annuaire;

// The part of a submitted message that follows the program's trace header
// (the date of that header varies).
std::string ApresTrace(const std::string &s) {
    std::size_t p = s.find("\t+ from original: ");
    return p == std::string::npos ? s : s.substr(s.find('\n', p) + 1);
}

// Lists as stored and expanded without duplicates, a list without members,
// an unknown list kind, a list split into batches and hostile member
// addresses: each command gets its arguments literally and the whole
// message, whose Reply-To is the list's (the second line of the header).
TEST_F(Diffusion, ListesEtMembres) {
    Capture cap;
    ResultatProcessus r = Lance({"liste@vorane.example", "listemu@vorane.example",
                                 "vide@vorane.example", "fax@vorane.example",
                                 "grande@vorane.example", "hostile@vorane.example"},
                                Message());
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_NE(r.s_Erreur.find(" !ERR:-3, v1.1.0/4422: Erreur annuaire, type de liste non supporte, "
                              "'ravokVixRemise=LISTE-FAX'. "),
              std::string::npos);
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 7u) << r.s_Erreur;
    // The list as stored, sorted by domain, its bounce address as sender.
    EXPECT_EQ(a[0].v_Argv, (Liste{CAPTURE, "-i", "-f", "bounce@vorane.example", "--",
                                  "m1@a.example", "m2@b.example"}));
    const std::string s_Corps = "\ncorps\n.\n..x\nfin\n";
    const std::string s_Tete = "From: \"k@dept.vorane.example\"\n\t<k@dept.vorane.example>\n"
                               "Reply-To: liste@vorane.example\nX-Remise-Vorane: v1.1.0; le ";
    EXPECT_EQ(a[0].s_Entree.substr(0, s_Tete.size()), s_Tete);
    EXPECT_EQ(ApresTrace(a[0].s_Entree),
              "Received: from poste by relais\nMessage-ID: <d-1@vorane.example>\n"
              "Subject: diffusion\nTo: Liste <sympa@vorane.example>\n" + s_Corps);
    // Expanded through the nested list, once per address (any case).
    Liste d = a[1].Destinataires();
    for (std::string &s : d) std::transform(s.begin(), s.end(), s.begin(), ::tolower);
    std::sort(d.begin(), d.end());
    EXPECT_EQ(d, (Liste{"x@c.example", "y@c.example"}));
    EXPECT_EQ(a[1].v_Argv[3], EMETTEUR);
    // The unknown kind's notice, then three batches of 100, 100 and 50.
    EXPECT_EQ(a[2].Destinataires(), Liste{EMETTEUR});
    EXPECT_NE(a[2].s_Entree.find("Subject: Non remis (incident) : diffusion \n"), std::string::npos);
    Liste v_Tous;
    for (int i = 3; i < 6; i++) {
        EXPECT_EQ(a[i].Destinataires().size(), i < 5 ? 100u : 50u);
        EXPECT_EQ(ApresTrace(a[i].s_Entree), ApresTrace(a[0].s_Entree));
        for (const std::string &s : a[i].Destinataires()) v_Tous.push_back(s);
    }
    EXPECT_TRUE(std::is_sorted(v_Tous.begin(), v_Tous.end(), [](const std::string &x,
                                                                 const std::string &y) {
        return x.substr(x.find('@')) < y.substr(y.find('@'));
    }));
    Liste h = a[6].Destinataires(), v_Hostiles = HOSTILES;
    std::sort(h.begin(), h.end());
    std::sort(v_Hostiles.begin(), v_Hostiles.end());
    EXPECT_EQ(h, v_Hostiles);
}

// A list, a Sympa list, a Sympa bounce list and a mailbox in one run: the
// body is read once and each delivery gets it whole; the Sympa programs get
// the list address and the first To address; the list's Reply-To replaces
// the one the message had, also in the one LMTP transaction after the loop.
// A message without To gives the bounce program an empty address.
TEST_F(Diffusion, ListesSympaEtBoite) {
    Capture cap;
    ServeurLmtpEssai st_Lmtp({Rep("220 ok\n"), Rep("250 ok\n"), Rep("250 ok\n"), Rep("354 go\n"),
                              Rep("250 ok\n"), Rep("221 bye\n")},
                             false);
    ResultatProcessus r = Lance({"liste@vorane.example", "sympa@vorane.example",
                                 "rebonds@vorane.example", "boite@vorane.example"},
                                Message("Reply-to: ailleurs@partenaire.test\n"
                                        "To: Liste <sympa@vorane.example>, autre@x.example\n"),
                                st_Lmtp.Designation());
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 3u) << r.s_Erreur;
    EXPECT_EQ(a[1].v_Argv, (Liste{CAPTURE, "sympa@vorane.example"}));
    EXPECT_EQ(a[2].v_Argv, (Liste{CAPTURE, "sympa@vorane.example"}));
    const std::string s_Attendu =
        "Received: from poste by relais\nMessage-ID: <d-1@vorane.example>\n"
        "Subject: diffusion\nReply-To: liste@vorane.example\n"
        "To: Liste <sympa@vorane.example>, autre@x.example\n\ncorps\n.\n..x\nfin\n";
    for (const Appel &x : a) EXPECT_EQ(ApresTrace(x.s_Entree), s_Attendu);
    EXPECT_EQ(ApresTrace(DonneesRecues(st_Lmtp.Recu())), s_Attendu + "\n");

    Capture cap2;
    r = Lance({"rebonds@vorane.example"}, Message(""));
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    ASSERT_EQ(cap2.Appels().size(), 1u);
    EXPECT_EQ(cap2.Appels()[0].v_Argv, (Liste{CAPTURE, ""}));
}

// A delivery to a list stands when a later recipient defers the message:
// the run ends with 75 and the mailbox after it waits for the retry.
TEST_F(Diffusion, AttenteApresUneListe) {
    Capture cap;
    ResultatProcessus r = Lance({"liste@vorane.example", "attente@vorane.example",
                                 "boite@vorane.example"},
                                Message());
    EXPECT_EQ(r.i_Statut, 75) << r.s_Erreur;
    EXPECT_EQ(cap.Appels().size(), 1u);
}

// What the list's command makes of the run: a temporary status is a retry
// (75), a command that read nothing too; any other failure, death by a
// signal included, sends the sender a notice and ends with 0.
TEST_F(Diffusion, StatutsDeLaCommande) {
    struct Cas {
        int i_Statut;  // of the list's command; -n: killed by signal n
        int i_Attendu;
        std::size_t t_Appels;
    };
    const Cas tst[] = {{68, 75, 1}, {71, 75, 1}, {72, 75, 1}, {74, 75, 1}, {75, 75, 1},
                       {77, 75, 1}, {78, 75, 1}, {67, 0, 2},  {1, 0, 2},   {-9, 0, 2}};
    for (const Cas &c : tst) {
        SCOPED_TRACE(c.i_Statut);
        Capture cap;
        cap.StatutAppel(1, c.i_Statut);
        ResultatProcessus r = Lance({"liste@vorane.example"}, Message());
        EXPECT_EQ(r.i_Statut, c.i_Attendu) << r.s_Erreur;
        EXPECT_NE(r.s_Erreur.find("v1.1.0/1891: Erreur sur pclose <exec "), std::string::npos);
        ASSERT_EQ(cap.Appels().size(), c.t_Appels);
        if (c.t_Appels == 2) {
            // The notice quotes the command, each quoted item on its own line.
            const std::string s_Entree = cap.Appels()[1].s_Entree;
            const std::string s_Avis = s_Entree.substr(s_Entree.find("\n\n"));
            EXPECT_NE(s_Entree.find("Non remis (incident)"), std::string::npos);
            EXPECT_NE(s_Avis.find("\"\n"), std::string::npos) << s_Avis;
            EXPECT_EQ(s_Avis.find("\" "), std::string::npos) << s_Avis;
        }
    }
    Capture cap;
    setenv("CAPTURE_LIMITE", "0", 1);
    ResultatProcessus r = Lance({"liste@vorane.example"}, Message());
    EXPECT_EQ(r.i_Statut, 75) << r.s_Erreur;
    EXPECT_NE(r.s_Erreur.find(" !ERR:2, v1.1.0/1893: Commande <exec "), std::string::npos);
}

}  // namespace
