// The whole program as Postfix runs it, against a real slapd, with the
// capture program standing in for sendmail and the Sympa queue programs:
// directory lists and Sympa lists (who receives what, with which arguments
// and bytes, and what the list command's exit status makes of the run), and
// mailboxes of a real Cyrus lmtpd, read back from its files to prove that
// each message arrived whole, once, in the right mailbox, and that the
// store's refusals reached the sender.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "serveurs_essai.h"
#include "capture_essai.h"
#include "processus.h"
#include "serveur_lmtp.h"

namespace {

using namespace std::string_literals;  // "..."s keeps the NUL bytes of a literal

using Liste = std::vector<std::string>;
const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string EMETTEUR = "k@dept.vorane.example", EXTERNE = "ext@partenaire.test";

// A list entry of the suite: name, delivery kind, further attribute lines.
std::string Entree(const std::string &s_Nom, const std::string &s_Remise,
                   const std::string &s_Plus = "") {
    return EntreeLdif("cn=" + s_Nom, "objectClass: ravokVixListe\ncn: " + s_Nom + "\nmail: " +
                                         s_Nom + "@vorane.example\nravokVixRemise: " + s_Remise +
                                         "\n" + s_Plus);
}

const std::string ENTREES =
    Entree("liste", "LISTE",
           "ravokVixMembres: m2@b.example\nravokVixMembres: m1@a.example\n"
           "info: avis:  \tbounce@vorane.example\ninfo: REPONSE: liste@vorane.example\n") +
    Entree("vide", "LISTE-BR") + Entree("fax", "LISTE-FAX", "ravokVixMembres: f@a.example\n") +
    Entree("mu", "LISTE-MU", "ravokVixMembres: x@c.example\nravokVixMembres: liste@vorane.example\n"
                             "ravokVixMembres: M1@A.example\n") +
    Entree("sympa", "SYMPA") + Entree("rebonds", "SYMPA-BOUNCE") +
    EntreeLdif("uid=ext", "objectClass: inetOrgPerson\nuid: ext\ncn: Jean Externe\nsn: E\nmail: " + EXTERNE + "\n");

// Mailboxes of the store (plein with a 1 KB quota); m101 to m120 take one
// transaction whose final replies exceed one read.
Liste Boites() {
    Liste v = {"plein:1"};
    for (int i = 101; i <= 120; i++) v.push_back("m" + std::to_string(i));
    return v;
}

// The mailbox entries: the store's, one not in the store, one for the
// scripted server.
std::string EntreesBoites() {
    Liste v = Boites();
    v[0] = "plein";
    v.insert(v.end(), {"fantome", "boite"});
    std::string s;
    for (const std::string &b : v)
        s += EntreeLdif("uid=" + b, "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: " + b + "\ncn: " +
                                        b + "\nsn: " + b + "\nmail: " + b + "@vorane.example\nravokVixRemise: LMTP\n");
    return s;
}

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
        ASSERT_TRUE(DemarreAnnuaire(&sst_Annuaire, ENTREES + EntreesBoites())) << sst_Annuaire.s_Erreur;
    }
    static void TearDownTestSuite() { ArreteServeur(&sst_Annuaire); }

    static ResultatProcessus Lance(const Liste &v_Dest, const std::string &s_Message,
                                   const std::string &s_Lmtp = "/nulle/part", const std::string &s_De = EMETTEUR) {
        Liste v = {PROG, "-r", s_Lmtp, "-l", sst_Annuaire.s_Hote, "-e", s_De, "-d"};
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

// A list as stored (sorted by domain, its bounce address as sender), a list
// without members, an unknown list kind (its notice), a Sympa list, a Sympa
// bounce list, a list expanded through a nested one without duplicates in
// any case (the message's sender as bounce address) and a mailbox in one run: the body is read once and each
// delivery gets it whole, with the list's Reply-To in place of the message's,
// also in the one LMTP transaction after the loop;
// the Sympa programs get the list address and the first To address.
TEST_F(Diffusion, ListesSympaEtBoite) {
    Capture cap;
    ServeurLmtpEssai st_Lmtp({Rep("220 ok\n"), Rep("250 ok\n"), Rep("250 ok\n"), Rep("354 go\n"),
                              Rep("250 ok\n"), Rep("221 bye\n")},
                             false);
    ResultatProcessus r = Lance({"liste@vorane.example", "vide@vorane.example",
                                 "fax@vorane.example", "sympa@vorane.example", "rebonds@vorane.example",
                                 "mu@vorane.example", "boite@vorane.example"},
                                Message("Reply-to: ailleurs@partenaire.test\n"
                                        "To: Liste <sympa@vorane.example>, autre@x.example\n"),
                                st_Lmtp.Designation());
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_NE(r.s_Erreur.find(" !ERR:-3, v1.1.0/4422: Erreur annuaire, type de liste non supporte, "
                              "'ravokVixRemise=LISTE-FAX'. "),
              std::string::npos);
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 5u) << r.s_Erreur;
    EXPECT_EQ(a[0].v_Argv, (Liste{CAPTURE, "-i", "-f", "bounce@vorane.example", "--", "m1@a.example",
                                  "m2@b.example"}));
    const std::string s_Tete = "From: \"k@dept.vorane.example\"\n\t<k@dept.vorane.example>\n"
                               "X-Remise-Vorane: v1.1.0; le ";
    EXPECT_EQ(a[0].s_Entree.substr(0, s_Tete.size()), s_Tete);
    EXPECT_EQ(a[1].Destinataires(), Liste{EMETTEUR});
    EXPECT_NE(a[1].s_Entree.find("Subject: Non remis (incident) : diffusion \n"), std::string::npos);
    EXPECT_EQ(a[2].v_Argv, (Liste{CAPTURE, "sympa@vorane.example"}));
    EXPECT_EQ(a[3].v_Argv, (Liste{CAPTURE, "sympa@vorane.example"}));
    EXPECT_EQ(a[4].v_Argv, (Liste{CAPTURE, "-i", "-f", EMETTEUR, "--", "M1@A.example", "m2@b.example",
                                  "x@c.example"}));
    const std::string s_Attendu =
        "Received: from poste by relais\nMessage-ID: <d-1@vorane.example>\n"
        "Subject: diffusion\nReply-To: liste@vorane.example\n"
        "To: Liste <sympa@vorane.example>, autre@x.example\n\ncorps\n.\n..x\nfin\n";
    for (int i : {0, 2, 3, 4}) EXPECT_EQ(ApresTrace(a[i].s_Entree), s_Attendu);
    EXPECT_EQ(ApresTrace(DonneesRecues(st_Lmtp.Recu())), s_Attendu + "\n");

}

