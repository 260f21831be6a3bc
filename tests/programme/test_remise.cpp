// The whole program as Postfix runs it, against a real slapd, the scripted
// LMTP server, a real Cyrus lmtpd and the capture program standing in for
// sendmail and the Sympa queue programs: the bytes the store receives, the
// recipient loop's outcomes and exit status (Remise), the replies and
// notices it sends (Avis), the explain form that acts on nothing
// (Explication), directory and Sympa lists (Diffusion), and mailboxes of
// the real store, read back from its files (Cyrus).
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "adresse_unique.h"
#include "codec/codec.h"
#include "serveurs_essai.h"
#include "capture_essai.h"
#include "journal_essai.h"
#include "processus.h"
#include "serveur_lmtp.h"

namespace {

using namespace std::string_literals;  // "..."s keeps the NUL bytes of a literal
using Liste = std::vector<std::string>;
const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string SPOOL = RACINE_SPOOL_ESSAI;

// A person entry: uid, delivery kind, further attribute lines (cn included).
std::string Boite(const std::string &s_Uid, const std::string &s_Remise, const std::string &s_Plus) {
    return EntreeLdif("uid=" + s_Uid, "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: " + s_Uid +
                                          "\nsn: s\nmail: " + s_Uid + "@vorane.example\nravokVixRemise: " +
                                          s_Remise + "\n" + s_Plus);
}
// A list entry: name, delivery kind, further attribute lines.
std::string EntreeListe(const std::string &s_Nom, const std::string &s_Remise, const std::string &s_Plus = "") {
    return EntreeLdif("cn=" + s_Nom, "objectClass: ravokVixListe\ncn: " + s_Nom + "\nmail: " + s_Nom +
                                         "@vorane.example\nravokVixRemise: " + s_Remise + "\n" + s_Plus);
}
// Mailboxes of the real store (plein with a 1 KB quota); m101 to m120 take
// one transaction whose final replies exceed one read.
Liste Boites() {
    Liste v = {"plein:1"};
    for (int i = 101; i <= 120; i++) v.push_back("m" + std::to_string(i));
    return v;
}
// Their entries, and one of a mailbox the store does not have.
std::string EntreesBoites() {
    std::string s = Boite("fantome", "LMTP", "cn: f\n");
    for (std::string b : Boites()) s += Boite(b.substr(0, b.find(':')), "LMTP", "cn: " + b + "\n");
    return s;
}
const std::string REPONSE = "ravokVixReponse: 10~ TOUT:x ";
const std::string LEGER = "cn:: Qm9iIEzDqWdlcg==\nravokVixServeurPrincipal: MX1\n";  // "Bob Léger"

const std::string ENTREES =
    Boite("alice", "LMTP", "cn: Alice\n") + Boite("bob", "lmtp", "cn: Bob\n") +
    EntreeLdif("cn=robert", "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\ncn: robert\nsn: r\n"
                            "uid: BOB\nmail: Robert@vorane.example\nravokVixRemise: LMTP\n") +
    Boite("carole", "LMTP-cyrus", "cn: Carole\n") + Boite("nul", "NULL", "cn: Nul\n") +
    Boite("attente", "ATTENTE", "cn: A\n") + Boite("bizarre", "FAX", "cn: B\n") +
    Boite("boite", "LMTP", "cn: c\n") + Boite("double", "LMTP", "cn: c\n") +
    EntreeLdif("uid=double2", "objectClass: inetOrgPerson\nuid: double2\ncn: D\nsn: D\nmail: double@vorane.example\n") + Boite("b2", "LMTP", "cn: c\n") + Boite("b3", "LMTP", "cn: c\n") +
    EntreeListe("sansuid", "LMTP") +
    EntreeLdif("uid=sansremise",
               "objectClass: inetOrgPerson\nuid: sansremise\ncn: S\nsn: S\nmail: sansremise@vorane.example\n") +
    EntreeLdif("uid=ext", "objectClass: inetOrgPerson\nuid: ext\ncn: Jean Externe\nsn: E\nmail: ext@partenaire.test\n") +
    Boite("absente", "LMTP", "cn: Alice Martin\nravokVixmailEmission: a.martin@vorane.example\n" + REPONSE +
                                 "FREQ:60 TEXTE:Je suis absente.%hA bientot\n") +
    Boite("frequente", "LMTP", "cn: c\n" + REPONSE + "FREQ:60 TEXTE:Absente\n") +
    Boite("sanspool", "LMTP", "cn: c\n" + REPONSE + "FREQ:60 TEXTE:Absente\n") +
    Boite("repondeur", "NULL", LEGER + "ravokVixReponse: Absent\n" + REPONSE + "TEXTE:Absent\n") +
    Boite("ferme", "LMTP", LEGER + "ravokVixRestrictions: 10+ LDAP:(&(objectClass=ravokVixBoite)(mail=%s))\n") +
    EntreeLdif("cn=hostile", "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\ncn: hostile\nsn: h\n"
                             "uid: a/../..\nmail: hostile@vorane.example\nravokVixRemise: NULL\n" + REPONSE +
                                 "TEXTE:Absent\n") +
    // The explain form's recipients.
    Boite("xpferme", "LMTP", "cn: xpferme\nravokVixRestrictions: 10- JOKE:*@PARTENAIRE.test\n"
                             "ravokVixRestrictions: 05- TOUT:\n" + REPONSE + "TEXTE:jamais\n") +
    Boite("xpouvert", "LMTP", "cn: xpouvert\nravokVixRestrictions: 30- TOUT:x\nravokVixRestrictions: 10+ "
                              "JOKE:*@autre.test\nravokVixRestrictions: 20+ PCRE:^ext@partenaire\\.test$\n") +
    Boite("xpabsent", "LMTP", "cn: xpabsent\nravokVixmailEmission: absent@vorane.example\nravokVixReponse: 10~ "
                              "JOKE:*@ailleurs.test TEXTE:Non\nravokVixReponse: 20~ TOUT:x DDEB:20000101 "
                              "DFIN:20991231 FREQ:60 TEXTE:Absent.%h\n") +
    Boite("xpparti", "LMTP", "cn: xpparti\nravokVixReponse: 20~ TOUT:x TEXTE:jamais atteint\n"
                             "ravokVixReponse: 10~ TOUT:x DFIN:20000101 TEXTE:Parti\n") +
    EntreeListe("xpliste", "LISTE-MU", "ravokVixMembres: a@x.test\nravokVixMembres: xpsous@vorane.example\n"
                                       "info: AVIS: retours@vorane.example\ninfo: REPONSE: xpliste@vorane.example\n") +
    EntreeListe("xpsous", "LISTE-BR", "ravokVixMembres: b@y.test\nravokVixMembres: A@X.TEST\n") +
    // The list deliveries' recipients.
    EntreeListe("liste", "LISTE", "ravokVixMembres: m2@b.example\nravokVixMembres: m1@a.example\n"
                                  "info: avis:  \tbounce@vorane.example\ninfo: REPONSE: liste@vorane.example\n") +
    EntreeListe("soi", "LISTE", "ravokVixMembres: m4@d.example, La liste <Soi@Vorane.Example>\n"
                                "ravokVixMembres: m3@c.example\nravokVixMembres: " + std::string(300, 'n') + "@e.example\n"
                                "ravokVixMembres: \"" + std::string(300, 'N') + "\" <soi@vorane.example>\n") +
    EntreeListe("vide", "LISTE-BR") + EntreeListe("muet1", "NULL", REPONSE + "TEXTE:Muet\n") +
    EntreeListe("muet2", "NULL", REPONSE + "TEXTE:Muet\n") + EntreeListe("fax", "LISTE-FAX", "ravokVixMembres: f@a.example\n") +
    EntreeListe("mu", "LISTE-MU", "ravokVixMembres: x@c.example\nravokVixMembres: liste@vorane.example\n"
                                  "ravokVixMembres: M1@A.example\n") +
    EntreeListe("sympa", "SYMPA") + EntreeListe("rebonds", "SYMPA-BOUNCE") + EntreesBoites() +
    // Reached only through a referral from another server.
    EntreeLdif("ou=ailleurs", "objectClass: organizationalUnit\nou: ailleurs\n") +
    EntreeLdif("uid=loin,ou=ailleurs", "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: loin\n"
                                       "cn: Loin\nsn: L\nmail: loin@vorane.example\nravokVixRemise: LMTP\n");

// Accepts a transaction for n recipients.
std::vector<EtapeLmtp> Accepte(int n) {
    std::vector<EtapeLmtp> v = {Rep("220 lmtp ready\n"), Rep("250 2.1.0 ok\n")};
    for (int i = 0; i < n; i++) v.push_back(Rep("250 2.1.5 ok\n"));
    v.push_back(Rep("354 go ahead\n"));
    std::string s_Fin;  // one reply per recipient after the data
    for (int i = 0; i < n; i++) s_Fin += "250 2.1.5 Success\n";
    v.insert(v.end(), {Rep(s_Fin), Rep("221 2.0.0 bye\n")});
    return v;
}

// Dates, the host and the dump file named in a text, as placeholders.
std::string Stable(std::string s) {
    for (const auto &[pc_Motif, pc_Par] : {std::pair<const char *, const char *>{
             "[0-3][0-9]/[01][0-9]/20[0-9]{2} [0-9:]{8}", "<date>"},
          {"Date: [A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} 20[0-9]{2} [0-9:]{8} [-+][0-9]{4}\n", "Date: <date>\n"},
          {"Serveur en cause: [^\n]*\n", "Serveur en cause: <hote>\n"},
          {"Erreurs/ERR\\.remise\\.[0-9]+\\.[A-Za-z0-9]{6}", "Erreurs/<dump>"}})
        s = std::regex_replace(s, std::regex(pc_Motif), pc_Par);
    return s;
}

time_t gt_Lance = 0;  // when the last run began

// Dump files of the given kind written by the last run: by its process id
// and no older than the run (ids come back, and the spool keeps the files
// of earlier runs).
Liste Dumps(const char *pc_Type, int i_Pid) {
    Liste v;
    for (const std::string &s : FichiersCommencantPar(SPOOL + "Erreurs", std::string(pc_Type) + ".remise." +
                                                                            std::to_string(i_Pid) + "."))
        if (struct stat st; stat(s.c_str(), &st) == 0 && st.st_mtime >= gt_Lance) v.push_back(s);
    return v;
}

// Removes the frequency files of one recipient (tests run side by side
// share the spool: each works with recipients of its own).
void VideAbsences(const std::string &s_Uid) {
    for (const std::string &s : FichiersCommencantPar(SPOOL + "Absences", "AvisAbs.." + s_Uid + ".."))
        std::filesystem::remove(s);
}

class Remise : public ::testing::Test {
protected:
    static AnnuaireEssai sst_Annuaire;
    static void SetUpTestSuite() { ASSERT_TRUE(DemarreAnnuaire(&sst_Annuaire, ENTREES)) << sst_Annuaire.s_Erreur; }
    static void TearDownTestSuite() { ArreteServeur(&sst_Annuaire); }

