// The whole program as Postfix runs it, delivering into a real Cyrus lmtpd
// over its Unix socket, with a real slapd as the directory.  Each test reads
// the message back from the mailbox files to prove it arrived whole, once,
// in the right mailbox, or that the store's refusal reached standard error.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "serveurs_essai.h"
#include "capture_essai.h"
#include "processus.h"

namespace {

const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string EMETTEUR = "ext@partenaire.test";

// Mailboxes of the store, one set per test so that counts stay readable;
// m101 to m120 take one transaction whose final replies exceed one read.
std::vector<std::string> Boites() {
    std::vector<std::string> v = {"alice", "carole", "gilles", "helene", "plein", "juste"};
    for (int i = 101; i <= 120; i++) v.push_back("m" + std::to_string(i));
    return v;
}

// The directory: every mailbox (uid = mailbox name), one LMTP entry without
// a mailbox in the store, and the external sender.
std::string Entrees() {
    std::vector<std::string> v = Boites();
    v.push_back("fantome");
    std::string s;
    for (const std::string &b : v)
        s += EntreeLdif("uid=" + b, "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: " + b +
                                        "\ncn: " + b + "\nsn: " + b + "\nmail: " + b +
                                        "@vorane.example\nravokVixRemise: LMTP\n");
    return s + EntreeLdif("uid=ext", "objectClass: inetOrgPerson\nuid: ext\ncn: Jean Externe\nsn: E\n"
                                     "mail: ext@partenaire.test\n");
}

// A Message-ID unique within this test process (each has its own store).
std::string NouvelId() {
    static int si_Compteur = 0;
    return "cyrus-" + std::to_string(getpid()) + "-" + std::to_string(++si_Compteur) +
           "@partenaire.test";
}

// A message as Postfix hands it over (flag R: Return-Path first), from the
// external sender through an internet relay.
std::string Message(const std::string &s_Id, const std::string &s_Sujet, const std::string &s_Corps,
                    const std::string &s_EnPlus = "") {
    return "Return-Path: <" + EMETTEUR + ">\n"
           "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
           "Date: Sun, 22 Nov 2026 10:00:00 +0100\n"
           "Message-ID: <" + s_Id + ">\n"
           "From: Jean Dupont <" + EMETTEUR + ">\n"
           "To: destinataires@vorane.example\n"
           "Subject: " + s_Sujet + "\n" + s_EnPlus + "\n" + s_Corps;
}

// The header the program hands to the store for Message(): the trace
// header, the origin line and the rebuilt From and Reply-to (the date of
// the trace header as "<date>").
std::string EnteteLivre(const std::string &s_Id, const std::string &s_Sujet) {
    return "X-Remise-Vorane: v1.1.0; le <date>;\n"
           "\t+ mdf=0; lda=1; ea=1; eab=0; fdv=0;\n"
           "\t+ from original: Jean Dupont <ext@partenaire.test>\n"
           "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
           "Date: Sun, 22 Nov 2026 10:00:00 +0100\n"
           "Message-ID: <" + s_Id + ">\n"
           "From: \"> Jean Externe (par Internet)\"\n\t<ext@partenaire.test>\n"
           "X-ravokOrigine: par Internet\n"
           "Reply-to: \"Jean Externe\"\n\t<ext@partenaire.test>\n"
           "To: destinataires@vorane.example\n"
           "Subject: " + s_Sujet + "\n";
}

// Replaces the date of the trace header by "<date>" after checking its form.
std::string SansDate(const std::string &s) {
    static const std::regex r(
        "v1\\.1\\.0; le [0-3][0-9]/[01][0-9]/20[0-9][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9];");
    return std::regex_replace(s, r, "v1.1.0; le <date>;");
}

// Where two long texts first differ ("" when equal): a 10 MB comparison
// must not print 10 MB.
std::string Difference(const std::string &a, const std::string &b) {
    if (a == b) return "";
    std::size_t i = std::mismatch(a.begin(), a.begin() + std::min(a.size(), b.size()), b.begin()).first -
                    a.begin();
    auto Extrait = [&](const std::string &s) {
        std::size_t d = i < 40 ? 0 : i - 40;
        return "\"" + s.substr(d, 80) + "\"";
    };
    return "sizes " + std::to_string(a.size()) + " / " + std::to_string(b.size()) +
           ", first difference at byte " + std::to_string(i) + ": " + Extrait(a) + " / " +
           Extrait(b);
}

// Pids of the store's processes run as the program named (its argv[0] ends
// with it) with the store's configuration.
std::vector<pid_t> ProcessusCyrus(const CyrusEssai &st, const std::string &s_Programme) {
    std::vector<pid_t> v;
    const std::string s_Conf = std::string("\0-C\0", 4) + st.s_Conf + '\0';
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator("/proc", ec)) {
        std::string s_Pid = e.path().filename().string();
        if (s_Pid.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string s_Cmd = LitFichier(e.path().string() + "/cmdline");  // empty once it has ended
        std::string s_Argv0 = s_Cmd.substr(0, s_Cmd.find('\0'));
        bool b_Nom = s_Argv0.size() >= s_Programme.size() &&
                     s_Argv0.compare(s_Argv0.size() - s_Programme.size(), std::string::npos,
                                     s_Programme) == 0;
        if (b_Nom && s_Cmd.find(s_Conf) != std::string::npos) v.push_back(std::stoi(s_Pid));
    }
    return v;
}

// Adds a setting to the store's configuration and waits until it applies:
// SIGHUP makes the master end its idle lmtpd processes, which read their
// configuration once, and the next connection starts a fresh one.
bool ReglageCyrus(const CyrusEssai &st, const std::string &s_Ligne) {
    std::vector<pid_t> v_Master = ProcessusCyrus(st, "/master");
    std::vector<pid_t> v_Anciens = ProcessusCyrus(st, "lmtpd");
    if (v_Master.size() != 1) return false;
    FILE *pf = fopen(st.s_Conf.c_str(), "a");
    if (pf == nullptr) return false;
    bool b_Ecrit = fputs((s_Ligne + "\n").c_str(), pf) >= 0;
    if (fclose(pf) != 0 || !b_Ecrit || kill(v_Master[0], SIGHUP) != 0) return false;
    for (int i = 0; i < 200; i++) {
        std::vector<pid_t> v = ProcessusCyrus(st, "lmtpd");
        if (std::none_of(v.begin(), v.end(), [&](pid_t p) {
                return std::find(v_Anciens.begin(), v_Anciens.end(), p) != v_Anciens.end();
            }))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

class Cyrus : public ::testing::Test {
protected:
    static AnnuaireEssai sst_Annuaire;
    static CyrusEssai sst_Cyrus;

    static void SetUpTestSuite() {
        ASSERT_TRUE(DemarreAnnuaire(&sst_Annuaire, Entrees())) << sst_Annuaire.s_Erreur;
        ASSERT_TRUE(DemarreCyrus(&sst_Cyrus)) << sst_Cyrus.s_Erreur;
        std::vector<std::string> v;
        for (const std::string &b : Boites()) v.push_back("CREATE user." + b);
        ASSERT_TRUE(CommandesImap(&sst_Cyrus, v)) << sst_Cyrus.s_Erreur;
    }
    static void TearDownTestSuite() {
        ArreteCyrus(&sst_Cyrus);
        ArreteAnnuaire(&sst_Annuaire);
    }

    // Runs the program as Postfix's pipe transport does.
    ResultatProcessus Lance(const std::vector<std::string> &v_Dest, const std::string &s_Message,
                            const std::vector<std::string> &v_Options = {},
                            const std::string &s_Emetteur = EMETTEUR) {
        std::vector<std::string> v = {PROG, "-r", sst_Cyrus.s_Socket, "-l", sst_Annuaire.s_Hote};
        v.insert(v.end(), v_Options.begin(), v_Options.end());
        v.insert(v.end(), {"-e", s_Emetteur, "-d"});
        v.insert(v.end(), v_Dest.begin(), v_Dest.end());
        return LanceProgramme(v, s_Message, 60);
    }

    // Number of messages stored in a mailbox.
    static std::size_t Nombre(const std::string &s_Boite) {
        return MessagesStockes(sst_Cyrus, s_Boite).size();
    }
    // The newest message of a mailbox ("" when it has none).
    static std::string Dernier(const std::string &s_Boite) {
        std::vector<std::string> v = MessagesStockes(sst_Cyrus, s_Boite);
        return v.empty() ? "" : v.back();
    }
};
AnnuaireEssai Cyrus::sst_Annuaire;
CyrusEssai Cyrus::sst_Cyrus;

// Bodies that Postfix never hands over (lines of dots come through it in
// the chain tests): no final line feed after a dot line, no body at all.
// Each arrives byte for byte behind the rewritten header.
TEST_F(Cyrus, CorpsPointsIntacts) {
    struct Cas {
        const char *pc_Nom;
        std::string s_Corps;
    };
    const Cas tst_Cas[] = {
        {"sans saut final", "ligne\n.fin"},
        {"corps vide", ""},
    };
    for (const Cas &c : tst_Cas) {
        SCOPED_TRACE(c.pc_Nom);
        std::size_t n = Nombre("alice");
        std::string s_Id = NouvelId();
        ResultatProcessus r = Lance({"alice@vorane.example"}, Message(s_Id, "points", c.s_Corps));
        ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
        ASSERT_EQ(Nombre("alice"), n + 1);
        std::string s_Stocke = SansCr(Dernier("alice"));
        // Cyrus's own trace lines come first, with its Return-Path from the
        // envelope; the program's Return-Path line is not sent.
        EXPECT_EQ(s_Stocke.compare(0, 35, "Return-Path: <ext@partenaire.test>\n"), 0) << s_Stocke;
        std::size_t p = s_Stocke.find("X-Remise-Vorane: ");
        ASSERT_NE(p, std::string::npos) << s_Stocke;
        std::string s_Cyrus = s_Stocke.substr(0, p);
        EXPECT_EQ(s_Cyrus.find("Return-Path:", 1), std::string::npos) << s_Cyrus;
        std::string s_Livre = SansDate(s_Stocke.substr(p));
        // The end of data's own line feed ends a last line without one, or
        // adds an empty line.
        std::string s_Attendu = EnteteLivre(s_Id, "points") + "\n" + c.s_Corps + "\n";
        EXPECT_EQ(Difference(s_Livre, s_Attendu), "");
    }
}

// A 10 MB body with dot lines (many of them where one piece of the body
// read ends and the next begins) and 8-bit bytes streams through whole.
TEST_F(Cyrus, CorpsDixMegaoctets) {
    std::string s_Corps;
    s_Corps.reserve(10 * 1024 * 1024 + 300);
    unsigned int u = 12345;
    while (s_Corps.size() < 10u * 1024 * 1024) {
        u = u * 1103515245u + 12345u;
        std::size_t t_Long = (u >> 16) % 200;
        std::string s_Ligne = (u & 7) == 0 ? "." : (u & 7) == 1 ? ".." : "";
        for (std::size_t i = s_Ligne.size(); i < t_Long; i++)
            s_Ligne += static_cast<char>(i % 97 == 5 ? '\xe9' : 'a' + (i + u) % 26);
        s_Corps += s_Ligne + "\n";
    }
    std::string s_Id = NouvelId();
    ResultatProcessus r = Lance({"carole@vorane.example"}, Message(s_Id, "gros", s_Corps));
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    ASSERT_EQ(Nombre("carole"), 1u);
    MessageStocke st = DecoupeMessage(Dernier("carole"));
    EXPECT_NE(st.s_Entete.find("\nMessage-ID: <" + s_Id + ">\n"), std::string::npos);
    EXPECT_EQ(Difference(st.s_Corps, s_Corps + "\n"), "");
}

// Twenty mailbox recipients (one written in capitals) in one transaction:
// lmtpd's final replies (one line per recipient) no longer fit in one read
// and are read over two, QUIT's reply after them.
// Every mailbox gets exactly one copy of the rewritten message and its
// delivery marker, and the run ends with 0 and its one information line.
TEST_F(Cyrus, VingtBoitesUneTransaction) {
    const std::string s_Remises = std::string(RACINE_SPOOL_ESSAI) + "Remises/";
    std::vector<std::string> v_Boites = Boites(), v_Dest;
    v_Boites.erase(v_Boites.begin(), v_Boites.end() - 20);  // m101 to m120
    for (const std::string &b : v_Boites) {
        std::filesystem::remove(s_Remises + b);
        v_Dest.push_back(b + "@vorane.example");
    }
    v_Dest[1] = "M102@Vorane.Example";
    std::string s_Id = NouvelId();
    ResultatProcessus r = Lance(v_Dest, Message(s_Id, "vingt", "pour vingt\n"));
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(r.s_Erreur, "remise-vorane[" + std::to_string(r.i_Pid) + "]: message-id=<" + s_Id +
                              ">, from=<ext@partenaire.test>, to=<->(-/20)\n");
    for (const std::string &b : v_Boites) {
        SCOPED_TRACE(b);
        std::vector<std::string> v = MessagesStockes(sst_Cyrus, b);
        ASSERT_EQ(v.size(), 1u);
        std::string s_Livre = SansDate(SansCr(v[0]));
        std::size_t p = s_Livre.find("X-Remise-Vorane: ");
        ASSERT_NE(p, std::string::npos) << s_Livre;
        EXPECT_EQ(s_Livre.substr(p), EnteteLivre(s_Id, "vingt") + "\npour vingt\n\n");
        EXPECT_TRUE(std::filesystem::exists(s_Remises + b));
    }
}

// Recipients the store refuses among others it knows, before and after the
// data.  With its default settings the store weighs a quota at the
// recipient command against what the mailbox already holds: a message that
// takes a mailbox past its quota is taken whole, and the next one is refused
// there (452).  Among four recipients, one whose mailbox it does not know
// and that full one: the two others are delivered, the refused ones get
// nothing, the run ends with 0, and one notice tells the sender, with
// lmtpd's three-line 550 reply as received and the full mailbox named.
// With strict quotas it weighs the message itself after the data, and
// refuses it there for that mailbox alone: the mailboxes before and after
// it in the transaction keep their copy and the notice names it.
TEST_F(Cyrus, DestinatairesRefusesParmiDautres) {
    const std::string TETE = "Les destinataires suivants n'ont pas recu votre message:\n\n";
    const std::string CORPS = std::string(3000, 'r') + "\n";  // more than 2 KB
    ASSERT_TRUE(CommandesImap(&sst_Cyrus, {"SETQUOTA user.plein (STORAGE 1)",
                                           "SETQUOTA user.juste (STORAGE 2)"}))
        << sst_Cyrus.s_Erreur;
    Capture cap;
    ResultatProcessus r = Lance({"plein@vorane.example"}, Message(NouvelId(), "remplissage", CORPS));
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    ASSERT_EQ(Nombre("plein"), 1u);
    EXPECT_EQ(cap.Appels().size(), 0u);

    r = Lance({"gilles@vorane.example", "fantome@vorane.example", "plein@vorane.example",
               "helene@vorane.example"},
              Message(NouvelId(), "refus", "corps\n"));
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(Nombre("gilles"), 1u);
    EXPECT_EQ(Nombre("helene"), 1u);
    EXPECT_EQ(Nombre("plein"), 1u);
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 1u) << r.s_Erreur;
    EXPECT_EQ(a[0].Destinataires(), std::vector<std::string>{EMETTEUR});
    std::string s = a[0].s_Entree;
    EXPECT_EQ(s.substr(s.find("\n\n") + 2),
              TETE + "Destinataire <fantome@vorane.example>, r\xe9ponse du serveur :\n"
              "550-Mailbox unknown.  Either there is no mailbox associated with this\r\n"
              "550-name or you do not have authorization to see it.\r\n"
              "550 5.1.1 User unknown\r\n\n"
              "Destinataire <plein@vorane.example>, r\xe9ponse du serveur :\n"
              "Bo\xeete pleine, message refus\xe9 ...\n\n");

    ASSERT_TRUE(ReglageCyrus(sst_Cyrus, "lmtp_strict_quota: 1"));
    r = Lance({"gilles@vorane.example", "juste@vorane.example", "helene@vorane.example"},
              Message(NouvelId(), "strict", CORPS));
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(Nombre("gilles"), 2u);
    EXPECT_EQ(Nombre("juste"), 0u);
    EXPECT_EQ(Nombre("helene"), 2u);
    a = cap.Appels();
    ASSERT_EQ(a.size(), 2u) << r.s_Erreur;
    s = a[1].s_Entree;
    EXPECT_EQ(s.substr(s.find("\n\n") + 2),
              TETE + "Destinataire <juste@vorane.example>, r\xe9ponse du serveur :\n"
              "Bo\xeete pleine, message refus\xe9 ...\n\n");
}

// What lmtpd refuses for good, for every recipient: a header line without a
// colon and a NUL byte in the body ("554 5.6.0" after the data; the NUL
// must reach the store, not cut the line), and envelope senders it refuses
// at "mail from:" ("501 5.5.4 Syntax error in parameters": a UTF-8 local
// part, an unquoted blank).  Nothing is stored, the run ends with 0, and
// the sender's notice carries the store's answer.
TEST_F(Cyrus, RefusDefinitifs) {
    struct Cas {
        std::string s_Emetteur, s_EnPlus, s_Corps, s_Rapport;
    };
    const std::string FIN_DATA = "Votre message n'a pas pu etre remis\n"
                                 "La reponse du serveur en fin de DATA est:\n\n"
                                 "554 5.6.0 Message contains ";
    const Cas tst[] = {
        {EMETTEUR, "Ceci n'est pas un champ\n", "corps\n", FIN_DATA + "invalid header\r\n"},
        {EMETTEUR, "", std::string("cor\0ps\n", 7), FIN_DATA + "NUL characters\r\n"},
        {"j\xc3\xa9r\xc3\xb4me@partenaire.test", "", "corps\n",
         "Message rejet\xe9, adresse SMTP d'\xe9mission <j\xc3\xa9r\xc3\xb4me@partenaire.test> "
         "non valable"},
        {"jean dupont@partenaire.test", "", "corps\n",
         "Message rejet\xe9, adresse SMTP d'\xe9mission <jean dupont@partenaire.test> non valable"},
    };
    for (const Cas &c : tst) {
        SCOPED_TRACE(c.s_Rapport);
        Capture cap;
        std::size_t n = Nombre("alice");
        ResultatProcessus r = Lance({"alice@vorane.example"},
                                    Message(NouvelId(), "refus", c.s_Corps, c.s_EnPlus), {},
                                    c.s_Emetteur);
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_EQ(Nombre("alice"), n);
        std::vector<Appel> a = cap.Appels();
        ASSERT_EQ(a.size(), 1u) << r.s_Erreur;
        EXPECT_EQ(a[0].Destinataires(), std::vector<std::string>{c.s_Emetteur});
        EXPECT_EQ(a[0].s_Entree.substr(a[0].s_Entree.find("\n\n") + 2), c.s_Rapport + "\n");
    }
}

}  // namespace
