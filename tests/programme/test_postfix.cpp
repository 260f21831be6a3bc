// The program in the chain a site runs: messages submitted over SMTP to a
// private Postfix, whose pipe transport runs the program as nobody, which
// reads slapd and delivers into a real Cyrus store, and submits its notices,
// replies and list copies through the real sendmail back into that Postfix.
// What happened is read from the mailboxes, from Postfix's log and queue and
// from the spool, never from the program's output.
//
// The servers start once for the suite (ctest runs it as one test); the
// cases run in turn and each leaves the queue empty.  The program is the
// copy built for this chain (tests/CMakeLists.txt): the site's sendmail,
// short time limits, a spool that only its --init creates.  Across the
// suite nothing is ever bounced and nothing leaves for another domain.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "serveurs_essai.h"
#include "processus.h"

namespace {

const std::string PROG = CHEMIN_REMISE_VORANE_POSTFIX;
const std::string SPOOL = RACINE_SPOOL_POSTFIX;
const std::string EMETTEUR = "alice@dept.vorane.example";
constexpr unsigned NOBODY = 65534;
constexpr int DELAI_PIPE = 15;  // above the copy's run budget (12 s)

// A mailbox entry: uid, address, delivery kind, further attribute lines.
std::string Boite(const std::string &s_Uid, const std::string &s_Mail, const std::string &s_Remise,
                  const std::string &s_Plus = "") {
    return EntreeLdif("uid=" + s_Uid,
                      "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: " + s_Uid +
                          "\nsn: " + s_Uid + "\nmail: " + s_Mail + "\nravokVixRemise: " + s_Remise +
                          "\n" + s_Plus);
}

// The sender is a mailbox of a subdomain, as internal senders are (a sender
// of the bare internal domain counts as unauthenticated and gets no reply).
const std::string ENTREES =
    Boite("alice", EMETTEUR, "LMTP", "cn: Alice Martin\n") +
    Boite("bob", "bob@vorane.example", "LMTP", "cn: Bob\n") +
    Boite("carol", "carol@vorane.example", "LMTP", "cn: Carol\n") +
    Boite("absent", "absent@vorane.example", "LMTP",
          "cn: Paul Absent\nravokVixmailEmission: absent@vorane.example\n"
          "ravokVixReponse: 10~ TOUT:x FREQ:60 TEXTE:Je suis absent.\n") +
    Boite("prive", "prive@vorane.example", "LMTP",
          "cn: Pierre Priv\xc3\xa9\nravokVixRestrictions: 10- TOUT:x\n") +
    Boite("attente", "attente@vorane.example", "ATTENTE", "cn: En attente\n") +
    Boite("sansboite", "sansboite@vorane.example", "LMTP", "cn: Sans boite\n") +
    EntreeLdif("cn=liste",
               "objectClass: ravokVixListe\ncn: liste\nmail: liste@vorane.example\n"
               "ravokVixRemise: LISTE\nravokVixMembres: bob@vorane.example\n"
               "ravokVixMembres: carol@vorane.example\n");
// The store has no mailbox for sansboite.
const std::vector<std::string> BOITES = {"alice", "bob", "carol", "absent", "attente"};

// New messages per mailbox.
using Comptes = std::map<std::string, std::size_t>;

// A message from alice; the date is given so that Postfix adds none.
std::string Message(const std::string &s_Id, const std::string &s_To, const std::string &s_Sujet,
                    const std::string &s_Corps = "corps\n") {
    return "Message-ID: <" + s_Id + "@dept.vorane.example>\nFrom: Alice Martin <" + EMETTEUR +
           ">\nTo: " + s_To + "\nSubject: " + s_Sujet +
           "\nDate: Mon, 23 Nov 2026 10:00:00 +0100\n\n" + s_Corps;
}

// A stored message from the program's trace header on (the store's own
// lines before it dropped), LF line ends, dates and queue ids as
// placeholders.
std::string Recu(const std::string &s_Stocke) {
    static const std::regex r_Trace("le [0-9]{2}/[0-9]{2}/20[0-9]{2} [0-9:]{8};");
    static const std::regex r_Date(
        "[A-Z][a-z]{2}, [0-9]{1,2} [A-Z][a-z]{2} 20[0-9]{2} [0-9:]{8} "
        "[-+][0-9]{4}( \\(UTC\\))?");
    static const std::regex r_Id("(ESMTP id|\n\tid) [0-9A-F]+;");
    std::string s = SansCr(s_Stocke);
    std::size_t p = s.find("X-Remise-Vorane:");
    s = p == std::string::npos ? s : s.substr(p);
    s = std::regex_replace(s, r_Trace, "le <date>;");
    s = std::regex_replace(s, r_Date, "<date>");
    return std::regex_replace(s, r_Id, "$1 <id>;");
}

// The lines of a log text that contain the word.
std::vector<std::string> Lignes(const std::string &s_Texte, const std::string &s_Mot) {
    std::vector<std::string> v;
    std::istringstream f(s_Texte);
    for (std::string s; std::getline(f, s);)
        if (s.find(s_Mot) != std::string::npos) v.push_back(s);
    return v;
}

// Messages that the commands run by the pipe submitted, as Postfix's
// pickup logs them ("uid=<user> from=<sender>"), sorted.
std::vector<std::string> Soumissions(const std::string &s_Journal) {
    static const std::regex r("postfix/pickup\\[[0-9]+\\]: [0-9A-F]+: (uid=[0-9]+ from=<[^>]*>)");
    std::vector<std::string> v;
    for (const std::string &s : Lignes(s_Journal, "postfix/pickup[")) {
        std::smatch m;
        if (std::regex_search(s, m, r)) v.push_back(m[1].str());
    }
    std::sort(v.begin(), v.end());
    return v;
}

class ChainePostfix : public ::testing::Test {
protected:
    static AnnuaireEssai sst_Annuaire;
    static CyrusEssai sst_Cyrus;
    static PostfixEssai sst_Postfix;
    static std::string ss_Pret;  // why the servers are not ready ("" once they are)