    // Runs the program for the recipients, the message on its input.
    static ResultatProcessus Lance(const Liste &v_Options, const std::string &s_Emetteur, const Liste &v_Dest,
                                   const std::string &s_Message, const Liste &v_Programme = {PROG}) {
        Liste v = v_Programme;
        gt_Lance = time(nullptr);
        v.insert(v.end(), {"-l", sst_Annuaire.s_Hote});
        v.insert(v.end(), v_Options.begin(), v_Options.end());
        v.insert(v.end(), {"-e", s_Emetteur, "-d"});
        v.insert(v.end(), v_Dest.begin(), v_Dest.end());
        return LanceProgramme(v, s_Message, 60);
    }
};
AnnuaireEssai Remise::sst_Annuaire;
class Avis : public Remise {};

// A message from the external sender through an internet relay.
std::string Message(const std::string &s_EnPlus = "", const std::string &s_Corps = "corps\n") {
    return "Return-Path: <ext@partenaire.test>\nReceived: from mx.partenaire.test (mx [10.0.1.77])\n"
           "\tby relais.vorane.example\n"
           "Message-ID: <essai-1@partenaire.test>\nFrom: Jean Dupont <Ext@partenaire.test>\n"
           "To: alice@vorane.example\nSubject: essai\n" + s_EnPlus + "\n" + s_Corps;
}

// One run through the recipient loop, sender in mixed case: mailboxes
// share one transaction, where an entry naming a mailbox already in it (its
// uid in another case) adds no second recipient command (the store gets the
// rewritten header and the body,
// dot-stuffed, no Return-Path), drops pass silently, unknown and broken
// entries are reported at level -3 with a dump and an incident notice
// each, a restriction refuses with a notice, an automatic reply quotes the
// incoming header; the run ends with 0.  The notices and the reply go to
// the envelope sender with the null sender, byte for byte.  The explain
// form run before it with the same arguments acts on nothing.
TEST_F(Remise, BoucleAvisEtReponse) {
    VideAbsences("absente");
    Capture cap;
    ServeurLmtpEssai st_Lmtp(Accepte(4), false);
    const Liste v_Dest = {"Alice@Vorane.Example", "absente@vorane.example", "ferme@vorane.example",
                          "nul@vorane.example", "inconnu@vorane.example", "sansuid@vorane.example",
                          "sansremise@vorane.example", "bizarre@vorane.example", "bob@vorane.example",
                          "carole@vorane.example", "robert@vorane.example"};
    // First the explain form, which acts on nothing: no command, no
    // connection to the store (it serves one), no frequency file, no dump.
    ResultatProcessus r = Lance({"-r", st_Lmtp.Designation()}, "Ext@Partenaire.TEST", v_Dest,
                                Message("", "corps\n.\n..x\n"), {PROG, "--explique"});
    EXPECT_EQ(r.i_Statut, 1) << r.s_Erreur;
    EXPECT_TRUE(cap.Appels().empty());
    EXPECT_EQ(FichiersCommencantPar(SPOOL + "Absences", "AvisAbs..absente.."), Liste{});
    EXPECT_EQ(Dumps("ERR", r.i_Pid), Liste{});

    r = Lance({"-r", st_Lmtp.Designation()}, "Ext@Partenaire.TEST", v_Dest, Message("", "corps\n.\n..x\n"));
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    const std::string s_Info = ". message-id=<essai-1@partenaire.test>, from=<ext@partenaire.test>, to=";
    std::string s_Erreur = "remise-vorane[" + std::to_string(r.i_Pid) + "]: " + s_Info.substr(2) + "<->(-/11)\n";
    for (const std::string &s :
         {"v1.1.0/4198: Destinataire <inconnu@vorane.example> non trouve dans l'annuaire" + s_Info +
              "<inconnu@vorane.example>(5/11)",
          "v1.1.0/4475: Erreur annuaire, 'uid' non renseigne pour une remise LMTP" + s_Info +
              "<sansuid@vorane.example>(6/11)",
          "v1.1.0/4205: Erreur annuaire, 'ravokVixRemise' non renseigne" + s_Info + "<sansremise@vorane.example>(7/11)",
          "v1.1.0/4499: Erreur annuaire, type de remise non supporte, 'ravokVixRemise=FAX'" + s_Info +
              "<bizarre@vorane.example>(8/11)"})
        s_Erreur += " !ERR:-3, " + s + "\n" + s + "\n";
    EXPECT_EQ(r.s_Erreur, s_Erreur);
    EXPECT_EQ(Dumps("ERR", r.i_Pid).size(), 4u);
    for (const std::string &s : Dumps("ERR", r.i_Pid))  // they hold whole headers: for the site only
        EXPECT_EQ(std::filesystem::status(s).permissions(), std::filesystem::perms(0600)) << s;
    EXPECT_EQ(Stable(st_Lmtp.Recu()),
              "mail from:<ext@partenaire.test>\nrcpt to:<alice>\nrcpt to:<absente>\nrcpt to:<bob>\n"
              "rcpt to:<carole>\nDATA\nX-Remise-Vorane: v1.1.0; le <date>;\n\t+ mdf=0; lda=1; ea=1; eab=0; fdv=0;\n"
              "\t+ from original: Jean Dupont <Ext@partenaire.test>\n"
              "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
              "Message-ID: <essai-1@partenaire.test>\nFrom: \"> Jean Externe (par Internet)\"\n"
              "\t<Ext@partenaire.test>\n"
              "X-ravokOrigine: par Internet\nReply-to: \"Jean Externe\"\n\t<Ext@partenaire.test>\n"
              "To: alice@vorane.example\nSubject: essai\n\ncorps\n..\n...x\n\n.\nQUIT\n");

    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 6u) << r.s_Erreur;
    for (const Appel &x : a) EXPECT_EQ(x.v_Argv, (Liste{CAPTURE, "-i", "-f", "", "--", "ext@partenaire.test"}));
    const std::string RECEIVED = "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n";
    const std::string AUTO = "Auto-Submitted: Auto-Replied\nPrecedence: bulk\n";
    const std::string REFS = "References: <essai-1@partenaire.test>\nIn-Reply-To: <essai-1@partenaire.test>\n"
                             "To: Jean Dupont <Ext@partenaire.test>\n";
    const std::string POSTIER = "From: \"Maitre postier, Service Courrier/VORANE\" <postmaster@vorane.example>\n"
                                "Date: <date>\nMIME-Version: 1.0\nContent-Type: text/plain; charset=\"ISO-8859-1\"\n"
                                "Content-Transfer-Encoding: 8bit\n\n";
    EXPECT_EQ(Stable(a[0].s_Entree),
              RECEIVED + "Message-Id: <absente.Reponse_automatique.essai-1@partenaire.test>\n" + AUTO +
              "X-Loop: REMISE-VORANE, <Reponse_automatique>, <absente@vorane.example>\n"
              "Subject: =?UTF-8?Q?R=C3=A9ponse_automatique_=3A_essai_?=\n" + REFS +
              "From: \"Alice Martin\"\n\t<a.martin@vorane.example>\nDate: <date>\n"
              "MIME-Version: 1.0\nContent-Type: text/plain; charset=\"UTF-8\"\nContent-Transfer-Encoding: 8bit\n\n"
              "Je suis absente.\n" + Message("", "") + "\nA bientot\n");
    EXPECT_EQ(Stable(a[1].s_Entree),
              RECEIVED + "Message-Id: <ferme.Non_remis__restriction_.essai-1@partenaire.test>\n" + AUTO +
              "X-Loop: REMISE-VORANE, <Non_remis__restriction_>, <ferme@vorane.example>\n"
              "Subject: Non remis (restriction) : essai \n" + REFS + POSTIER +
              "Une restriction de remise a emp\xea" "ch\xe9 la remise du message \xe0 \"Bob L\xe9ger\" "
              "<mailto:ferme@vorane.example>\n");
    EXPECT_EQ(Stable(a[2].s_Entree),
              RECEIVED + AUTO + "X-Loop: REMISE-VORANE, <Non_remis__incident_>, <inconnu@vorane.example>\n"
              "Subject: Non remis (incident) : essai \n" + REFS + POSTIER +
              "Un incident technique grave a emp\xea" "ch\xe9 la remise du message \xe0  "
              "<mailto:inconnu@vorane.example>\n\nDescription du probleme de remise-vorane:\n"
              "v1.1.0/4198: Destinataire <inconnu@vorane.example> non trouve dans l'annuaire" + s_Info +
              "<inconnu@vorane.example>(5/11)\n\nServeur en cause: <hote>\n"
              "Fichier d'infos pour debug: " + SPOOL + "Erreurs/<dump>\n");
}

