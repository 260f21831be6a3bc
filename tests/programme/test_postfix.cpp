// The program as a site deploys it: messages submitted over SMTP to a
// private Postfix whose pipe transport runs the program as nobody; it reads
// slapd, delivers into a real Cyrus store and submits notices, replies and
// list copies through the real sendmail back into that Postfix.  What
// happened is read from the mailboxes, Postfix's log and queue and the
// spool.  The servers start once; each case leaves the queue empty, nothing
// is ever bounced and nothing leaves for another domain.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "serveurs_essai.h"
#include "processus.h"

namespace {

using V = std::vector<std::string>;
const std::string PROG = CHEMIN_REMISE_VORANE_POSTFIX, SPOOL = RACINE_SPOOL_POSTFIX,
                  EMETTEUR = "alice@dept.vorane.example";
constexpr unsigned NOBODY = 65534;
constexpr int DELAI_PIPE = 15;  // above the copy's run budget (12 s)

std::string Boite(const std::string &s_Uid, const std::string &s_Cn, const std::string &s_Plus = "") {
    return EntreeLdif("uid=" + s_Uid, "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: " +
                                          s_Uid + "\nsn: s\ncn: " + s_Cn + "\nmail: " + s_Uid +
                                          "@vorane.example\nravokVixRemise: LMTP\n" + s_Plus);
}
// The sender is a mailbox of a subdomain, as internal senders are (one of
// the bare internal domain counts as unauthenticated and gets no reply).
const std::string ENTREES =
    EntreeLdif("uid=alice", "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: alice\n"
                            "sn: a\ncn: Alice Martin\nmail: " + EMETTEUR + "\nravokVixRemise: LMTP\n") +
    Boite("bob", "Bob") + Boite("carol", "Carol") + Boite("sansboite", "Sans boite") +
    Boite("absent", "Paul Absent", "ravokVixmailEmission: absent@vorane.example\nravokVixReponse: 10~ TOUT:x FREQ:60 TEXTE:Je suis absent.\n") +
    Boite("prive", "Pierre Priv\xc3\xa9", "ravokVixRestrictions: 10- TOUT:x\n") +
    EntreeLdif("cn=liste", "objectClass: ravokVixListe\ncn: liste\nmail: liste@vorane.example\n"
                           "ravokVixRemise: LISTE\nravokVixMembres: carol@vorane.example\n");
const V BOITES = {"alice", "bob", "carol", "absent"};  // none for sansboite

// A stored message from the program's trace header on, LF line ends,
// dates and queue ids as placeholders.
std::string Recu(const std::string &s_Stocke) {
    static const std::regex r_Trace("le [0-9]{2}/[0-9]{2}/20[0-9]{2} [0-9:]{8};"),
        r_Date("[A-Z][a-z]{2}, [0-9]{1,2} [A-Z][a-z]{2} 20[0-9]{2} [0-9:]{8} [-+][0-9]{4}( \\(UTC\\))?"),
        r_Id("(ESMTP id|\n\tid) [0-9A-F]+;");
    std::string s = SansCr(s_Stocke);
    s = s.substr(std::min(s.find("X-Remise-Vorane:"), s.size()));
    s = std::regex_replace(std::regex_replace(s, r_Trace, "le <date>;"), r_Date, "<date>");
    return std::regex_replace(s, r_Id, "$1 <id>;");
}

// The lines of a log text that contain the word.
V Lignes(const std::string &s_Texte, const std::string &s_Mot) {
    V v;
    std::istringstream f(s_Texte);
    for (std::string s; std::getline(f, s);)
        if (s.find(s_Mot) != std::string::npos) v.push_back(s);
    return v;
}

class ChainePostfix : public ::testing::Test {
  protected:
    static AnnuaireEssai sst_Annuaire;
    static CyrusEssai sst_Cyrus;
    static PostfixEssai sst_Postfix;
    static std::string ss_Pret;  // why the servers are not ready ("" once they are)

