// Replies and notices of the whole program, with the capture program
// standing in for sendmail and a real slapd: the exact messages submitted,
// every guard that suppresses one, the frequency files, the main-server
// rule, and the notices of the incidents and of the store's refusals.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <unistd.h>
#include <string>
#include <utime.h>
#include <vector>

#include "serveurs_essai.h"
#include "capture_essai.h"
#include "journal_essai.h"
#include "processus.h"
#include "serveur_lmtp.h"

namespace {

namespace fs = std::filesystem;
const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string ABSENCES = std::string(RACINE_SPOOL_ESSAI) + "Absences";

// A recipient of the suite: uid, delivery kind, further attribute lines.
std::string Entree(const std::string &s_Uid, const std::string &s_Remise,
                   const std::string &s_Plus) {
    return EntreeLdif("uid=" + s_Uid, "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\n"
                                      "uid: " + s_Uid + "\nsn: s\nmail: " + s_Uid +
                                          "@vorane.example\nravokVixRemise: " + s_Remise + "\n" +
                                          s_Plus);
}

const std::string ENTREES =
    Entree("absente", "LMTP",
           "cn: Alice Martin\nravokVixmailEmission: a.martin@vorane.example\n"
           "ravokVixReponse: 10~ TOUT:x FREQ:60 TEXTE:Je suis absente.%hA bientot\n") +
    Entree("frequente", "LMTP",
           "cn: c\nravokVixReponse: 10~ TOUT:x FREQ:60 TEXTE:Absente\n") +
    Entree("vacances", "NULL", "cn: c\nravokVixReponse: 10~ TOUT:x TEXTE:Absent\n") +
    Entree("repondeur", "NULL",
           "cn:: Qm9iIEzDqWdlcg==\nravokVixmailEmission: r@vorane.example\n"
           "ravokVixReponse: Absent\n"
           "ravokVixReponse: 10~ TOUT:x TEXTE:Absent\n"
           "ravokVixServeurPrincipal: MX1\n") +
    Entree("ferme", "LMTP",
           "cn:: Qm9iIEzDqWdlcg==\n"
           "ravokVixRestrictions: 10+ LDAP:(&(objectClass=ravokVixBoite)(mail=%s))\n"
           "ravokVixServeurPrincipal: MX1\n") +
    Entree("boite", "LMTP", "cn: c\n") + Entree("b2", "LMTP", "cn: c\n") + Entree("b3", "LMTP", "cn: c\n") +
    EntreeLdif("cn=hostile", "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\ncn: hostile\nsn: h\nuid: a/../..\n"
                             "mail: hostile@vorane.example\nravokVixRemise: NULL\n"
                             "ravokVixReponse: 10~ TOUT:x TEXTE:Absent\n") +
    EntreeLdif("uid=ext", "objectClass: inetOrgPerson\nuid: ext\ncn: Jean Externe\nsn: E\n"
                          "mail: ext@partenaire.test\n");

// A message from the external sender through an internet relay.
std::string Message(const std::string &s_EnPlus = "", const std::string &s_From =
                                                          "Jean Dupont <ext@partenaire.test>") {
    return "Return-Path: <ext@partenaire.test>\n"
           "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
           "Message-ID: <essai-1@partenaire.test>\n"
           "From: " + s_From + "\n"
           "To: destinataires@vorane.example\n"
           "Subject: essai\n" + s_EnPlus + "\ncorps\n";
}

// Accepts a transaction for n recipients.
std::vector<EtapeLmtp> Accepte(int n) {
    std::vector<EtapeLmtp> v = {Rep("220 lmtp ready\n"), Rep("250 2.1.0 ok\n")};
    for (int i = 0; i < n; i++) v.push_back(Rep("250 2.1.5 ok\n"));
    v.push_back(Rep("354 go ahead\n"));
    std::string s_Fin;
    for (int i = 0; i < n; i++) s_Fin += "250 2.1.5 Success\n";
    v.push_back(Rep(s_Fin));
    v.push_back(Rep("221 2.0.0 bye\n"));
    return v;
}

// The date and the host of a notice, and the dump file it names, as
// placeholders.
std::string Stable(const std::string &s) {
    static const std::regex r_Date("Date: [A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} 20[0-9]{2} "
                                   "[0-9:]{8} [-+][0-9]{4}\n");
    static const std::regex r_Hote("Serveur en cause: [^\n]*\n");
    static const std::regex r_Dump("Erreurs/ERR\\.remise\\.[0-9]+\\.[A-Za-z0-9]{6}");
    std::string t = std::regex_replace(s, r_Date, "Date: <date>\n");
    t = std::regex_replace(t, r_Hote, "Serveur en cause: <hote>\n");
    return std::regex_replace(t, r_Dump, "Erreurs/<dump>");
}

class Avis : public ::testing::Test {
protected:
    static AnnuaireEssai sst_Annuaire;
    static void SetUpTestSuite() {
        ASSERT_TRUE(DemarreAnnuaire(&sst_Annuaire, ENTREES)) << sst_Annuaire.s_Erreur;
    }
    static void TearDownTestSuite() { ArreteAnnuaire(&sst_Annuaire); }
    // Removes the frequency files of one recipient (tests run side by side
    // share the spool: each works with recipients of its own).
    static void VideAbsences(const std::string &s_Uid) {
        for (const std::string &s : FichiersCommencantPar(ABSENCES, "AvisAbs.." + s_Uid + ".."))
            fs::remove(s);
    }