// A sender that differs from the From, an 8-bit Subject, an existing
// Reply-To, and a spam flag: from-differs line, the deposit in the display
// name (UTF-8 text converted to the From's character set), the Subject
// encoded with the original kept in the trace header, the -s suffix.  A
// display name too long to encode whole is shortened, never the deposit.
TEST_F(Remise, EnveloppeDifferenteSujet8bitsEtSpam) {
    ServeurLmtpEssai st_Lmtp(Accepte(1), true);
    ResultatProcessus r = Lance({"-r", st_Lmtp.Designation(), "-c", "", "-s", "+Spam"}, "robot@envoi.test",
                                {"alice@vorane.example"}, "Received: from x ([10.0.1.5])\nFrom: =?ISO-8859-1?Q?"
                                "J=E9r=F4me?= <jerome@partenaire.test>\nReply-To: ailleurs@partenaire.test\n"
                                "Subject: caf\xe9 cr\xe8me\nX-Spam-Flag: YES\n\ncorps\n");
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(Stable(st_Lmtp.Recu()),
              "mail from:<robot@envoi.test>\nrcpt to:<alice+Spam>\nDATA\nReceived: from x ([10.0.1.5])\n"
              "X-Remise-Vorane: v1.1.0; le <date>;\n\t+ mdf=1; lda=1; ea=0; eab=0; fdv=0;\n\t+ sujet original: caf"
              "\xe9 cr\xe8me\n\t+ from original: =?ISO-8859-1?Q?J=E9r=F4me?= <jerome@partenaire.test>\n"
              "From: =?ISO-8859-1?Q?=22=3E_J=E9r=F4me_=28par_Internet=2C_d=E9p=F4t_robot=40?=\n"
              "\t=?ISO-8859-1?Q?envoi=2Etest=29=22?=\n\t<jerome@partenaire.test>\n"
              "X-ravokOrigine: par Internet\nX-ravokFromDifferent: 1\nReply-To: ailleurs@partenaire.test\n"
              "Subject: =?iso8859-15?Q?caf=E9_cr=E8me?=\nX-Spam-Flag: YES\n\ncorps\n\n.\nQUIT\n");

    // A display name whose encoding fills the From: the sender's own name
    // gives way, the origin label and the depositor stay whole.
    std::string s_Nom = "=?ISO-8859-1?Q?";
    for (int i = 0; i < 160; i++) s_Nom += "=E9";
    ServeurLmtpEssai st_Long(Accepte(1), false);
    r = Lance({"-r", st_Long.Designation()}, "robot@envoi.test", {"alice@vorane.example"},
              "Received: from x ([10.0.1.5])\nFrom: " + s_Nom + "?= <j@partenaire.test>\n\ncorps\n");
    const std::string s_Livre = DonneesRecues(st_Long.Recu());
    const std::size_t p = s_Livre.find("\nFrom: ") + 7;
    char pc_Nom[4096];
    DecodeQP(s_Livre.substr(p, s_Livre.find("\n\t<", p) - p).c_str(), "UTF-8", pc_Nom, sizeof pc_Nom);
    EXPECT_TRUE(std::string(pc_Nom).ends_with("\xc3\xa9 (par Internet, d\xc3\xa9p\xc3\xb4t robot@envoi.test)\""))
        << pc_Nom;

    // A name in Shift_JIS, whose second bytes are ASCII letters, long
    // enough to take two words: it is written in UTF-8, so that no word
    // ends inside a character and each decodes alone.
    std::string s_Kanji;  // "山田太郎" six times, in UTF-8
    for (int i = 0; i < 6; i++) s_Kanji += "\xe5\xb1\xb1\xe7\x94\xb0\xe5\xa4\xaa\xe9\x83\x8e";
    ServeurLmtpEssai st_Sjis(Accepte(1), false);
    r = Lance({"-r", st_Sjis.Designation()}, "yamada@partenaire.test", {"alice@vorane.example"},
              "From: =?Shift_JIS?B?jlKTY5G+mFmOUpNjkb6YWY5Sk2ORvphZjlKTY5G+mFmOUpNjkb6YWY5Sk2ORvphZ?= "
              "<yamada@partenaire.test>\n\ncorps\n");
    const std::string s_Sjis = DonneesRecues(st_Sjis.Recu());
    const std::size_t q = s_Sjis.find("\nFrom: ") + 7;
    DecodeQP(s_Sjis.substr(q, s_Sjis.find("\n\t<", q) - q).c_str(), "UTF-8", pc_Nom, sizeof pc_Nom);
    EXPECT_EQ(std::string(pc_Nom), "\"" + s_Kanji + "\"") << s_Sjis;
}