    // The spool as --init makes it, run by root under umask 027 where
    // neither it nor its parent exists: no mask may keep the pipe user out.
    static void SetUpTestSuite() {
        const std::filesystem::path p_Spool(SPOOL);
        std::filesystem::remove_all(p_Spool.parent_path().parent_path());
        mode_t i_Masque = umask(027);
        ResultatProcessus r = LanceProgramme({PROG, "--init"});
        umask(i_Masque);
        if (r.i_Statut != 1) ss_Pret = "--init: " + std::to_string(r.i_Statut) + " " + r.s_Erreur;
        for (auto [s_Chemin, i_Mode] : std::initializer_list<std::pair<std::string, unsigned>>{
                 {p_Spool.parent_path().parent_path(), 0755}, {SPOOL, 0755}, {SPOOL + "Absences", 0777},
                 {SPOOL + "Remises", 0777}, {SPOOL + "Erreurs", 0777}}) {
            struct stat st;
            if (stat(s_Chemin.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || (st.st_mode & 07777) != i_Mode)
                ss_Pret += s_Chemin + " is not a directory of mode " + std::to_string(i_Mode) + "\n";
        }
        if (!ss_Pret.empty()) return;
        if (!DemarreAnnuaire(&sst_Annuaire, ENTREES)) ss_Pret = "slapd: " + sst_Annuaire.s_Erreur;
        else if (!DemarreCyrus(&sst_Cyrus, BOITES)) ss_Pret = "Cyrus: " + sst_Cyrus.s_Erreur;
        if (!ss_Pret.empty()) return;
        OptionsPostfix st;
        st.v_Domaines = {"vorane.example", "dept.vorane.example"};
        st.i_DelaiCommande = DELAI_PIPE;
        st.v_Pipe = {PROG, "-r", sst_Cyrus.s_Socket, "-l", sst_Annuaire.s_Hote, "-e", "${sender}", "-d",
                     "${recipient}"};
        if (!DemarrePostfix(&sst_Postfix, st)) ss_Pret = "Postfix: " + sst_Postfix.s_Erreur;
    }
    static void TearDownTestSuite() {
        ArreteServeur(&sst_Postfix);
        ArreteServeur(&sst_Cyrus);
        ArreteServeur(&sst_Annuaire);
    }

    std::size_t t_Journal = 0;        // log size when the case (or row) began
    std::map<std::string, std::size_t> m_Avant;  // stored messages per mailbox then

    void SetUp() override {
        ASSERT_EQ(ss_Pret, "");
        Repere();
    }
    void TearDown() override {
        if (!ss_Pret.empty()) return;
        EXPECT_TRUE(AttendFileVide(sst_Postfix, 5)) << FilePostfix(sst_Postfix);
        std::string s_Journal = JournalPostfix(sst_Postfix);
        EXPECT_EQ(Lignes(s_Journal, "status=bounced"), V{}) << s_Journal;
        EXPECT_EQ(Lignes(s_Journal, "non-delivery notification"), V{});
        EXPECT_EQ(LitFichier(sst_Postfix.s_Capture), "");
    }
    void Repere() {
        t_Journal = JournalPostfix(sst_Postfix).size();
        for (const std::string &b : BOITES) m_Avant[b] = MessagesStockes(sst_Cyrus, b).size();
    }
    std::string Journal() const { return JournalPostfix(sst_Postfix).substr(t_Journal); }
    static void RemiseDeBob(const std::string &s_Remise) {
        EXPECT_TRUE(ModifieAnnuaire(sst_Annuaire, "dn: uid=bob," + std::string(SUFFIXE_ANNUAIRE_ESSAI) +
                                                      "\nchangetype: modify\nreplace: ravokVixRemise\n"
                                                      "ravokVixRemise: " + s_Remise + "\n"));
    }

    // Submits a message from alice (dated, so that Postfix adds no date); its queue id.
    std::string Soumet(const V &v_Dest, const std::string &s_Nom, const std::string &s_Sujet,
                       const std::string &s_Corps = "corps\n") {
        std::string s_Id = SoumetSmtp(&sst_Postfix, EMETTEUR, v_Dest,
                                      "Message-ID: <" + s_Nom + "@dept.vorane.example>\nFrom: Alice Martin <" +
                                          EMETTEUR + ">\nTo: " + v_Dest[0] + "\nSubject: " + s_Sujet +
                                          "\nDate: Mon, 23 Nov 2026 10:00:00 +0100\n\n" + s_Corps);
        EXPECT_NE(s_Id, "") << sst_Postfix.s_Erreur;
        return s_Id;
    }
    // Waits until the message and all the program submitted for it have left
    // the queue; the message's log lines.
    std::string Livre(const std::string &s_Id, std::size_t t_Depuis) {
        std::string s = AttendMessage(sst_Postfix, s_Id, 30, t_Depuis);
        EXPECT_TRUE(AttendFileVide(sst_Postfix)) << FilePostfix(sst_Postfix);
        return s;
    }
    // The messages stored in the mailbox since the case (or row) began.
    V Nouveaux(const std::string &s_Boite) {
        V v = MessagesStockes(sst_Cyrus, s_Boite);
        v.erase(v.begin(), v.begin() + static_cast<long>(std::min(m_Avant[s_Boite], v.size())));
        return v;
    }
    // Mailboxes that received messages since then, with their number.
    std::map<std::string, std::size_t> Arrivees() {
        std::map<std::string, std::size_t> m;
        for (const std::string &b : BOITES)
            if (std::size_t n = Nouveaux(b).size(); n > 0) m[b] = n;
        return m;
    }
};
AnnuaireEssai ChainePostfix::sst_Annuaire;
CyrusEssai ChainePostfix::sst_Cyrus;
PostfixEssai ChainePostfix::sst_Postfix;
std::string ChainePostfix::ss_Pret;

// One transaction to a mailbox, a list, a recipient whose restriction
// refuses alice, one with an automatic reply and one the store refuses: one
// run for all, each recipient delivered once.  The mailbox holds the message
// once with the rewritten header (the store keeps 8-bit header bytes as "X")
// and the body as sent, dot lines included.  What the run submits comes back
// as the pipe user: the list copy (sender alice) to the member, the
// restriction and store-refusal notices and the reply (null sender) to alice.
// The delivery marker and the reply's frequency file are the pipe user's.
TEST_F(ChainePostfix, UneTransactionToutesLesSuites) {
    const std::string s_Frequence = SPOOL + "Absences/AvisAbs..absent.." + EMETTEUR + ".txt";
    std::filesystem::remove(s_Frequence);
    std::filesystem::remove(SPOOL + "Remises/bob");
    const std::string s_Corps = "premiere ligne\n.\n..\n.x\n...\n x.\n. \n\n.\n";
    std::string s_Id = Soumet({"bob@vorane.example", "liste@vorane.example", "prive@vorane.example",
                               "absent@vorane.example", "sansboite@vorane.example"},
                              "toutes", "Caf\xe9 cr\xe8me", s_Corps);
    std::string s_Log = Livre(s_Id, t_Journal);
    std::set<std::string> st_Pids;
    static const std::regex r_Pid("status=sent \\(delivered via vorane service \\(remise-vorane\\[([0-9]+)\\]");
    for (const std::string &s : Lignes(s_Log, "relay=vorane,"))
        if (std::smatch m; std::regex_search(s, m, r_Pid)) st_Pids.insert(m[1]);
    EXPECT_EQ(Lignes(s_Log, "status=sent (delivered via vorane service").size(), 5u) << s_Log;
    EXPECT_EQ(st_Pids.size(), 1u) << s_Log;
    static const std::regex r_Pickup("postfix/pickup\\[[0-9]+\\]: [0-9A-F]+: (uid=[0-9]+ from=<[^>]*>)");
    V v_Soumis;
    for (const std::string &s : Lignes(Journal(), "postfix/pickup["))
        if (std::smatch m; std::regex_search(s, m, r_Pickup)) v_Soumis.push_back(m[1]);
    std::sort(v_Soumis.begin(), v_Soumis.end());
    EXPECT_EQ(v_Soumis, (V{"uid=65534 from=<>", "uid=65534 from=<>", "uid=65534 from=<>",
                           "uid=65534 from=<" + EMETTEUR + ">"}));
    EXPECT_EQ(Arrivees(), (std::map<std::string, std::size_t>{{"absent", 1}, {"alice", 3}, {"bob", 1}, {"carol", 1}}));

    V v_Bob = Nouveaux("bob");
    ASSERT_EQ(v_Bob.size(), 1u);
    EXPECT_EQ(SansCr(v_Bob[0]).rfind("Return-Path: <" + EMETTEUR + ">\n", 0), 0u);
    EXPECT_EQ(Recu(v_Bob[0]), "X-Remise-Vorane: v1.1.0; le <date>;\n"
                              "\t+ mdf=0; lda=1; ea=0; eab=0; fdv=1;\n"
                              "\t+ sujet original: CafX crXme\n"
                              "\t+ from original: Alice Martin <alice@dept.vorane.example>\n"
                              "Received: from client.essai (localhost [127.0.0.1])\n"
                              "\tby relais.vorane.example (Postfix) with ESMTP id <id>;\n"
                              "\t<date>\n"
                              "Message-ID: <toutes@dept.vorane.example>\n"
                              "From: \"alice@dept.vorane.example\"\n"
                              "\t<alice@dept.vorane.example>\n"
                              "To: bob@vorane.example\n"
                              "Subject: =?iso8859-15?Q?Caf=E9_cr=E8me?=\n"
                              "Date: <date>\n"
                              "\n" + s_Corps + "\n");
    EXPECT_NE(Recu(Nouveaux("carol").at(0)).find("\nTo: bob@vorane.example\n"), std::string::npos);

    // Alice's three, told apart by their subject.
    std::string s_Alice;
    for (const std::string &s : Nouveaux("alice")) s_Alice += Recu(s);
    for (const char *pc :
         {"\nSubject: =?ISO-8859-1?Q?Non_remis_=28restriction=29_=3A_Caf=E9_cr=E8me_?=\n",
          "\n\nUne restriction de remise a emp\xea" "ch\xe9 la remise du message \xe0 \"Pierre Priv\xe9\" "
          "<mailto:prive@vorane.example>\n\n",
          "\nSubject: =?UTF-8?Q?R=C3=A9ponse_automatique_=3A_Caf=C3=A9_cr=C3=A8me_?=\n",
          "\n\nJe suis absent.\n\n",
          "\nSubject: =?ISO-8859-1?Q?Non_remis_=28incident=29_=3A_Caf=E9_cr=E8me_?=\n",
          "\n\nLes destinataires suivants n'ont pas recu votre message:\n\n"
          "Destinataire <sansboite@vorane.example>, r\xe9ponse du serveur :\n"
          "550-Mailbox unknown.  Either there is no mailbox associated with this\n"
          "550-name or you do not have authorization to see it.\n"
          "550 5.1.1 User unknown\n\n\n\n"})
        EXPECT_NE(s_Alice.find(pc), std::string::npos) << pc << "\n" << s_Alice;
    for (const std::string &f : {s_Frequence, SPOOL + "Remises/bob"}) {
        struct stat st;
        ASSERT_EQ(stat(f.c_str(), &st), 0) << f;
        EXPECT_EQ(st.st_uid, NOBODY) << f;
    }
}

// A directory or a store that stops answering (connections accepted,
// nothing answered), or an entry that says ATTENTE: the run gives the
// message back (75) within its own limits, before the pipe's would kill it
// and bounce the message; Postfix logs the deferral (4.3.0) with the
// program's last report and keeps the message.
// The run's dump files are the pipe user's, 0600: the directory attempts'
// warnings share one, the report that ends the run has its own.  Once the
// peer answers again a flush delivers the message, once.
TEST_F(ChainePostfix, PairFigeMessageGardeEnFile) {
    struct Cas {
        const char *pc_Nom;
        void (*pf_Fige)(), (*pf_Reprend)();
        std::string s_Fin;  // the last report, in Postfix's log
        V v_Dumps;          // how each dump file begins
    };
    const std::string s_2576 = "v1.1.0/2576: Erreur connection LDAP sur <" + sst_Annuaire.s_Hote + ">. ",
                      // cr=110 (ETIMEDOUT): the store's greeting never came.
                      s_4549 = "v1.1.0/4549: Trop d'essais Remise_LMTP sur " + sst_Cyrus.s_Socket + ", cr=110. ";
    const Cas t_Cas[] = {
        {"annuaire", [] { SuspendServeur(sst_Annuaire); }, [] { ReprendServeur(sst_Annuaire); }, " !ERR:2, " + s_2576,
         {"ATT.v1.1.0/2556: Erreur ldap_simple_bind_s, ld_errno=-5 (Timed out). ", "ERR." + s_2576}},
        {"magasin", [] { SuspendServeur(sst_Cyrus); }, [] { ReprendServeur(sst_Cyrus); }, " !ERR:2, " + s_4549,
         {"ERR." + s_4549}},
        // bob's entry says ATTENTE until it says LMTP again: no report, no dump.
        {"attente", [] { RemiseDeBob("ATTENTE"); }, [] { RemiseDeBob("LMTP"); },
         "]: message-id=<attente@dept.vorane.example>, from=<" + EMETTEUR + ">", {}},
    };
    static const std::regex r_Pid("Command output: remise-vorane\\[([0-9]+)\\]: ");
    for (const Cas &c : t_Cas) {
        SCOPED_TRACE(c.pc_Nom);
        Repere();
        c.pf_Fige();
        std::string s_Id = Soumet({"bob@vorane.example"}, c.pc_Nom, c.pc_Nom), s_Log;
        const std::string s_Marque = "\"queue_name\": \"deferred\", \"queue_id\": \"" + s_Id + "\"";
        auto t_Fin = std::chrono::steady_clock::now() + std::chrono::seconds(2 * DELAI_PIPE);
        while (FilePostfix(sst_Postfix).find(s_Marque) == std::string::npos &&
               std::chrono::steady_clock::now() < t_Fin)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (const std::string &s : Lignes(Journal(), ": " + s_Id + ": ")) s_Log += s + "\n";
        V v = Lignes(s_Log, "dsn=4.3.0, status=deferred (temporary failure.");
        std::smatch m;
        bool b_Pid = v.size() == 1 && std::regex_search(v[0], m, r_Pid);
        EXPECT_TRUE(b_Pid) << s_Log << FilePostfix(sst_Postfix);
        EXPECT_NE(s_Log.find(c.s_Fin), std::string::npos) << s_Log;

        V v_Dumps;
        for (const char *pc : {"ATT", "ERR"})
            for (const std::string &f : FichiersCommencantPar(
                     SPOOL + "Erreurs", std::string(pc) + ".remise." + (b_Pid ? m[1].str() : "?") + ".")) {
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
        EXPECT_EQ(Lignes(Livre(s_Id, t_Relance), "status=sent").size(), 1u);
        EXPECT_EQ(Arrivees(), (std::map<std::string, std::size_t>{{"bob", 1}}));
    }
}

}  // namespace