    // Runs the program as Postfix does, sendmail being the capture.
    ResultatProcessus Lance(const std::vector<std::string> &v_Dest, const std::string &s_Message,
                            const std::vector<std::string> &v_Options = {},
                            const std::string &s_Emetteur = "ext@partenaire.test",
                            const std::string &s_Lmtp = "/nulle/part",
                            const std::vector<std::string> &v_Programme = {PROG}) {
        std::vector<std::string> v = v_Programme;
        v.insert(v.end(), {"-r", s_Lmtp, "-l", sst_Annuaire.s_Hote});
        v.insert(v.end(), v_Options.begin(), v_Options.end());
        v.insert(v.end(), {"-e", s_Emetteur, "-d"});
        v.insert(v.end(), v_Dest.begin(), v_Dest.end());
        return LanceProgramme(v, s_Message, 60);
    }
};
AnnuaireEssai Avis::sst_Annuaire;

// The three messages the program writes itself, byte for byte: an
// automatic reply (UTF-8, the incoming header in its text), a restriction
// notice and an incident notice (ISO-8859-1), each to the envelope sender
// with the null sender, its header lines in order.
TEST_F(Avis, MessagesExacts) {
    VideAbsences("absente");
    Capture cap;
    ServeurLmtpEssai st_Lmtp(Accepte(1), false);
    ResultatProcessus r = Lance({"absente@vorane.example", "ferme@vorane.example",
                                 "inconnu@vorane.example"},
                                Message(), {}, "ext@partenaire.test", st_Lmtp.Designation());
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 3u) << r.s_Erreur;
    for (const Appel &x : a)
        EXPECT_EQ(x.v_Argv, (std::vector<std::string>{CAPTURE, "-i", "-f", "", "--",
                                                      "ext@partenaire.test"}));
    const std::string RECEIVED =
        "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n";
    const std::string REFS = "References: <essai-1@partenaire.test>\n"
                             "In-Reply-To: <essai-1@partenaire.test>\n"
                             "To: Jean Dupont <ext@partenaire.test>\n";
    EXPECT_EQ(Stable(a[0].s_Entree),
              RECEIVED + "Message-Id: <absente.Reponse_automatique.essai-1@partenaire.test>\n"
              "Auto-Submitted: Auto-Replied\nPrecedence: bulk\n"
              "X-Loop: REMISE-VORANE, <Reponse_automatique>, <absente@vorane.example>\n"
              "Subject: =?UTF-8?Q?R=C3=A9ponse_automatique_=3A_essai_?=\n" + REFS +
              "From: \"Alice Martin\"\n\t<a.martin@vorane.example>\n"
              "Date: <date>\n"
              "MIME-Version: 1.0\nContent-Type: text/plain; charset=\"UTF-8\"\n"
              "Content-Transfer-Encoding: 8bit\n\n"
              "Je suis absente.\nReturn-Path: <ext@partenaire.test>\n" + RECEIVED +
              "Message-ID: <essai-1@partenaire.test>\nFrom: Jean Dupont <ext@partenaire.test>\n"
              "To: destinataires@vorane.example\nSubject: essai\n\n\nA bientot\n");
    EXPECT_EQ(Stable(a[1].s_Entree),
              RECEIVED + "Message-Id: <ferme.Non_remis__restriction_.essai-1@partenaire.test>\n"
              "Auto-Submitted: Auto-Replied\nPrecedence: bulk\n"
              "X-Loop: REMISE-VORANE, <Non_remis__restriction_>, <ferme@vorane.example>\n"
              "Subject: Non remis (restriction) : essai \n" + REFS +
              "From: \"Maitre postier, Service Courrier/VORANE\" <postmaster@vorane.example>\n"
              "Date: <date>\n"
              "MIME-Version: 1.0\nContent-Type: text/plain; charset=\"ISO-8859-1\"\n"
              "Content-Transfer-Encoding: 8bit\n\n"
              "Une restriction de remise a emp\xea" "ch\xe9 la remise du message \xe0 \"Bob L\xe9ger\" "
              "<mailto:ferme@vorane.example>\n");
    EXPECT_EQ(Stable(a[2].s_Entree),
              RECEIVED + "Auto-Submitted: Auto-Replied\nPrecedence: bulk\n"
              "X-Loop: REMISE-VORANE, <Non_remis__incident_>, <inconnu@vorane.example>\n"
              "Subject: Non remis (incident) : essai \n" + REFS +
              "From: \"Maitre postier, Service Courrier/VORANE\" <postmaster@vorane.example>\n"
              "Date: <date>\n"
              "MIME-Version: 1.0\nContent-Type: text/plain; charset=\"ISO-8859-1\"\n"
              "Content-Transfer-Encoding: 8bit\n\n"
              "Un incident technique grave a emp\xea" "ch\xe9 la remise du message \xe0  "
              "<mailto:inconnu@vorane.example>\n\nDescription du probleme de remise-vorane:\n"
              "v1.1.0/4198: Destinataire <inconnu@vorane.example> non trouve dans l'annuaire. "
              "message-id=<essai-1@partenaire.test>, from=<ext@partenaire.test>, "
              "to=<inconnu@vorane.example>(3/3)\n\nServeur en cause: <hote>\n"
              "Fichier d'infos pour debug: " + std::string(RACINE_SPOOL_ESSAI) + "Erreurs/<dump>\n");
    // The mailbox recipient is still delivered.
    EXPECT_NE(st_Lmtp.Recu().find("rcpt to:<absente>\nDATA\n"), std::string::npos);
}