// ATTENTE second of three: the run stops there with 75; the mailbox met
// before it is not delivered in this run and the third is never looked at.
// A store that fails is tried three times, then 75.
TEST_F(Remise, AttenteEtStockageInjoignable) {
    // A store that closes every connection it is offered, counting them.
    int i_Port = 0, i_Ecoute = SocketLocale(&i_Port, 8);
    ASSERT_GE(i_Ecoute, 0);
    std::atomic<int> i_Connexions = 0;
    std::thread th([&] { for (int i; (i = accept(i_Ecoute, nullptr, nullptr)) >= 0; close(i)) i_Connexions++; });
    const std::string s_Hote = "127.0.0.1:" + std::to_string(i_Port);
    ResultatProcessus r = Lance({"-r", s_Hote}, "ext@partenaire.test", {"alice@vorane.example",
                                "attente@vorane.example", "inconnu@vorane.example"}, Message());
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(r.s_Erreur.find("inconnu"), std::string::npos) << r.s_Erreur;
    EXPECT_EQ(i_Connexions, 0);
    r = Lance({"-r", s_Hote}, "ext@partenaire.test", {"alice@vorane.example"}, Message());
    shutdown(i_Ecoute, SHUT_RDWR);  // ends the accept
    th.join();
    close(i_Ecoute);
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(i_Connexions, 3);
    EXPECT_NE(r.s_Erreur.find(" !ERR:2, v1.1.0/4549: Trop d'essais Remise_LMTP sur " + s_Hote), std::string::npos);
}

// A recipient with two directory entries ends the run.  While other
// recipients are still to be delivered (a mailbox collected before it, or a
// later recipient) a notice naming it and a status 0 would lose them: the
// message goes back to Postfix with the report (65), for all of them, with
// no notice and no LMTP delivery (none could be made at /nulle/part).  Alone,
// it gets its notice and the run ends with 0.
TEST_F(Avis, RefusQuiLaisseDAutresDestinataires) {
    const struct {
        Liste v_Dest;
        int i_Statut;
        std::size_t t_Avis;
    } t[] = {{{"alice@vorane.example", "double@vorane.example"}, 65, 0},
             {{"double@vorane.example", "nul@vorane.example"}, 65, 0},
             {{"double@vorane.example"}, 0, 1}};
    for (const auto &c : t) {
        SCOPED_TRACE(c.v_Dest[0] + " " + std::to_string(c.v_Dest.size()));
        Capture cap;
        ResultatProcessus r = Lance({"-r", "/nulle/part"}, "ext@partenaire.test", c.v_Dest, Message());
        EXPECT_EQ(r.i_Statut, c.i_Statut) << r.s_Erreur;
        EXPECT_EQ(cap.Appels().size(), c.t_Avis) << r.s_Erreur;
        EXPECT_NE(r.s_Erreur.find(" !ERR:3, v1.1.0/2618: "), std::string::npos) << r.s_Erreur;
    }
}

// Bad input never crashes the program nor ends it with 0 unless the store
// took the message whole.  A NUL byte in the header is read as "?" and cuts
// nothing after it (the body keeps its bytes); without a From and with an
// empty sender, a fall-back name and From line, "anonyme" as depositor,
// and the placeholder sender taken for an unauthenticated one; a
// mailer-daemon sender is a robot, its own From never taken for it.
TEST_F(Remise, EntreesMalFormees) {
    std::string s_Longue(100000, 'x'), s_DixMille;
    for (int i = 0; i < 10000; i++) s_DixMille += "X-Ligne-" + std::to_string(i) + ": v\n";
    const std::string EXT = "ext@partenaire.test";
    const struct {
        std::string s_Emetteur, s_Message, s_Recu;  // s_Recu: found in what the store got
    } t[] = {
        {EXT, "", ""}, {EXT, "Subject: sans ligne vide\n", ""}, {EXT, s_DixMille + "\ncorps\n", ""},
        {EXT, "Subject: " + s_Longue + "\n\n" + s_Longue + "\n", ""},
        {"MAILER-DAEMON@partenaire.test", "Subject: crlf\r\nFrom: <mailer-daemon@partenaire.test>\r\n\r\nx\r\n",
         "\n\t+ mdf=1; lda=1; ea=0; eab=0; fdv=0;\n"},
        {EXT, "Subject: nul\0ici\n\tsuite\n\0To: x\n\ncorps\0\n"s,
         "\nSubject: nul?ici\n\tsuite\n?To: x\n\ncorps\0\n\n.\n"s},
        {"", "Subject: rebond\n\ncorps\n",
         "mail from:<mailer-daemon@vorane.example>\nrcpt to:<alice>\nDATA\n"
         "From: =?ISO-8859-15?Q?=22=7E_Adresse_emetteur_illisible_=2D_Adresse_vide_=28?=\n"
         "\t=?ISO-8859-15?Q?emetteur_non_authentifie=2C_d=E9p=F4t_anonyme=29=22?=\n\t<postmaster@vorane.example>\n"
         "X-Remise-Vorane: v1.1.0; le <date>;\n\t+ mdf=1; lda=0; ea=0; eab=0; fdv=0;\n"
         "\t+ from original: __NonTrouveParDecod__\nSubject: rebond\nX-ravokOrigine: emetteur non authentifie\n"
         "X-ravokFromDifferent: 1\nReply-to: \"Adresse emetteur illisible - Adresse vide\"\n"
         "\t<postmaster@vorane.example>\n\ncorps\n\n.\nQUIT\n"},
    };
    for (const auto &c : t) {
        SCOPED_TRACE(c.s_Message.substr(0, 40));
        ServeurLmtpEssai st_Lmtp(Accepte(1), false);
        ResultatProcessus r = Lance({"-r", st_Lmtp.Designation()}, c.s_Emetteur, {"alice@vorane.example"}, c.s_Message);
        std::string s_Recu = st_Lmtp.Recu();
        bool b_Terminee = false;
        DonneesRecues(s_Recu, &b_Terminee);
        EXPECT_TRUE(r.i_Statut == 65 || r.i_Statut == 75 || (r.i_Statut == 0 && b_Terminee)) << r.i_Statut;
        EXPECT_NE(Stable(s_Recu).find(c.s_Recu), std::string::npos) << s_Recu;
    }
}

struct Champ {
    std::string s_Nom, s_Texte;
};

// The header fields of a message (a line that begins with a blank or a tab
// continues the field before it) and its body, after the first empty line.
std::vector<Champ> Champs(const std::string &s_Message, std::string *ps_Corps) {
    std::vector<Champ> v;
    std::size_t p = 0;
    for (std::size_t q; p < s_Message.size() && s_Message[p] != '\n'; p = q) {
        q = std::min(s_Message.find('\n', p), s_Message.size() - 1) + 1;
        std::string s_Ligne = s_Message.substr(p, q - p);
        if ((s_Ligne[0] == ' ' || s_Ligne[0] == '\t') && !v.empty()) {
            v.back().s_Texte += s_Ligne;
            continue;
        }
        std::string s_Nom = s_Ligne.substr(0, s_Ligne.find(':'));
        for (char &c : s_Nom) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        v.push_back({s_Nom, s_Ligne});
    }
    *ps_Corps = p < s_Message.size() ? s_Message.substr(p + 1) : "";
    return v;
}