// What the list's command makes of the run: a temporary status is a retry
// (75); any other failure, death by a signal included, sends the sender a
// notice that quotes the command, each quoted item on its own line, and ends
// with 0.  The one recipient's body goes from standard input straight to the
// command, a NUL byte included.
TEST_F(Diffusion, StatutsDeLaCommande) {
    const struct {
        int i_Statut;  // of the list's command; -n: killed by signal n
        int i_Attendu;
    } t[] = {{68, 75}, {75, 75}, {78, 75}, {67, 0}, {-9, 0}};
    for (const auto &c : t) {
        SCOPED_TRACE(c.i_Statut);
        Capture cap;
        cap.StatutAppel(1, c.i_Statut);
        ResultatProcessus r = Lance({"liste@vorane.example"}, Message() + "nul\0ici\n"s);
        EXPECT_EQ(r.i_Statut, c.i_Attendu) << r.s_Erreur;
        EXPECT_NE(r.s_Erreur.find("v1.1.0/1891: Erreur sur pclose <exec "), std::string::npos);
        std::vector<Appel> a = cap.Appels();
        ASSERT_EQ(a.size(), c.i_Attendu == 0 ? 2u : 1u);
        EXPECT_TRUE(a[0].s_Entree.ends_with("\nfin\nnul\0ici\n"s));
        if (a.size() == 2) {
            const std::string s_Avis = a[1].s_Entree.substr(a[1].s_Entree.find("\n\n"));
            EXPECT_NE(a[1].s_Entree.find("Non remis (incident)"), std::string::npos);
            EXPECT_NE(s_Avis.find("\"\n"), std::string::npos) << s_Avis;
            EXPECT_EQ(s_Avis.find("\" "), std::string::npos) << s_Avis;
        }
    }
}

// A message as Postfix hands it over (flag R: Return-Path first), from the
// external sender through an internet relay.
std::string MessageExterne(const std::string &s_Corps) {
    return "Return-Path: <" + EXTERNE + ">\nReceived: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
           "Date: Sun, 22 Nov 2026 10:00:00 +0100\nMessage-ID: <c-1@partenaire.test>\nFrom: Jean Dupont <" +
           EXTERNE + ">\nSubject: essai\n\n" + s_Corps;
}

// The same directory and a real Cyrus store with its mailboxes.
class Cyrus : public Diffusion {
protected:
    static CyrusEssai sst_Cyrus;
    static void SetUpTestSuite() {
        Diffusion::SetUpTestSuite();
        ASSERT_TRUE(DemarreCyrus(&sst_Cyrus, Boites(), true)) << sst_Cyrus.s_Erreur;
    }
    static void TearDownTestSuite() {
        ArreteServeur(&sst_Cyrus);
        Diffusion::TearDownTestSuite();
    }
};
CyrusEssai Cyrus::sst_Cyrus;