// Each guard suppresses the automatic reply on its own; the counter-cases
// are answered.  The recipient's kind is NULL: nothing else is submitted.
TEST_F(Avis, GardesDesReponses) {
    struct Cas {
        const char *pc_Nom;
        std::string s_Emetteur, s_EnPlus;
        std::vector<std::string> v_Options;
        bool b_Reponse;
    };
    const Cas tst[] = {
        {"reponse", "ext@partenaire.test", "", {}, true},
        {"serveur principal", "ext@partenaire.test", "", {"-p", "mx0,mx1"}, true},
        {"autre serveur", "ext@partenaire.test", "", {"-p", "mx2"}, false},
        {"mailer-daemon", "MAILER-DAEMON@partenaire.test", "", {}, false},
        {"emetteur vide", "", "", {}, false},
        {"nobody", "nobody@partenaire.test", "", {}, false},
        {"proprietaire de liste", "liste-owner@partenaire.test", "", {}, false},
        {"owner- devant", "owner-liste@partenaire.test", "", {}, true},
        {"www-data", "www-data@partenaire.test", "", {}, false},
        {"robot", "robot-x@partenaire.test", "", {}, false},
        {"arobase en tete", "@partenaire.test", "", {}, false},
        {"auto-submitted", "ext@partenaire.test", "Auto-Submitted: auto-generated\n", {}, false},
        {"auto-submitted no", "ext@partenaire.test", "Auto-Submitted: no\n", {}, true},
        {"liste", "ext@partenaire.test", "List-Id: <l.partenaire.test>\n", {}, false},
        {"x-liste", "ext@partenaire.test", "X-List-Name: l\n", {}, false},
        {"precedence bulk", "ext@partenaire.test", "Precedence: bulk\n", {}, false},
        {"precedence listserv", "ext@partenaire.test", "Precedence: listserv\n", {}, false},
        {"precedence junk", "ext@partenaire.test", "Precedence: junk\n", {}, false},
        {"spam", "ext@partenaire.test", "X-Spam-Flag: YES\n", {}, false},
        {"boucle", "ext@partenaire.test", "X-Loop: REMISE-VORANE, <x>, <y>\n", {}, false},
        {"non authentifie", "x@autre.example", "", {}, false},
    };
    for (const Cas &c : tst) {
        SCOPED_TRACE(c.pc_Nom);
        VideAbsences("repondeur");
        Capture cap;
        ResultatProcessus r =
            Lance({"repondeur@vorane.example"}, Message(c.s_EnPlus), c.v_Options, c.s_Emetteur);
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_EQ(cap.Appels().size(), c.b_Reponse ? 1u : 0u) << r.s_Erreur;
    }
}