// A hostile From (and what comes with it) through the whole program: the
// store gets the fields it was sent, the program's own and nothing else;
// every line the program wrote is one field without control bytes but its
// folding; its From and Reply-to name exactly one address; the body stays.
// Nor does the Message-ID, which ends every log line, bring any there.
TEST_F(Remise, FromHostileSansInjection) {
    const std::string FIN = "To: alice@vorane.example\n\ncorps\n";
    const std::string TRACE = "X-Remise-Vorane: v1.1.0; le 01/02/2024 10:00:00;\n"
                              "\t+ mdf=0; lda=1; ea=0; eab=0; fdv=0;\n\t+ from original: ";
    std::string s_Echappes;  // 247 escaped ">" and "a@b.test": an address of 255
    for (int i = 0; i < 247; i++) s_Echappes += "\\>";
    const struct {
        std::string s_Suite;  // what follows Received and Message-ID
        const char *pc_Emetteur = "ext@partenaire.test";
    } t[] = {
        {TRACE + "Ancien <x\\\n\tReply-To:attacker@evil.example>\nFrom: x\\\n\tReply-To:attacker@evil.example\n" + FIN},
        {"From: Nom\rBcc: victime@x.test <\"a\rb\"@partenaire.test>\nSubject: caf\xe9\rBcc: victime@x.test\n" + FIN},
        {"From: =?UTF-8?Q?Nom=0ABcc:_victime@x.test=0D?= <\"a\rb\"@partenaire.test>\n" + FIN},
        {"From: a\\>\\,\\ \"Boss\"\\ \\<ceo@vorane.example\n" + FIN},
        {"From: \"Boss <ceo@vorane.example>\n" + FIN}, {"From: <x@partenaire.test\\\\>\n" + FIN},
        {"From: <" + s_Echappes + "a@b.test>\n" + FIN},
        {"From: " + std::string(509, 'n') + " <a@partenaire.test>\n" + FIN, "a@partenaire.test"},
        {"From: J\xe9r\xf4me \xe9 <a\xe9" "b@partenaire.test>\nSubject: \xe9t\xe9\n" + FIN},
        // A line longer than one read: 1023 bytes up to the Reply-To.
        {"From: <a@partenaire.test>" + std::string(998, ' ') + "Reply-To: attacker@evil.example\n" + FIN},
        {"To: alice@vorane.example\nFrom: x <a@partenaire.test>"},  // no final line feed
    };
    const std::set<std::string> st_Propres = {"x-remise-vorane", "x-ravokorigine", "x-ravokfromdifferent", "reply-to"};
    int i_Rang = 0;
    for (const auto &c : t) {
        SCOPED_TRACE(++i_Rang);
        std::string s_Message = "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
                                "Message-ID: <hostile-" + std::to_string(i_Rang) + "\x1b[2J\r@partenaire.test>\n" +
                                c.s_Suite;
        ServeurLmtpEssai st_Lmtp(Accepte(1), false);
        ResultatProcessus r = Lance({"-r", st_Lmtp.Designation()}, c.pc_Emetteur, {"alice@vorane.example"},
                                    s_Message);
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        for (unsigned char o : r.s_Erreur) EXPECT_TRUE(o >= 0x20 ? o != 0x7f : o == '\n') << int(o);
        std::string s_Corps, s_CorpsLivre, s_Livre = DonneesRecues(st_Lmtp.Recu());
        std::vector<Champ> v_Recus = Champs(s_Message, &s_Corps), v_Livres = Champs(s_Livre, &s_CorpsLivre);
        EXPECT_EQ(s_CorpsLivre.substr(0, s_Corps.size()), s_Corps);
        // Names: as many as were sent, plus the program's own lines once
        // each (its trace header always) and a From where there was none.
        std::map<std::string, int> m_Recus, m_Livres;
        for (const Champ &ch : v_Recus) m_Recus[ch.s_Nom]++;
        for (const Champ &ch : v_Livres) m_Livres[ch.s_Nom]++;
        for (const auto &[s_Nom, n] : m_Livres)
            EXPECT_LE(n, m_Recus[s_Nom] + (st_Propres.count(s_Nom) != 0 || (s_Nom == "from" && m_Recus[s_Nom] == 0)))
                << s_Nom << " added";
        for (const auto &[s_Nom, n] : m_Recus) EXPECT_GE(m_Livres[s_Nom], n) << s_Nom << " lost";
        EXPECT_EQ(m_Livres["x-remise-vorane"], m_Recus["x-remise-vorane"] + 1);
        for (const Champ &ch : v_Livres) {
            bool b_Recu = false;
            for (const Champ &ch_Recu : v_Recus) b_Recu = b_Recu || ch_Recu.s_Texte == ch.s_Texte;
            if (b_Recu) continue;
            for (unsigned char o : ch.s_Texte)
                EXPECT_TRUE(o >= 0x20 ? o != 0x7f : o == '\n' || o == '\t') << int(o) << " in " << ch.s_Texte;
            if (ch.s_Nom == "from" || ch.s_Nom == "reply-to") { EXPECT_EQ(DefautAdresseUnique(ch.s_Texte), ""); }
        }
    }
}

// Each guard suppresses the automatic reply on its own, a folded value and
// a field's second occurrence included; the counter-cases are answered.  The recipient's kind is NULL: nothing else is submitted.
TEST_F(Avis, GardesDesReponses) {
    const std::string EXT = "ext@partenaire.test";
    const struct {
        std::string s_Emetteur, s_EnPlus;
        Liste v_Options;
        bool b_Reponse;
    } t[] = {
        {EXT, "", {}, true}, {EXT, "", {"-p", "mx0,mx1"}, true}, {EXT, "", {"-p", "mx2"}, false},
        {"MAILER-DAEMON@partenaire.test", "", {}, false}, {"", "", {}, false},
        {"nobody@partenaire.test", "", {}, false}, {"liste-owner@partenaire.test", "", {}, false},
        {"owner-liste@partenaire.test", "", {}, true}, {"@partenaire.test", "", {}, false},
        {"non-authentifie@autre.example", "", {}, false},
        {EXT, "Auto-Submitted: no\nAuto-Submitted:\n auto-generated\n", {}, false},
        {EXT, "Auto-Submitted: no\n", {}, true},
        {EXT, "List-Id: <l.partenaire.test>\n", {}, false}, {EXT, "X-List-Name: l\n", {}, false},
        {EXT, "Precedence: normal\nPrecedence:\r\n\tjunk\n", {}, false},
        {EXT, "X-Spam-Flag: NO\nX-Spam-Flag:\n YES\n", {}, false},
        {EXT, "X-Loop: REMISE-VORANE, <x>, <y>\n", {}, false},
    };
    for (const auto &c : t) {
        SCOPED_TRACE(c.s_Emetteur + " " + c.s_EnPlus + (c.v_Options.empty() ? "" : c.v_Options[1]));
        VideAbsences("repondeur");
        Capture cap;
        ResultatProcessus r = Lance(c.v_Options, c.s_Emetteur, {"repondeur@vorane.example"}, Message(c.s_EnPlus));
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_EQ(cap.Appels().size(), c.b_Reponse ? 1u : 0u) << r.s_Erreur;
    }
}