    static void SetUpTestSuite() {
        ss_Pret = PrepareSpool();
        if (!ss_Pret.empty()) return;
        if (!DemarreAnnuaire(&sst_Annuaire, ENTREES))
            ss_Pret = "slapd: " + sst_Annuaire.s_Erreur;
        else if (!DemarreCyrus(&sst_Cyrus, BOITES))
            ss_Pret = "Cyrus: " + sst_Cyrus.s_Erreur;
        if (!ss_Pret.empty()) return;
        OptionsPostfix st;
        st.v_Domaines = {"vorane.example", "dept.vorane.example"};
        st.i_DelaiCommande = DELAI_PIPE;
        st.v_Pipe = {PROG,        "-r", sst_Cyrus.s_Socket, "-l", sst_Annuaire.s_Hote, "-e",
                     "${sender}", "-d", "${recipient}"};
        if (!DemarrePostfix(&sst_Postfix, st)) ss_Pret = "Postfix: " + sst_Postfix.s_Erreur;
    }
    static void TearDownTestSuite() {
        ArretePostfix(&sst_Postfix);
        ArreteCyrus(&sst_Cyrus);
        ArreteAnnuaire(&sst_Annuaire);
    }

    // The spool as a site gets it: --init run by root under umask 027 on a
    // machine where neither the spool nor its parent exists yet.  No mask
    // may keep the pipe user out: the root and the parent --init creates
    // are 0755, the three directories 0777.
    static std::string PrepareSpool() {
        const std::filesystem::path p_Spool(SPOOL);
        std::filesystem::remove_all(p_Spool.parent_path().parent_path());
        mode_t i_Masque = umask(027);
        ResultatProcessus r = LanceProgramme({PROG, "--init"});
        umask(i_Masque);
        if (r.i_Statut != 1)
            return "--init: status " + std::to_string(r.i_Statut) + " " + r.s_Erreur;
        struct Attendu {
            std::string s_Chemin;
            unsigned i_Mode;
        };
        const Attendu t[] = {{p_Spool.parent_path().parent_path(), 0755},
                             {SPOOL, 0755},
                             {SPOOL + "Absences", 0777},
                             {SPOOL + "Remises", 0777},
                             {SPOOL + "Erreurs", 0777}};
        std::string s_Faux;
        for (const Attendu &a : t) {
            struct stat st;
            if (stat(a.s_Chemin.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
                (st.st_mode & 07777) != a.i_Mode)
                s_Faux +=
                    a.s_Chemin + " is not a directory of mode " + std::to_string(a.i_Mode) + "\n";
        }
        return s_Faux;
    }

    std::size_t t_Journal = 0;                   // log size when the case began
    std::map<std::string, std::size_t> m_Avant;  // stored messages per mailbox then

    void SetUp() override {
        ASSERT_EQ(ss_Pret, "");
        Repere();
    }
    void TearDown() override {
        if (!ss_Pret.empty()) return;
        EXPECT_TRUE(AttendFileVide(sst_Postfix, 5)) << FilePostfix(sst_Postfix);
        std::string s_Journal = JournalPostfix(sst_Postfix);
        EXPECT_EQ(Lignes(s_Journal, "status=bounced"), std::vector<std::string>{}) << s_Journal;
        EXPECT_EQ(Lignes(s_Journal, "non-delivery notification"), std::vector<std::string>{});
        EXPECT_EQ(LitFichier(sst_Postfix.s_Capture), "");
    }

    // Notes where the log and the mailboxes stand: what a case then
    // checks is what happened since.
    void Repere() {
        t_Journal = JournalPostfix(sst_Postfix).size();
        for (const std::string &b : BOITES) m_Avant[b] = MessagesStockes(sst_Cyrus, b).size();
    }

    // Postfix's log since the case began.
    std::string Journal() const { return JournalPostfix(sst_Postfix).substr(t_Journal); }

    // Submits the message from alice; its queue id.
    std::string Soumet(const std::vector<std::string> &v_Dest, const std::string &s_Message) {
        std::string s_Id = SoumetSmtp(&sst_Postfix, EMETTEUR, v_Dest, s_Message);
        EXPECT_NE(s_Id, "") << sst_Postfix.s_Erreur;
        return s_Id;
    }

    // Waits until the message has left the queue and so has everything the
    // program submitted for it; the log lines of the message.
    std::string Livre(const std::string &s_Id, std::size_t t_Depuis) {
        std::string s = AttendMessage(sst_Postfix, s_Id, 30, t_Depuis);
        EXPECT_TRUE(AttendFileVide(sst_Postfix)) << FilePostfix(sst_Postfix);
        return s;
    }

    // Waits until Postfix has put the message in its deferred queue (every
    // recipient tried); false when it is not there after the limit.  The
    // log lines of the message since the case began are in *ps_Log.
    bool AttendDiffere(const std::string &s_Id, std::string *ps_Log) {
        const std::string s_Marque = "\"queue_name\": \"deferred\", \"queue_id\": \"" + s_Id + "\"";
        auto t_Fin = std::chrono::steady_clock::now() + std::chrono::seconds(2 * DELAI_PIPE);
        bool b_Differe = false;
        while (!(b_Differe = FilePostfix(sst_Postfix).find(s_Marque) != std::string::npos) &&
               std::chrono::steady_clock::now() < t_Fin)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        *ps_Log = "";
        for (const std::string &s : Lignes(Journal(), ": " + s_Id + ": ")) *ps_Log += s + "\n";
        return b_Differe;
    }

    // The messages stored in the mailbox since the case began.
    std::vector<std::string> Nouveaux(const std::string &s_Boite) {
        std::vector<std::string> v = MessagesStockes(sst_Cyrus, s_Boite);
        v.erase(v.begin(), v.begin() + static_cast<long>(std::min(m_Avant[s_Boite], v.size())));
        return v;
    }
    // Mailboxes whose count changed since the case began, with the number of
    // new messages each.
    Comptes Arrivees() {
        Comptes m;
        for (const std::string &b : BOITES)
            if (std::size_t n = Nouveaux(b).size(); n > 0) m[b] = n;
        return m;
    }
};
AnnuaireEssai ChainePostfix::sst_Annuaire;
CyrusEssai ChainePostfix::sst_Cyrus;
PostfixEssai ChainePostfix::sst_Postfix;
std::string ChainePostfix::ss_Pret;

// Two mailbox recipients of one transaction: one run of the program for
// both (the same pid in both log lines), each mailbox holds the message
// once with the rewritten header (trace header, rebuilt From, the raw 8-bit
// Subject encoded: the store keeps 8-bit header bytes as "X", as in the
// trace header's copy of the original) and the body as sent, lines that
// begin with "." included.  The delivery markers are the pipe user's.
TEST_F(ChainePostfix, BoitesEnteteReecritEtCorpsIntact) {
    for (const char *pc : {"bob", "carol"}) std::filesystem::remove(SPOOL + "Remises/" + pc);
    const std::string s_Corps = "premiere ligne\n.\n..\n.x\n...\n x.\n. \n\n.\n";
    std::string s_Id = Soumet(
        {"bob@vorane.example", "carol@vorane.example"},
        Message("boites", "bob@vorane.example, carol@vorane.example", "Caf\xe9 cr\xe8me", s_Corps));
    std::string s_Log = Livre(s_Id, t_Journal);
    std::vector<std::string> v_Pipe = Lignes(s_Log, "relay=vorane,");
    ASSERT_EQ(v_Pipe.size(), 2u) << s_Log;
    static const std::regex r_Pid(
        "status=sent \\(delivered via vorane service \\(remise-vorane\\[([0-9]+)\\]");
    std::smatch m1, m2;
    ASSERT_TRUE(std::regex_search(v_Pipe[0], m1, r_Pid)) << v_Pipe[0];
    ASSERT_TRUE(std::regex_search(v_Pipe[1], m2, r_Pid)) << v_Pipe[1];
    EXPECT_EQ(m1[1], m2[1]);
    EXPECT_EQ(Soumissions(Journal()), std::vector<std::string>{});

    EXPECT_EQ(Arrivees(), (Comptes{{"bob", 1}, {"carol", 1}}));
    for (const char *pc : {"bob", "carol"}) {
        SCOPED_TRACE(pc);
        std::vector<std::string> v = Nouveaux(pc);
        ASSERT_EQ(v.size(), 1u);
        EXPECT_EQ(SansCr(v[0]).rfind("Return-Path: <" + EMETTEUR + ">\n", 0), 0u);
        EXPECT_EQ(Recu(v[0]),
                  "X-Remise-Vorane: v1.1.0; le <date>;\n"
                  "\t+ mdf=0; lda=1; ea=0; eab=0; fdv=1;\n"
                  "\t+ sujet original: CafX crXme\n"
                  "\t+ from original: Alice Martin <alice@dept.vorane.example>\n"
                  "Received: from client.essai (localhost [127.0.0.1])\n"
                  "\tby relais.vorane.example (Postfix) with ESMTP id <id>;\n"
                  "\t<date>\n"
                  "Message-ID: <boites@dept.vorane.example>\n"
                  "From: \"alice@dept.vorane.example\"\n"
                  "\t<alice@dept.vorane.example>\n"
                  "To: bob@vorane.example, carol@vorane.example\n"
                  "Subject: =?iso8859-15?Q?Caf=E9_cr=E8me?=\n"
                  "Date: <date>\n"
                  "\n" + s_Corps + "\n");
        struct stat st;
        ASSERT_EQ(stat((SPOOL + "Remises/" + pc).c_str(), &st), 0);
        EXPECT_EQ(st.st_uid, NOBODY);
    }
}

// One message to a directory list, a recipient whose restriction refuses
// alice and one with an automatic reply.  The program runs once; what it
// submits comes back through Postfix: the list copy (envelope sender
// alice) into the members' mailboxes, the restriction notice and the
// reply (null sender) into alice's.  The refusing recipient gets nothing;
// the frequency file of the reply is the pipe user's.
TEST_F(ChainePostfix, ListeAvisEtReponseReviennentParPostfix) {
    const std::string s_Frequence = SPOOL + "Absences/AvisAbs..absent.." + EMETTEUR + ".txt";
    std::filesystem::remove(s_Frequence);
    std::string s_Id =
        Soumet({"liste@vorane.example", "prive@vorane.example", "absent@vorane.example"},
               Message("trois", "liste@vorane.example", "trois"));
    std::string s_Log = Livre(s_Id, t_Journal);
    EXPECT_EQ(Lignes(s_Log, "status=sent (delivered via vorane service").size(), 3u) << s_Log;
    EXPECT_EQ(Soumissions(Journal()),
              (std::vector<std::string>{"uid=65534 from=<>", "uid=65534 from=<>",
                                        "uid=65534 from=<" + EMETTEUR + ">"}));
    EXPECT_EQ(Arrivees(), (Comptes{{"absent", 1}, {"alice", 2}, {"bob", 1}, {"carol", 1}}));
    // The members' copy: the list's pass and the members' pass each left
    // their trace header; the second names the From the first rebuilt.
    for (const char *pc : {"bob", "carol"})
        EXPECT_EQ(Recu(Nouveaux(pc).at(0)),
                  "X-Remise-Vorane: v1.1.0; le <date>;\n"
                  "\t+ mdf=0; lda=1; ea=0; eab=0; fdv=1;\n"
                  "\t+ from original: Alice Martin <alice@dept.vorane.example>,\n"
                  "\t+ from original: \"alice@dept.vorane.example\"\n"
                  "\t<alice@dept.vorane.example>\n"
                  "Received: by relais.vorane.example (Postfix, from userid 65534)\n"
                  "\tid <id>; <date>\n"
                  "X-Remise-Vorane: v1.1.0; le <date>;\n"
                  "\t+ mdf=0; lda=1; ea=0; eab=0; fdv=1;\n"
                  "\t+ from original: Alice Martin <alice@dept.vorane.example>\n"
                  "Received: from client.essai (localhost [127.0.0.1])\n"
                  "\tby relais.vorane.example (Postfix) with ESMTP id <id>;\n"
                  "\t<date>\n"
                  "Message-ID: <trois@dept.vorane.example>\n"
                  "From: \"alice@dept.vorane.example\"\n"
                  "\t<alice@dept.vorane.example>\n"
                  "To: liste@vorane.example\n"
                  "Subject: trois\n"
                  "Date: <date>\n"
                  "\n"
                  "corps\n\n")
            << pc;

    // Alice's two, in whichever order Postfix delivered them.  Coming back
    // with the null sender, each is read as a robot's message from the
    // bare internal domain: its From is marked unauthenticated.
    std::vector<std::string> v_Alice = Nouveaux("alice");
    ASSERT_EQ(v_Alice.size(), 2u);
    if (v_Alice[0].find("Message-Id: <prive.") == std::string::npos)
        std::swap(v_Alice[0], v_Alice[1]);
    EXPECT_EQ(Recu(v_Alice[0]),
              "X-Remise-Vorane: v1.1.0; le <date>;\n"
              "\t+ mdf=1; lda=1; ea=0; eab=0; fdv=0;\n"
              "\t+ from original: \"Maitre postier, Service Courrier/VORANE\" "
              "<postmaster@vorane.example>\n"
              "Received: by relais.vorane.example (Postfix, from userid 65534)\n"
              "\tid <id>; <date>\n"
              "Received: from client.essai (localhost [127.0.0.1])\n"
              "\tby relais.vorane.example (Postfix) with ESMTP id <id>;\n"
              "\t<date>\n"
              "Message-Id: <prive.Non_remis__restriction_.trois@dept.vorane.example>\n"
              "Auto-Submitted: Auto-Replied\n"
              "Precedence: bulk\n"
              "X-Loop: REMISE-VORANE, <Non_remis__restriction_>, <prive@vorane.example>\n"
              "Subject: Non remis (restriction) : trois \n"
              "References: <trois@dept.vorane.example>\n"
              "In-Reply-To: <trois@dept.vorane.example>\n"
              "To: Alice Martin <alice@dept.vorane.example>\n"
              "From: =?ISO-8859-15?Q?=22=7E_Maitre_postier=2C_Service_Courrier=2FVORANE_=28?=\n"
              "\t=?ISO-8859-15?Q?emetteur_non_authentifie=2C_d=E9p=F4t_anonyme=29=22?=\n"
              "\t<postmaster@vorane.example>\n"
              "X-ravokOrigine: emetteur non authentifie\n"
              "X-ravokFromDifferent: 1\n"
              "Reply-to: \"Maitre postier, Service Courrier/VORANE\"\n"
              "\t<postmaster@vorane.example>\n"
              "Date: <date>\n"
              "MIME-Version: 1.0\n"
              "Content-Type: text/plain; charset=\"ISO-8859-1\"\n"
              "Content-Transfer-Encoding: 8bit\n"
              "\n"
              "Une restriction de remise a emp\xea" "ch\xe9 la remise du message \xe0 "
              "\"Pierre Priv\xe9\" <mailto:prive@vorane.example>\n\n");
    const std::string s_Reponse = Recu(v_Alice[1]);
    for (const char *pc : {"\nMessage-Id: <absent.Reponse_automatique.trois@dept.vorane.example>\n",
                           "\nSubject: =?UTF-8?Q?R=C3=A9ponse_automatique_=3A_trois_?=\n",
                           "\nTo: Alice Martin <alice@dept.vorane.example>\n",
                           "\nContent-Type: text/plain; charset=\"UTF-8\"\n"})
        EXPECT_NE(s_Reponse.find(pc), std::string::npos) << pc << s_Reponse;
    EXPECT_EQ(s_Reponse.substr(s_Reponse.find("\n\n")), "\n\nJe suis absent.\n\n");
    struct stat st;
    ASSERT_EQ(stat(s_Frequence.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, NOBODY);
}

// An ATTENTE recipient beside a mailbox: the run ends with 75, Postfix logs
// the deferral of both (4.3.0) and keeps the message in its deferred queue;
// nothing is stored.  Once the entry says LMTP, a flush delivers the message
// to both, once.
TEST_F(ChainePostfix, AttenteDiffereeJusquAuChangementDeLEntree) {
    std::string s_Id = Soumet({"bob@vorane.example", "attente@vorane.example"},
                              Message("attente", "attente@vorane.example", "attente"));
    std::string s_Log;
    EXPECT_TRUE(AttendDiffere(s_Id, &s_Log)) << FilePostfix(sst_Postfix);
    const std::string s_Differe =
        "dsn=4.3.0, status=deferred (temporary failure. Command output: remise-vorane[";
    EXPECT_EQ(Lignes(s_Log, s_Differe).size(), 2u) << s_Log;
    EXPECT_EQ(Arrivees(), (Comptes{}));

    const std::string s_Dn = "dn: uid=attente," + std::string(SUFFIXE_ANNUAIRE_ESSAI) +
                             "\nchangetype: modify\nreplace: ravokVixRemise\nravokVixRemise: ";
    ASSERT_TRUE(ModifieAnnuaire(sst_Annuaire, s_Dn + "LMTP\n"));
    std::size_t t_Relance = JournalPostfix(sst_Postfix).size();
    ASSERT_TRUE(RelanceFile(&sst_Postfix)) << sst_Postfix.s_Erreur;
    s_Log = Livre(s_Id, t_Relance);
    EXPECT_EQ(Lignes(s_Log, "status=sent").size(), 2u) << s_Log;
    EXPECT_EQ(Arrivees(), (Comptes{{"attente", 1}, {"bob", 1}}));
    EXPECT_TRUE(ModifieAnnuaire(sst_Annuaire, s_Dn + "ATTENTE\n"));
}

// A recipient whose mailbox the store refuses, beside one it takes: the
// run ends with 0 for both, the other recipient holds the message, and the
// sender's incident notice comes back through Postfix into her mailbox.
TEST_F(ChainePostfix, RefusDuMagasinAvisALExpediteur) {
    std::string s_Id = Soumet({"bob@vorane.example", "sansboite@vorane.example"},
                              Message("refus", "sansboite@vorane.example", "refus"));
    std::string s_Log = Livre(s_Id, t_Journal);
    EXPECT_EQ(Lignes(s_Log, "status=sent (delivered via vorane service").size(), 2u) << s_Log;
    EXPECT_EQ(Soumissions(Journal()), std::vector<std::string>{"uid=65534 from=<>"});
    EXPECT_EQ(Arrivees(), (Comptes{{"alice", 1}, {"bob", 1}}));
    const std::string s_Avis = Recu(Nouveaux("alice").at(0));
    for (const char *pc : {"\nX-Loop: REMISE-VORANE, <Non_remis__incident_>, <->\n",
                           "\nSubject: Non remis (incident) : refus \n",
                           "\nTo: Alice Martin <alice@dept.vorane.example>\n"})
        EXPECT_NE(s_Avis.find(pc), std::string::npos) << pc << s_Avis;
    EXPECT_EQ(s_Avis.substr(s_Avis.find("\n\n")),
              "\n\nLes destinataires suivants n'ont pas recu votre message:\n\n"
              "Destinataire <sansboite@vorane.example>, r\xe9ponse du serveur :\n"
              "550-Mailbox unknown.  Either there is no mailbox associated with this\n"
              "550-name or you do not have authorization to see it.\n"
              "550 5.1.1 User unknown\n\n\n\n");
}

// A directory or a store that stops answering (frozen: connections are
// accepted, nothing is ever answered).  The run gives the message back to
// Postfix (75) within its own limits, before the pipe's time limit would
// kill it and bounce the message: Postfix logs the deferral with the
// program's last report and keeps the message, nothing is stored, nothing
// bounced.  Once the peer answers again a flush delivers it, once.  The
// run's dump files are the pipe user's: the warnings of all the directory
// attempts share one, the report that ends the run has its own.
TEST_F(ChainePostfix, PairFigeMessageGardeEnFile) {
    struct Cas {
        const char *pc_Nom;
        void (*pf_Fige)();
        void (*pf_Reprend)();
        std::string s_Fin;                 // the last report, in Postfix's log
        std::vector<std::string> v_Dumps;  // how each dump file begins
    };
    const std::string s_2576 =
        "v1.1.0/2576: Erreur connection LDAP sur <" + sst_Annuaire.s_Hote + ">. ";
    // cr=110 (ETIMEDOUT): the store's greeting never came.
    const std::string s_4549 =
        "v1.1.0/4549: Trop d'essais Remise_LMTP sur " + sst_Cyrus.s_Socket + ", cr=110. ";
    const Cas t_Cas[] = {
        {"annuaire",
         [] { SuspendAnnuaire(sst_Annuaire); },
         [] { ReprendAnnuaire(sst_Annuaire); },
         " !ERR:2, " + s_2576,
         {"ATT.v1.1.0/2556: Erreur ldap_simple_bind_s, ld_errno=-5 (Timed out). ",
          "ERR." + s_2576}},
        {"magasin",
         [] { SuspendCyrus(sst_Cyrus); },
         [] { ReprendCyrus(sst_Cyrus); },
         " !ERR:2, " + s_4549,
         {"ERR." + s_4549}},
    };
    static const std::regex r_Pid("Command output: remise-vorane\\[([0-9]+)\\]: ");
    for (const Cas &c : t_Cas) {
        SCOPED_TRACE(c.pc_Nom);
        Repere();
        c.pf_Fige();
        std::string s_Id =
            Soumet({"bob@vorane.example"}, Message(c.pc_Nom, "bob@vorane.example", c.pc_Nom));
        std::string s_Log;
        EXPECT_TRUE(AttendDiffere(s_Id, &s_Log)) << FilePostfix(sst_Postfix);
        std::vector<std::string> v =
            Lignes(s_Log, "dsn=4.3.0, status=deferred (temporary failure.");
        std::smatch m;
        bool b_Pid = v.size() == 1 && std::regex_search(v[0], m, r_Pid);
        EXPECT_TRUE(b_Pid) << s_Log;
        EXPECT_NE(s_Log.find(c.s_Fin), std::string::npos) << s_Log;

        std::vector<std::string> v_Dumps;
        for (const char *pc : {"ATT", "ERR"})
            for (const std::string &f :
                 FichiersCommencantPar(SPOOL + "Erreurs", std::string(pc) + ".remise." +
                                                              (b_Pid ? m[1].str() : "?") + ".")) {
                struct stat st;
                EXPECT_EQ(stat(f.c_str(), &st), 0);
                EXPECT_EQ(st.st_uid, NOBODY) << f;
                EXPECT_EQ(st.st_mode & 07777, 0600u) << f;
                std::string s = LitFichier(f);
                v_Dumps.push_back(pc + std::string(".") + s.substr(0, s.find(". message-id=") + 2));
            }
        EXPECT_EQ(v_Dumps, c.v_Dumps);

        c.pf_Reprend();
        std::size_t t_Relance = JournalPostfix(sst_Postfix).size();
        ASSERT_TRUE(RelanceFile(&sst_Postfix)) << sst_Postfix.s_Erreur;
        s_Log = Livre(s_Id, t_Relance);
        EXPECT_EQ(Lignes(s_Log, "status=sent").size(), 1u) << s_Log;
        EXPECT_EQ(Arrivees(), (Comptes{{"bob", 1}}));
    }
}

}  // namespace