// The frequency file: created by a reply, it holds back the next one until
// the frequency has passed; its name keeps the escaped uid and sender (the
// part after ".-.") inside Absences/.
TEST_F(Avis, FichierDeFrequence) {
    VideAbsences("frequente");
    VideAbsences("a%2F%2E%2E%2F%2E%2E");
    const std::string s_Fichier = ABSENCES + "/AvisAbs..frequente..ext@partenaire.test.txt";
    for (int i_Run = 0; i_Run < 3; i_Run++) {
        Capture cap;
        ServeurLmtpEssai st_Lmtp(Accepte(1), false);
        ResultatProcessus r = Lance({"frequente@vorane.example"}, Message(), {},
                                    "liste.-.ext@partenaire.test", st_Lmtp.Designation());
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_EQ(cap.Appels().size(), i_Run == 1 ? 0u : 1u) << i_Run;
        ASSERT_TRUE(fs::exists(s_Fichier));
        // Older than the rule's 60 minutes: the next message is answered.
        struct utimbuf st = {time(nullptr) - 3601, time(nullptr) - 3601};
        if (i_Run == 1) utime(s_Fichier.c_str(), &st);
    }
    Capture cap;
    ResultatProcessus r = Lance({"hostile@vorane.example"}, Message(), {}, "../../x/y@.");
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(cap.Appels().size(), 1u);
    EXPECT_EQ(FichiersCommencantPar(ABSENCES, "AvisAbs..a%2F"),
              std::vector<std::string>(
                  {ABSENCES + "/AvisAbs..a%2F%2E%2E%2F%2E%2E..%2E%2E%2F%2E%2E%2Fx%2Fy@%2E.txt"}));
}

// A restriction whose directory test inserts the sender: an address made
// of filter syntax cannot widen the search, so "*" is refused with a
// notice; off the main server nothing is sent, and nothing is delivered.
TEST_F(Avis, RestrictionAnnuaire) {
    for (const char *pc_Serveurs : {"mx1", "mx2"}) {
        Capture cap;
        ServeurLmtpEssai st_Lmtp(Accepte(1), false);
        ResultatProcessus r = Lance({"ferme@vorane.example", "boite@vorane.example"},
                                    Message("", "*"), {"-p", pc_Serveurs}, "*",
                                    st_Lmtp.Designation());
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_EQ(cap.Appels().size(), pc_Serveurs[2] == '1' ? 1u : 0u) << pc_Serveurs;
        EXPECT_NE(st_Lmtp.Recu().find("mail from:<*>\nrcpt to:<boite>\nDATA\n"), std::string::npos);
    }
}