// The store weighs the message itself against the quota after the data: a
// message larger than plein's quota is refused there for plein alone, the
// mailboxes before and after it keep their copy, the run ends with 0 and the
// sender's notice names plein.  Then one transaction of 21 recipients:
// twenty mailboxes (one written in capitals), whose final replies take two
// reads, each get exactly one more copy of the rewritten header and the
// body's dot lines and 8-bit bytes; the unknown mailbox (a three-line 550)
// gets nothing, and one notice tells the sender, with the reply as received.
// The run ends with 0 and its one information line.
TEST_F(Cyrus, UneTransactionPourTous) {
    const std::string TETE = "Les destinataires suivants n'ont pas recu votre message:\n\n";
    Capture cap;
    ResultatProcessus r = Lance({"m101@vorane.example", "plein@vorane.example", "m102@vorane.example"},
                                MessageExterne(std::string(3000, 'r') + "\n"), sst_Cyrus.s_Socket, EXTERNE);
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(MessagesStockes(sst_Cyrus, "plein").size(), 0u);
    ASSERT_EQ(cap.Appels().size(), 1u) << r.s_Erreur;
    std::string s_Avis = cap.Appels()[0].s_Entree;
    EXPECT_EQ(s_Avis.substr(s_Avis.find("\n\n") + 2),
              TETE + "Destinataire <plein@vorane.example>, r\xe9ponse du serveur :\n"
                     "Bo\xeete pleine, message refus\xe9 ...\n\n");

    Liste v_Dest;
    for (int i = 101; i <= 120; i++) v_Dest.push_back("m" + std::to_string(i) + "@vorane.example");
    v_Dest[1] = "M102@Vorane.Example";
    v_Dest.insert(v_Dest.begin() + 5, "fantome@vorane.example");
    const std::string s_Corps = ".\n..\n.x\nd\xe9j\xe0\n.fin";
    r = Lance(v_Dest, MessageExterne(s_Corps), sst_Cyrus.s_Socket, EXTERNE);
    EXPECT_EQ(r.s_Erreur, "remise-vorane[" + std::to_string(r.i_Pid) +
                              "]: message-id=<c-1@partenaire.test>, from=<ext@partenaire.test>, to=<->(-/21)\n");
    EXPECT_EQ(r.i_Statut, 0);
    for (int i = 101; i <= 120; i++) {
        SCOPED_TRACE(i);
        Liste v = MessagesStockes(sst_Cyrus, "m" + std::to_string(i));
        ASSERT_EQ(v.size(), i <= 102 ? 2u : 1u);
        std::string s = std::regex_replace(SansCr(v.back()), std::regex("le [0-3][0-9]/[01][0-9]/20[0-9][0-9] "
                                                                    "[0-2][0-9]:[0-5][0-9]:[0-5][0-9];"),
                                           "le <date>;");
        // lmtpd's own Return-Path from the envelope comes first; the message's is not sent.
        EXPECT_EQ(s.rfind("Return-Path:", s.find("X-Remise-Vorane: ")), 0u);
        EXPECT_EQ(s.substr(s.find("X-Remise-Vorane: ")),
                  "X-Remise-Vorane: v1.1.0; le <date>;\n\t+ mdf=0; lda=1; ea=1; eab=0; fdv=0;\n"
                  "\t+ from original: Jean Dupont <ext@partenaire.test>\n"
                  "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
                  "Date: Sun, 22 Nov 2026 10:00:00 +0100\nMessage-ID: <c-1@partenaire.test>\n"
                  "From: \"> Jean Externe (par Internet)\"\n\t<ext@partenaire.test>\n"
                  "X-ravokOrigine: par Internet\nReply-to: \"Jean Externe\"\n\t<ext@partenaire.test>\n"
                  "Subject: essai\n\n" + s_Corps + "\n");
    }
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 2u) << r.s_Erreur;
    EXPECT_EQ(a[1].Destinataires(), Liste{EXTERNE});
    EXPECT_EQ(a[1].s_Entree.substr(a[1].s_Entree.find("\n\n") + 2),
              TETE + "Destinataire <fantome@vorane.example>, r\xe9ponse du serveur :\n"
              "550-Mailbox unknown.  Either there is no mailbox associated with this\r\n"
              "550-name or you do not have authorization to see it.\r\n"
              "550 5.1.1 User unknown\r\n\n\n");
}

}  // namespace