// The frequency file: created by a reply, it holds back the next one until
// the rule's 60 minutes have passed; its name keeps the escaped uid and
// sender (the part after ".-.") inside Absences/.
TEST_F(Avis, FichierDeFrequence) {
    for (const char *pc_Uid : {"frequente", "a%2F%2E%2E%2F%2E%2E"}) VideAbsences(pc_Uid);
    const std::string s_Fichier = SPOOL + "Absences/AvisAbs..frequente..ext@partenaire.test.txt";
    for (int i_Age : {0, 600, 3601}) {
        struct utimbuf st = {time(nullptr) - i_Age, time(nullptr) - i_Age};
        if (i_Age > 0) { ASSERT_EQ(utime(s_Fichier.c_str(), &st), 0); }
        Capture cap;
        ResultatProcessus r = Lance({}, "liste.-.ext@partenaire.test", {"frequente@vorane.example"}, Message());
        EXPECT_EQ(cap.Appels().size(), i_Age == 600 ? 0u : 1u) << i_Age << r.s_Erreur;
    }
    Capture cap;
    ResultatProcessus r = Lance({}, "../../x/y@.", {"hostile@vorane.example"}, Message());
    EXPECT_EQ(cap.Appels().size(), 1u) << r.s_Erreur;
    EXPECT_EQ(FichiersCommencantPar(SPOOL + "Absences", "AvisAbs..a%2F"),
              Liste{SPOOL + "Absences/AvisAbs..a%2F%2E%2E%2F%2E%2E..%2E%2E%2F%2E%2E%2Fx%2Fy@%2E.txt"});
    // Entries without a uid keep a file each.
    for (const char *pc : {"@muet1@vorane.example", "@muet2@vorane.example"}) VideAbsences(pc);
    Capture cap2;
    Lance({}, "ext@partenaire.test", {"muet1@vorane.example", "muet2@vorane.example"}, Message());
    EXPECT_EQ(cap2.Appels().size(), 2u);
}