// The store refuses mailboxes among three, at the recipient command or in
// its replies after the data: the mailboxes answered 250 hold the message,
// the run ends with 0 after one attempt, and one notice names each refused
// mailbox with the store's reply (an over-quota refusal in words).  A first
// reply after the data that refuses the message for good ends the session
// without QUIT; a QUIT left unanswered once every reply is in is a warning.
TEST_F(Avis, RefusDuServeurLmtp) {
    const std::string TETE = "Les destinataires suivants n'ont pas recu votre message:\n\n";
    const std::string B2 = "Destinataire <b2@vorane.example>, r\xe9ponse du serveur :\n";
    const std::string PLEINE = "Bo\xeete pleine, message refus\xe9 ...\n";
    struct Cas {
        const char *pc_Nom;
        std::string s_Rcpt2;           // reply to the second recipient command
        std::string s_FinDonnees;      // the replies after the data
        EtapeLmtp st_Quit;
        std::string s_Fin;             // the last bytes the store receives
        const char *pc_Avertissement;  // the one report on standard error
        std::string s_Avis;            // body of the notice
    };
    const Cas tst[] = {
        {"refus_avant_les_donnees", "550 5.1.1 User unknown\n", "250 ok\n250 ok\n",
         Rep("221 bye\n"), "\n.\nQUIT\n", nullptr, TETE + B2 + "550 5.1.1 User unknown\n\n"},
        {"quota_apres_les_donnees", "250 ok\n",
         "250 ok\n452 4.2.2 Over quota SESSIONID=<s>\n250 ok\n", Rep("221 bye\n"),
         "\n.\nQUIT\n", nullptr, TETE + B2 + PLEINE},
        {"refus_et_temporaire_apres_les_donnees_quit_sans_reponse", "250 ok\n",
         "250 ok\n550 5.2.1 Mailbox disabled\n451 4.3.0 Try later\n", Ferme(), "\n.\nQUIT\n",
         "4, v1.1.0/1581: Erreur Read_LMTP pendant attente reponse quit, errno=104",
         TETE + B2 + "550 5.2.1 Mailbox disabled\n\n" +
             "Destinataire <b3@vorane.example>, r\xe9ponse du serveur :\n451 4.3.0 Try later\n\n"},
        {"message_refuse_puis_quota", "250 ok\n",
         "554 5.6.0 Message contains invalid header\n452 4.2.2 Over quota\n250 ok\n",
         Rep("221 bye\n"), "\n.\n",
         "4, v1.1.0/1551: Message non remis, reponse <554 5.6.0 Message contains invalid header\n>",
         "Votre message n'a pas pu etre remis\nLa reponse du serveur en fin de DATA est:\n\n"
         "554 5.6.0 Message contains invalid header\n" + B2 + PLEINE},
    };
    for (const Cas &c : tst) {
        SCOPED_TRACE(c.pc_Nom);
        Capture cap;
        ServeurLmtpEssai st_Lmtp({Rep("220 ready\n"), Rep("250 ok\n"), Rep("250 ok\n"),
                                  Rep(c.s_Rcpt2), Rep("250 ok\n"), Rep("354 go\n"),
                                  Rep(c.s_FinDonnees), c.st_Quit},
                                 false);
        ResultatProcessus r =
            Lance({"boite@vorane.example", "b2@vorane.example", "b3@vorane.example"}, Message(), {},
                  "ext@vorane.example", st_Lmtp.Designation());
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        std::string s_Recu = st_Lmtp.Recu();
        EXPECT_EQ(s_Recu.substr(s_Recu.size() - c.s_Fin.size()), c.s_Fin);
        std::size_t p = r.s_Erreur.find(" !ERR:");
        if (c.pc_Avertissement != nullptr) {
            EXPECT_EQ(r.s_Erreur.find(std::string(" !ERR:") + c.pc_Avertissement), p) << r.s_Erreur;
            p = r.s_Erreur.find(" !ERR:", p + 1);
        }
        EXPECT_EQ(p, std::string::npos) << r.s_Erreur;
        std::vector<Appel> a = cap.Appels();
        ASSERT_EQ(a.size(), 1u) << r.s_Erreur;
        std::string s = a[0].s_Entree;
        EXPECT_NE(s.find("Subject: Non remis (incident) : essai \n"), std::string::npos) << s;
        EXPECT_EQ(s.substr(s.find("\n\n") + 2), c.s_Avis + "\n");
    }
}