// The store refuses some of four mailboxes, at the recipient command or in
// its replies after the data (for good, over quota, or for now): the run
// ends with 0 after one attempt (no second copy to those answered 250),
// and one notice names each refused mailbox with the store's reply (an
// over-quota refusal in words).  An unanswered QUIT is a warning; a first
// reply after the data that refuses the message, with no mailbox taking it,
// ends the session at once.
TEST_F(Avis, RefusDuServeurLmtp) {
    const std::string B2 = "Destinataire <b2@vorane.example>, r\xe9ponse du serveur :\n";
    const std::string PLEINE = "Bo\xeete pleine, message refus\xe9 ...\n";
    const struct {
        std::string s_Rcpt2, s_FinDonnees;  // reply to the second RCPT, replies after the data
        EtapeLmtp st_Quit;
        std::string s_Fin, s_Avertissement, s_Avis;  // last bytes received, the one report, the notice's body
    } t[] = {
        {"550 5.1.1 User unknown\n", "250 ok\n452 4.2.2 Over quota SESSIONID=<s>\n451 4.3.0 Try later\n", Ferme(),
         "\n.\nQUIT\n", " !ERR:4, v1.1.0/1581: Erreur Read_LMTP pendant attente reponse quit, errno=104",
         "Les destinataires suivants n'ont pas recu votre message:\n\n" + B2 + "550 5.1.1 User unknown\n\n"
         "Destinataire <b3@vorane.example>, r\xe9ponse du serveur :\n" + PLEINE +
         "Destinataire <alice@vorane.example>, r\xe9ponse du serveur :\n451 4.3.0 Try later\n\n"},
        {"250 ok\n", "554 5.6.0 Message contains invalid header\n452 4.2.2 Over quota\n451 a\n451 b\n",
         Rep("221 bye\n"), "\n.\n",
         " !ERR:4, v1.1.0/1551: Message non remis, reponse <554 5.6.0 Message contains invalid header\n>",
         "Votre message n'a pas pu etre remis\nLa reponse du serveur en fin de DATA est:\n\n"
         "554 5.6.0 Message contains invalid header\n" + B2 + PLEINE +
         "Destinataire <b3@vorane.example>, r\xe9ponse du serveur :\n451 a\n\n"
         "Destinataire <alice@vorane.example>, r\xe9ponse du serveur :\n451 b\n\n"},
    };
    for (const auto &c : t) {
        SCOPED_TRACE(c.s_FinDonnees);
        Capture cap;
        ServeurLmtpEssai st_Lmtp({Rep("220 ready\n"), Rep("250 ok\n"), Rep("250 ok\n"), Rep(c.s_Rcpt2), Rep("250 ok\n"),
                                  Rep("250 ok\n"), Rep("354 go\n"), Rep(c.s_FinDonnees), c.st_Quit},
                                 false);
        ResultatProcessus r = Lance({"-r", st_Lmtp.Designation()}, "ext@vorane.example",
                                    {"boite@vorane.example", "b2@vorane.example", "b3@vorane.example",
                                     "alice@vorane.example"}, Message());
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_TRUE(st_Lmtp.Recu().ends_with(c.s_Fin)) << c.s_Fin;
        std::size_t p = r.s_Erreur.find(" !ERR:");
        EXPECT_EQ(r.s_Erreur.find(c.s_Avertissement), p) << r.s_Erreur;
        EXPECT_EQ(r.s_Erreur.find(" !ERR:", p + 1), std::string::npos) << r.s_Erreur;
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
    ResultatProcessus r = Lance({}, "ext@partenaire.test", {"inconnu@vorane.example"}, Message());
    EXPECT_EQ(r.i_Statut, 65) << r.s_Erreur;
    EXPECT_EQ(cap.Appels().size(), 1u);
    EXPECT_NE(r.s_Erreur.find(" !ERR:3, v1.1.0/1891: Erreur sur pclose"), std::string::npos);
}

// A spool that cannot hold a dump (Erreurs/ a plain file and the other
// directories missing, or a file system that takes no byte more) loses no
// notice, reply or delivery and leaves no cut dump file.  The site learns
// it once per run from the system log, never on standard error (which
// Postfix would quote in its log or bounce).
TEST_F(Avis, SpoolInutilisable) {
    char pc_Rep[] = "/tmp/journal-avis.XXXXXX";
    ASSERT_NE(mkdtemp(pc_Rep), nullptr);
    ASSERT_TRUE(JournalPrive(pc_Rep, true)) << "no private system logger";
    const std::pair<Liste, std::string> t_Cas[] = {
        {{CHEMIN_REMISE_VORANE_SANS_SPOOL}, "spool-inutilisable/Erreurs/>, errno=20 (Not a directory)"},
        {{"/usr/bin/prlimit", "--fsize=0:unlimited", "/usr/bin/env", "--ignore-signal=XFSZ", PROG},
         "spool/Erreurs/>, errno=27 (File too large)"}};
    for (const auto &[v_Programme, s_Cause] : t_Cas) {
        SCOPED_TRACE(v_Programme[0]);
        VideAbsences("sanspool");
        Capture cap;
        ServeurLmtpEssai st_Lmtp(Accepte(1), false);
        ResultatProcessus r = Lance({"-r", st_Lmtp.Designation()}, "ext@partenaire.test",
                                    {"inconnu@vorane.example", "sanspool@vorane.example", "inconnu2@vorane.example"},
                                    Message(), v_Programme);
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_NE(st_Lmtp.Recu().find("rcpt to:<sanspool>\nDATA\n"), std::string::npos);
        std::vector<Appel> a = cap.Appels();
        ASSERT_EQ(a.size(), 3u) << r.s_Erreur;
        for (int i : {0, 1, 2})
            EXPECT_NE(a[i].s_Entree.find(i == 1 ? "\n\nAbsente\n" : "\nFichier d'infos pour debug: \n"),
                      std::string::npos);
        EXPECT_EQ(Dumps("ERR", r.i_Pid), Liste{});
        EXPECT_EQ(r.s_Erreur.find("3660"), std::string::npos) << r.s_Erreur;
        const std::string s_Journal = LignesJournal(pc_Rep), s_Ligne = "remise-vorane[" + std::to_string(r.i_Pid) +
                                                                         "]: v1.1.0/3660: Fichier de debug impossible dans <";
        std::size_t p = s_Journal.find(s_Ligne);
        ASSERT_NE(p, std::string::npos) << s_Journal;
        EXPECT_EQ(s_Journal.find(s_Ligne, p + 1), std::string::npos) << s_Journal;
        EXPECT_NE(s_Journal.find(s_Cause + ". message-id=<essai-1@partenaire.test>, from=<ext@partenaire.test>, "
                                           "to=<inconnu@vorane.example>(1/3)\n", p), std::string::npos) << s_Journal;
    }
    RetireJournalPrive(pc_Rep);
    rmdir(pc_Rep);
}

// The explain form through every kind of decision: a deny line (after a
// malformed one) that refuses with a notice, an allow list let through by
// its second line, a reply inside its dates held back by a recent frequency
// file, one outside its dates (stopping the search) beside an existing
// file, a list expanded through a nested list without duplicates, an
// unknown recipient; then the one LMTP transaction and the header the store
// would get, with the list's Reply-To.
TEST_F(Remise, ExplicationComplete) {
    for (const char *pc : {"xpabsent", "xpparti"}) {  // frequency files 10 minutes old
        const std::string s = SPOOL + "Absences/AvisAbs.." + pc + "..ext@partenaire.test.txt";
        fclose(fopen(s.c_str(), "w"));
        struct utimbuf st = {time(nullptr) - 600, time(nullptr) - 600};
        utime(s.c_str(), &st);
    }
    const std::string F = SPOOL + "Absences/AvisAbs..xpabsent..ext@partenaire.test.txt";
    ResultatProcessus r = Lance({"-r", "/nulle/part", "-c", "+Boite"}, "ext@partenaire.test",
                                {"xpferme@vorane.example", "xpouvert@vorane.example", "xpabsent@vorane.example",
                                 "xpparti@vorane.example", "xpliste@vorane.example", "inconnu@vorane.example"},
                                "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
                                "Message-ID: <xp-1@partenaire.test>\nFrom: Jean Dupont <ext@partenaire.test>\n"
                                "To: xpliste@vorane.example\nSubject: essai\n\ncorps\n",
                                {PROG, "--explique"});
    EXPECT_EQ(r.i_Statut, 1) << r.s_Erreur;
    char pc_Jour[16];
    time_t t = time(nullptr);
    strftime(pc_Jour, sizeof pc_Jour, "%Y%m%d", localtime(&t));
    EXPECT_EQ(std::regex_replace(Stable(r.s_Sortie), std::regex(pc_Jour), "<jour>"),
              "Explication de la remise (rien n'est remis, envoye ni ecrit)\n"
              "Message : lu sur l'entree standard\n"
              "Expediteur d'enveloppe : <ext@partenaire.test>\n"
              "Adresse From retenue : <ext@partenaire.test>, nom \"Jean Externe\"\n"
              "Analyse : mdf=0 lda=1 ea=1 eab=0 fdv=0 robot=0 non-authentifie=0\n"
              "Origine : par Internet (marque \"> \")\n"
              "Suffixe de boite : \"+Boite\"\n"
              "\nDestinataire 1/6 : <xpferme@vorane.example>\n"
              "  Entree annuaire : uid=xpferme, cn=xpferme\n"
              "  Type de remise : LMTP\n"
              "  Serveur principal : oui (pas d'option -p)\n"
              "  Restrictions, dans l'ordre d'evaluation :\n"
              "    05- TOUT: : mal formee (cr=-1), ignoree\n"
              "    10- JOKE:*@PARTENAIRE.test : vraie -> decide : refus\n"
              "  -> destinataire refuse : rien ne lui est remis\n"
              "    Gardes de la composition : aucune ne s'y oppose\n"
              "  -> avis \"Non remis (restriction)\" envoye a <ext@partenaire.test>\n"
              "\nDestinataire 2/6 : <xpouvert@vorane.example>\n"
              "  Entree annuaire : uid=xpouvert, cn=xpouvert\n"
              "  Type de remise : LMTP\n"
              "  Serveur principal : oui (pas d'option -p)\n"
              "  Restrictions, dans l'ordre d'evaluation :\n"
              "    10+ JOKE:*@autre.test : fausse\n"
              "    20+ PCRE:^ext@partenaire\\.test$ : vraie -> decide : remise permise\n"
              "  Reponse automatique : aucune regle\n"
              "  -> LMTP : boite <xpouvert+Boite>, dans la transaction apres la boucle\n"
              "\nDestinataire 3/6 : <xpabsent@vorane.example>\n"
              "  Entree annuaire : uid=xpabsent, cn=xpabsent\n"
              "  Type de remise : LMTP\n"
              "  Serveur principal : oui (pas d'option -p)\n"
              "  Restrictions : aucune -> remise permise\n"
              "  Reponse automatique, regles dans l'ordre d'evaluation :\n"
              "    10~ JOKE:*@ailleurs.test TEXTE:Non : fausse\n"
              "    20~ TOUT:x DDEB:20000101 DFIN:20991231 FREQ:60 TEXTE:Absent.%h : vraie, du "
              "20000101 au 20991231, aujourd'hui <jour> -> decide\n"
              "  -> reponse due : frequence 60 min, texte : Absent.%h\n"
              "    Fichier de frequence " + F + " : derniere reponse le <date> -> pas de reponse avant le <date>\n"
              "    De : \"xpabsent\" <absent@vorane.example>\n"
              "    Gardes de la composition : aucune ne s'y oppose\n"
              "  -> pas de reponse (frequence)\n"
              "  -> LMTP : boite <xpabsent+Boite>, dans la transaction apres la boucle\n"
              "\nDestinataire 4/6 : <xpparti@vorane.example>\n"
              "  Entree annuaire : uid=xpparti, cn=xpparti\n"
              "  Type de remise : LMTP\n"
              "  Serveur principal : oui (pas d'option -p)\n"
              "  Restrictions : aucune -> remise permise\n"
              "  Reponse automatique, regles dans l'ordre d'evaluation :\n"
              "    10~ TOUT:x DFIN:20000101 TEXTE:Parti : vraie mais hors dates (jusqu'au "
              "20000101, aujourd'hui <jour>) -> arret, pas de reponse\n"
              "  -> pas de reponse : aucune regle ne s'applique\n"
              "  -> LMTP : boite <xpparti+Boite>, dans la transaction apres la boucle\n"
              "\nDestinataire 5/6 : <xpliste@vorane.example>\n"
              "  Entree annuaire : uid=(aucun), cn=xpliste\n"
              "  Type de remise : LISTE-MU\n"
              "  Serveur principal : oui (pas d'option -p)\n"
              "  Restrictions : aucune -> remise permise\n"
              "  Reponse automatique : aucune regle\n"
              "  -> liste : retours a <retours@vorane.example>\n"
              "    Reply-To de l'en-tete remplace par xpliste@vorane.example (pour la suite de la remise)\n"
              "    2 membre(s) inscrit(s)\n"
              "    apres expansion et suppression des doublons : 2 adresse(s), 1 lot(s) sendmail "
              "-f <retours@vorane.example>\n"
              "      a@x.test\n"
              "      b@y.test\n"
              "\nDestinataire 6/6 : <inconnu@vorane.example>\n"
              "  ! signalement de niveau -3 : v1.1.0/4198: Destinataire <inconnu@vorane.example> "
              "non trouve dans l'annuaire. message-id=<xp-1@partenaire.test>, "
              "from=<ext@partenaire.test>, to=<inconnu@vorane.example>(6/6)\n"
              "    -> remise reelle : avis \"Non remis (incident)\" a l'expediteur, puis la remise continue\n"
              "  Entree annuaire : aucune -> destinataire suivant\n"
              "\nTransaction LMTP apres la boucle, socket Unix /nulle/part :\n"
              "  mail from:<ext@partenaire.test>\n"
              "  rcpt to:<xpouvert+Boite>  pour <xpouvert@vorane.example>\n"
              "  rcpt to:<xpabsent+Boite>  pour <xpabsent@vorane.example>\n"
              "  rcpt to:<xpparti+Boite>  pour <xpparti@vorane.example>\n"
              "\nEn-tete que le stockage recevrait :\n"
              "  | Received: from mx.partenaire.test (mx [10.0.1.77])\n"
              "  | \tby relais.vorane.example\n"
              "  | X-Remise-Vorane: v1.1.0; le <date>;\n"
              "  | \t+ mdf=0; lda=1; ea=1; eab=0; fdv=0;\n"
              "  | \t+ from original: Jean Dupont <ext@partenaire.test>\n"
              "  | Message-ID: <xp-1@partenaire.test>\n"
              "  | From: \"> Jean Externe (par Internet)\"\n"
              "  | \t<ext@partenaire.test>\n"
              "  | X-ravokOrigine: par Internet\n"
              "  | Reply-To: xpliste@vorane.example\n"
              "  | To: xpliste@vorane.example\n"
              "  | Subject: essai\n"
              "\nFin de l'explication : rien n'a ete remis, envoye ni ecrit.\n");
}

// A directory that answers a search with two referrals to one part of the
// tree: the recipient is found once on the second server; a referral to a
// server that never answers, or to one that is down, or back to itself (no
// host: the same server), ends within the time limits, the message kept for
// a retry (never a recipient "not found").
TEST_F(Remise, RenvoiDeLAnnuaireSuivi) {
    ServeurMuet st_Muet;
    ASSERT_TRUE(DemarreServeurMuet(&st_Muet, ModeMuet::Accepte));
    for (const std::string &s_Cible :
         {sst_Annuaire.s_Hote, st_Muet.s_Hote, "127.0.0.1:" + std::to_string(PortLibre()), std::string()}) {
        AnnuaireEssai st_Premier;
        std::string s_Renvois;
        for (const std::string pc : {"ailleurs", "aussi"})
            s_Renvois += EntreeLdif("ou=" + pc, "objectClass: referral\nobjectClass: extensibleObject\n"
                                    "ou: " + pc + "\nref: ldap://" + s_Cible + "/ou=ailleurs," + SUFFIXE_ANNUAIRE_ESSAI + "\n");
        ASSERT_TRUE(DemarreAnnuaire(&st_Premier, s_Renvois)) << st_Premier.s_Erreur;
        ServeurLmtpEssai st_Lmtp(Accepte(1), false);
        ResultatProcessus r = Lance({"-r", st_Lmtp.Designation(), "-l", st_Premier.s_Hote}, "ext@partenaire.test",
                                    {"loin@vorane.example"}, Message());
        ArreteServeur(&st_Premier);
        EXPECT_FALSE(r.b_Expire);
        if (s_Cible != sst_Annuaire.s_Hote) {
            EXPECT_EQ(r.i_Statut, 75) << s_Cible;
            EXPECT_NE(r.s_Erreur.find(" !ERR:2, v1.1.0/2604: Erreur ldap_search_s"), std::string::npos) << r.s_Erreur;
        } else {
            EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
            EXPECT_NE(st_Lmtp.Recu().find("rcpt to:<loin>\n"), std::string::npos);
        }
    }
    ArreteServeurMuet(&st_Muet);
}

// A message from an internal sender through no known relay: nothing
// decorates its From, so the header gets no Reply-to of its own.
const std::string EMETTEUR = "k@dept.vorane.example", EXTERNE = "ext@partenaire.test";
std::string MessageInterne(const std::string &s_EnPlus = "To: Liste <sympa@vorane.example>\n") {
    return "From: " + EMETTEUR + "\nReceived: from poste by relais\nMessage-ID: <d-1@vorane.example>\n"
           "Subject: diffusion\n" + s_EnPlus + "\ncorps\n.\n..x\nfin\n";
}

class Diffusion : public Remise {};

// The part of a submitted message that follows the program's trace header
// (the date of that header varies).
std::string ApresTrace(const std::string &s) {
    std::size_t p = s.find("\t+ from original: ");
    return p == std::string::npos ? s : s.substr(s.find('\n', p) + 1);
}

// A list as stored (sorted by domain, its bounce address as sender), a list
// without members, an unknown list kind (its notice), a Sympa list, a Sympa
// bounce list, a list expanded through a nested one without duplicates in
// any case (the message's sender as bounce address), a list among its own
// members (not sent to itself, the other address of that value still is)
// and a mailbox in one run: the body is read
// once and each delivery gets it whole (a NUL byte included), with the
// list's Reply-To in place of the message's, also in the one LMTP
// transaction after the loop; the Sympa programs get the list address and
// the first To address.
TEST_F(Diffusion, ListesSympaEtBoite) {
    Capture cap;
    ServeurLmtpEssai st_Lmtp({Rep("220 ok\n"), Rep("250 ok\n"), Rep("250 ok\n"), Rep("354 go\n"),
                              Rep("250 ok\n"), Rep("221 bye\n")},
                             false);
    ResultatProcessus r = Lance({"-r", st_Lmtp.Designation()}, EMETTEUR,
                                {"liste@vorane.example", "vide@vorane.example", "fax@vorane.example",
                                 "sympa@vorane.example", "rebonds@vorane.example", "mu@vorane.example",
                                 "soi@vorane.example", "boite@vorane.example"},
                                MessageInterne("Reply-to: ailleurs@partenaire.test\n"
                                               "To: Liste <sympa@vorane.example>, autre@x.example\n") +
                                    "nul\0ici\n"s);
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_NE(r.s_Erreur.find(" !ERR:-3, v1.1.0/4422: Erreur annuaire, type de liste non supporte, "
                              "'ravokVixRemise=LISTE-FAX'. "),
              std::string::npos);
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 6u) << r.s_Erreur;
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
    EXPECT_EQ(a[5].v_Argv, (Liste{CAPTURE, "-i", "-f", EMETTEUR, "--", "m3@c.example", "m4@d.example",
                                  std::string(300, 'n') + "@e.example"}));
    const std::string s_Attendu =
        "Received: from poste by relais\nMessage-ID: <d-1@vorane.example>\n"
        "Subject: diffusion\nReply-To: liste@vorane.example\n"
        "To: Liste <sympa@vorane.example>, autre@x.example\n\ncorps\n.\n..x\nfin\nnul\0ici\n"s;
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
        ResultatProcessus r = Lance({}, EMETTEUR, {"liste@vorane.example"}, MessageInterne() + "nul\0ici\n"s);
        EXPECT_EQ(r.i_Statut, c.i_Attendu) << r.s_Erreur;
        EXPECT_NE(r.s_Erreur.find("v1.1.0/1891: Erreur sur pclose <exec "), std::string::npos);
        std::vector<Appel> a = cap.Appels();
        ASSERT_EQ(a.size(), c.i_Attendu == 0 ? 2u : 1u);
        EXPECT_TRUE(a[0].s_Entree.ends_with("\nfin\nnul\0ici\n"s));
        for (const std::string &s : Dumps("ERR", r.i_Pid))  // the body was never loaded: no body lines
            EXPECT_EQ(LitFichier(s).find("\nT>corps"), std::string::npos) << s;
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
        Remise::SetUpTestSuite();
        ASSERT_TRUE(DemarreCyrus(&sst_Cyrus, Boites(), true)) << sst_Cyrus.s_Erreur;
    }
    static void TearDownTestSuite() {
        ArreteServeur(&sst_Cyrus);
        Remise::TearDownTestSuite();
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
    ResultatProcessus r = Lance({"-r", sst_Cyrus.s_Socket}, EXTERNE, {"m101@vorane.example", "plein@vorane.example",
                                "m102@vorane.example"}, MessageExterne(std::string(3000, 'r') + "\n"));
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
    r = Lance({"-r", sst_Cyrus.s_Socket}, EXTERNE, v_Dest, MessageExterne(s_Corps));
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

    // An internationalised sender, which the store cannot read in its sender
    // command, goes as the null sender: stored, and no notice.
    r = Lance({"-r", sst_Cyrus.s_Socket}, "j\xc3\xb6hn@ext.test", {"m103@vorane.example"}, MessageExterne("x\n"));
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    Liste v = MessagesStockes(sst_Cyrus, "m103");
    ASSERT_EQ(v.size(), 2u) << r.s_Erreur;
    EXPECT_EQ(v.back().rfind("Return-Path: <>", 0), 0u);
    EXPECT_EQ(cap.Appels().size(), 2u);
}

}  // namespace