// A report raised while an incident notice is being sent (its sendmail
// refuses it for good) sends no second notice: the message goes back to
// its sender through Postfix (65).
TEST_F(Avis, IncidentPendantUnAvis) {
    Capture cap;
    cap.StatutAppel(1, 67);
    ResultatProcessus r = Lance({"inconnu@vorane.example"}, Message());
    EXPECT_EQ(r.i_Statut, 65) << r.s_Erreur;
    EXPECT_EQ(cap.Appels().size(), 1u);
    EXPECT_NE(r.s_Erreur.find(" !ERR:3, v1.1.0/1891: Erreur sur pclose"), std::string::npos);
}

// A spool that cannot hold a dump (Erreurs/ a plain file and the other
// directories missing, or a file system that takes no byte more) loses no
// notice, no reply and no delivery; no cut dump file is left behind.  The
// site learns it once per run from the system log, never on standard
// error (which Postfix would quote in its own log or bounce).
TEST_F(Avis, SpoolInutilisable) {
    char pc_Rep[] = "/tmp/journal-avis.XXXXXX";
    ASSERT_NE(mkdtemp(pc_Rep), nullptr);
    ASSERT_TRUE(JournalPrive(pc_Rep, true)) << "no private system logger";
    struct Cas {
        std::vector<std::string> v_Programme;
        std::string s_Cause;
    };
    const Cas t_Cas[] = {
        {{CHEMIN_REMISE_VORANE_SANS_SPOOL},
         "spool-inutilisable/Erreurs/>, errno=20 (Not a directory)"},
        {{"/usr/bin/prlimit", "--fsize=0:unlimited", "/usr/bin/env", "--ignore-signal=XFSZ", PROG},
         "spool/Erreurs/>, errno=27 (File too large)"}};
    for (const Cas &c : t_Cas) {
        SCOPED_TRACE(c.v_Programme[0]);
        VideAbsences("vacances");
        Capture cap;
        ServeurLmtpEssai st_Lmtp(Accepte(1), false);
        ResultatProcessus r = Lance({"inconnu@vorane.example", "vacances@vorane.example",
                                     "boite@vorane.example", "inconnu2@vorane.example"},
                                    Message(), {}, "ext@partenaire.test", st_Lmtp.Designation(),
                                    c.v_Programme);
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_NE(st_Lmtp.Recu().find("rcpt to:<boite>\nDATA\n"), std::string::npos);
        std::vector<Appel> a = cap.Appels();
        ASSERT_EQ(a.size(), 3u) << r.s_Erreur;
        EXPECT_NE(a[0].s_Entree.find("\nFichier d'infos pour debug: \n"), std::string::npos);
        EXPECT_NE(a[1].s_Entree.find("\n\nAbsent\n"), std::string::npos);
        EXPECT_NE(a[2].s_Entree.find("\nFichier d'infos pour debug: \n"), std::string::npos);
        EXPECT_EQ(FichiersCommencantPar(std::string(RACINE_SPOOL_ESSAI) + "Erreurs",
                                        "ERR.remise." + std::to_string(r.i_Pid) + "."),
                  std::vector<std::string>{});
        EXPECT_EQ(r.s_Erreur.find("3660"), std::string::npos) << r.s_Erreur;
        std::string s_Journal = LignesJournal(pc_Rep);
        const std::string s_Ligne = "remise-vorane[" + std::to_string(r.i_Pid) +
                                    "]: v1.1.0/3660: Fichier de debug impossible dans <";
        std::size_t p = s_Journal.find(s_Ligne);
        ASSERT_NE(p, std::string::npos) << s_Journal;
        EXPECT_EQ(s_Journal.find(s_Ligne, p + 1), std::string::npos) << s_Journal;
        std::string s_Suite = s_Journal.substr(p + s_Ligne.size());
        EXPECT_NE(s_Suite.find(c.s_Cause + ". message-id=<essai-1@partenaire.test>, "
                               "from=<ext@partenaire.test>, to=<inconnu@vorane.example>(1/4)\n"),
                  std::string::npos)
            << s_Suite;
    }
    RetireJournalPrive(pc_Rep);
    rmdir(pc_Rep);
}

}  // namespace
