// The whole program as Postfix runs it, against a real slapd and the
// scripted LMTP server: the bytes the store receives, the rewritten header,
// the recipient loop's outcomes and the exit status.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "adresse_unique.h"
#include "serveurs_essai.h"
#include "processus.h"
#include "serveur_lmtp.h"

namespace {

const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;

// Directory of the suite: mailboxes, the other delivery kinds, broken
// entries, and an external sender known by its address.
std::string Boite(const std::string &s_Uid, const std::string &s_Cn, const std::string &s_Remise,
                  const std::string &s_Plus = "") {
    return EntreeLdif("uid=" + s_Uid, "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\n"
                                      "uid: " + s_Uid + "\ncn: " + s_Cn + "\nsn: " + s_Uid +
                                          "\nmail: " + s_Uid + "@vorane.example\n"
                                          "ravokVixRemise: " + s_Remise + "\n" + s_Plus);
}

const std::string ENTREES =
    Boite("alice", "Alice Martin", "LMTP", "ravokVixmailEmission: a.martin@vorane.example\n") +
    Boite("bob", "Bob", "lmtp") + Boite("dora", "Dora", "LMTP", "ravokVixServeurPrincipal: MX1\n") + Boite("carole", "Carole", "LMTP-cyrus") +
    Boite("nul", "Nul", "NULL") + Boite("attente", "Attente", "ATTENTE") +
    Boite("bizarre", "Bizarre", "FAX") +
    EntreeLdif("cn=sansuid", "objectClass: ravokVixListe\ncn: sansuid\n"
                             "mail: sansuid@vorane.example\nravokVixRemise: LMTP\n") +
    EntreeLdif("uid=sansremise", "objectClass: inetOrgPerson\nuid: sansremise\ncn: S\nsn: S\n"
                                 "mail: sansremise@vorane.example\n") +
    EntreeLdif("uid=ext", "objectClass: inetOrgPerson\nuid: ext\ncn: Jean Externe\nsn: E\n"
                          "mail: ext@partenaire.test\n") +
    // Reached only through a referral from another server.
    EntreeLdif("ou=ailleurs", "objectClass: organizationalUnit\nou: ailleurs\n") +
    EntreeLdif("uid=loin,ou=ailleurs", "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\n"
                                       "uid: loin\ncn: Loin\nsn: L\nmail: loin@vorane.example\n"
                                       "ravokVixRemise: LMTP\n");

// Accepts a transaction for n recipients.
std::vector<EtapeLmtp> ScriptAccepte(int n) {
    std::vector<EtapeLmtp> v = {Rep("220 lmtp ready\n"), Rep("250 2.1.0 ok\n")};
    for (int i = 0; i < n; i++) v.push_back(Rep("250 2.1.5 ok\n"));
    v.push_back(Rep("354 go ahead\n"));
    std::string s_Fin;  // one reply per recipient after the data
    for (int i = 0; i < n; i++) s_Fin += "250 2.1.5 Success\n";
    v.push_back(Rep(s_Fin));
    v.push_back(Rep("221 2.0.0 bye\n"));
    return v;
}

class Remise : public ::testing::Test {
protected:
    static AnnuaireEssai sst_Annuaire;
    static void SetUpTestSuite() {
        ASSERT_TRUE(DemarreAnnuaire(&sst_Annuaire, ENTREES)) << sst_Annuaire.s_Erreur;
    }
    static void TearDownTestSuite() { ArreteAnnuaire(&sst_Annuaire); }

    // Runs the program for the recipients with the message on its input.
    ResultatProcessus Lance(const std::string &s_Lmtp, const std::string &s_Emetteur,
                            const std::vector<std::string> &v_Dest, const std::string &s_Message,
                            std::vector<std::string> v_Options = {}) {
        std::vector<std::string> v = {PROG, "-r", s_Lmtp, "-l", sst_Annuaire.s_Hote};
        v.insert(v.end(), v_Options.begin(), v_Options.end());
        v.push_back("-e");
        v.push_back(s_Emetteur);
        v.push_back("-d");
        v.insert(v.end(), v_Dest.begin(), v_Dest.end());
        return LanceProgramme(v, s_Message, 60);
    }
};
AnnuaireEssai Remise::sst_Annuaire;

// The trace header's first line, with its date as a pattern.
const std::string DATE = "[0-3][0-9]/[01][0-9]/20[0-9][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9]";

// Replaces the date of the trace header by "<date>" after checking its form.
std::string SansDate(const std::string &s) {
    return std::regex_replace(s, std::regex("v1\\.1\\.0; le " + DATE + ";"), "v1.1.0; le <date>;");
}

const std::string MESSAGE_EXTERNE =
    "Return-Path: <ext@partenaire.test>\n"
    "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
    "Message-ID: <essai-1@partenaire.test>\n"
    "From: Jean Dupont <ext@partenaire.test>\n"
    "To: alice@vorane.example\n"
    "Subject: essai\n"
    "\n"
    "corps\n"
    ".\n"
    "..x\n";

// Three mailbox recipients share one transaction; the store gets the
// rewritten header and the body, dot-stuffed, and the run ends with 0.
TEST_F(Remise, TroisBoitesUneTransaction) {
    ServeurLmtpEssai st_Lmtp(ScriptAccepte(3), false);
    ResultatProcessus r = Lance(st_Lmtp.Designation(), "ext@partenaire.test",
                                {"Alice@Vorane.Example", "bob@vorane.example", "carole@vorane.example"},
                                MESSAGE_EXTERNE);
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(r.s_Erreur, "remise-vorane[" + std::to_string(r.i_Pid) +
                              "]: message-id=<essai-1@partenaire.test>, from=<ext@partenaire.test>, "
                              "to=<->(-/3)\n");
    std::string s_Recu = st_Lmtp.Recu();
    EXPECT_EQ(SansDate(s_Recu),
              "mail from:<ext@partenaire.test>\n"
              "rcpt to:<alice>\nrcpt to:<bob>\nrcpt to:<carole>\n"
              "DATA\n"
              "X-Remise-Vorane: v1.1.0; le <date>;\n"
              "\t+ mdf=0; lda=1; ea=1; eab=0; fdv=0;\n"
              "\t+ from original: Jean Dupont <ext@partenaire.test>\n"
              "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
              "Message-ID: <essai-1@partenaire.test>\n"
              "From: \"> Jean Externe (par Internet)\"\n\t<ext@partenaire.test>\n"
              "X-ravokOrigine: par Internet\n"
              "Reply-to: \"Jean Externe\"\n\t<ext@partenaire.test>\n"
              "To: alice@vorane.example\n"
              "Subject: essai\n"
              "\n"
              "corps\n"
              "..\n"
              "...x\n"
              "\n.\n"
              "QUIT\n");
}

// A sender that differs from the From, an 8-bit Subject, an existing
// Reply-To, and a spam flag: from-differs line, the deposit in the display
// name (UTF-8 text converted to the From's character set), the Subject
// encoded with the original kept in the trace header, the -s suffix.
TEST_F(Remise, EnveloppeDifferenteSujet8bitsEtSpam) {
    ServeurLmtpEssai st_Lmtp(ScriptAccepte(1), true);
    std::string s_Message =
        "Received: from x ([10.0.1.5])\n"
        "From: =?ISO-8859-1?Q?J=E9r=F4me?= <jerome@partenaire.test>\n"
        "Reply-To: ailleurs@partenaire.test\n"
        "Subject: caf\xe9 cr\xe8me\n"
        "X-Spam-Flag: YES\n"
        "\n"
        "corps\n";
    ResultatProcessus r = Lance(st_Lmtp.Designation(), "robot@envoi.test", {"alice@vorane.example"},
                                s_Message, {"-c", "", "-s", "+Spam"});
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    std::string s_Recu = SansDate(st_Lmtp.Recu());
    EXPECT_NE(s_Recu.find("rcpt to:<alice+Spam>\n"), std::string::npos) << s_Recu;
    EXPECT_NE(s_Recu.find("X-Remise-Vorane: v1.1.0; le <date>;\n"
                          "\t+ mdf=1; lda=1; ea=0; eab=0; fdv=0;\n"
                          "\t+ sujet original: caf\xe9 cr\xe8me\n"
                          "\t+ from original: =?ISO-8859-1?Q?J=E9r=F4me?= <jerome@partenaire.test>\n"
                          "From: =?ISO-8859-1?Q?=22=3E_J=E9r=F4me_=28par_Internet=2C_d=E9p=F4t_robot=40?=\n"
                          "\t=?ISO-8859-1?Q?envoi=2Etest=29=22?=\n"
                          "\t<jerome@partenaire.test>\n"
                          "X-ravokOrigine: par Internet\n"
                          "X-ravokFromDifferent: 1\n"
                          "Reply-To: ailleurs@partenaire.test\n"
                          "Subject: =?iso8859-15?Q?caf=E9_cr=E8me?=\n"),
              std::string::npos)
        << s_Recu;
}

// ATTENTE second of three: the run stops there with 75; the mailbox met
// before it is not delivered in this run and the third is never looked at.
TEST_F(Remise, AttenteArreteLaRemise) {
    ServeurLmtpEssai st_Lmtp(ScriptAccepte(1), false);
    ResultatProcessus r =
        Lance(st_Lmtp.Designation(), "ext@partenaire.test",
              {"alice@vorane.example", "attente@vorane.example", "inconnu@vorane.example"},
              MESSAGE_EXTERNE);
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(r.s_Erreur.find("inconnu"), std::string::npos) << r.s_Erreur;
    EXPECT_EQ(st_Lmtp.Recu(1), "");
}

// NULL drops, unknown and broken entries are reported at level -3 with a
// dump file each, and the mailbox among them is still delivered.
TEST_F(Remise, DestinatairesEnErreurEtSuite) {
    ServeurLmtpEssai st_Lmtp(ScriptAccepte(1), false);
    ResultatProcessus r = Lance(st_Lmtp.Designation(), "ext@partenaire.test",
                                {"nul@vorane.example", "inconnu@vorane.example",
                                 "sansuid@vorane.example", "sansremise@vorane.example",
                                 "bizarre@vorane.example", "bob@vorane.example"},
                                MESSAGE_EXTERNE);
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    const std::string s_Info = "message-id=<essai-1@partenaire.test>, from=<ext@partenaire.test>, to=";
    for (const std::string &s :
         {"v1.1.0/4198: Destinataire <inconnu@vorane.example> non trouve dans l'annuaire. " + s_Info +
              "<inconnu@vorane.example>(2/6)",
          "v1.1.0/4475: Erreur annuaire, 'uid' non renseigne pour une remise LMTP. " + s_Info +
              "<sansuid@vorane.example>(3/6)",
          "v1.1.0/4205: Erreur annuaire, 'ravokVixRemise' non renseigne. " + s_Info +
              "<sansremise@vorane.example>(4/6)",
          "v1.1.0/4499: Erreur annuaire, type de remise non supporte, 'ravokVixRemise=FAX'. " +
              s_Info + "<bizarre@vorane.example>(5/6)"})
        EXPECT_NE(r.s_Erreur.find(" !ERR:-3, " + s + "\n" + s + "\n"), std::string::npos) << s;
    std::vector<std::string> v_Dumps = FichiersCommencantPar(
        std::string(RACINE_SPOOL_ESSAI) + "Erreurs", "ERR.remise." + std::to_string(r.i_Pid) + ".");
    EXPECT_EQ(v_Dumps.size(), 4u);
    for (const std::string &s : v_Dumps) {
        std::string s_Dump = LitFichier(s);
        EXPECT_NE(s_Dump.find("\nAction: LOG_ERR, pour avis de non remise\n"), std::string::npos);
        EXPECT_NE(s_Dump.find("Dest[6]=<bob@vorane.example>\n"), std::string::npos);
        EXPECT_NE(s_Dump.find("O>From: Jean Dupont <ext@partenaire.test>\n"), std::string::npos);
        EXPECT_NE(s_Dump.find("T>X-Remise-Vorane: v1.1.0; le "), std::string::npos);
    }
    std::string s_Recu = st_Lmtp.Recu();
    EXPECT_EQ(s_Recu.substr(0, s_Recu.find("DATA\n")),
              "mail from:<ext@partenaire.test>\nrcpt to:<bob>\n");
}

// A store that cannot be reached: three attempts, then 75 for Postfix.
TEST_F(Remise, TroisEssaisPuisNouvelleTentativeParPostfix) {
    std::string s_Hote = "127.0.0.1:" + std::to_string(PortLibre());
    auto t_Debut = std::chrono::steady_clock::now();
    ResultatProcessus r = Lance(s_Hote, "ext@partenaire.test", {"alice@vorane.example"},
                                MESSAGE_EXTERNE);
    EXPECT_EQ(r.i_Statut, 75);
    // Two pauses between the three attempts (1 s each in the test build).
    EXPECT_GE(std::chrono::steady_clock::now() - t_Debut, std::chrono::seconds(2));
    EXPECT_NE(r.s_Erreur.find(" !ERR:2, v1.1.0/4549: Trop d'essais Remise_LMTP sur " + s_Hote +
                              ", cr=111. message-id=<essai-1@partenaire.test>, "
                              "from=<ext@partenaire.test>, to=<alice@vorane.example>(-/1)\n"),
              std::string::npos)
        << r.s_Erreur;
}

// A message that went through the program once comes back: the name of the
// first pass is taken back and both passes show in the new trace header.
TEST_F(Remise, DeuxiemePassage) {
    std::string s_Message =
        "From: Inconnu <inconnu@partenaire.test>\n"
        "Subject: essai\n"
        "\n"
        "corps\n";
    ServeurLmtpEssai st_Premier(ScriptAccepte(1), false);
    ResultatProcessus r = Lance(st_Premier.Designation(), "inconnu@partenaire.test",
                                {"alice@vorane.example"}, s_Message);
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    std::string s_Livre = DonneesRecues(st_Premier.Recu());
    s_Livre = s_Livre.substr(0, s_Livre.size() - 1);  // the empty line the end of data added
    EXPECT_EQ(SansDate(s_Livre),
              "From: \"Inconnu\"\n\t<inconnu@partenaire.test>\n"
              "X-Remise-Vorane: v1.1.0; le <date>;\n"
              "\t+ mdf=0; lda=1; ea=0; eab=0; fdv=0;\n"
              "\t+ from original: Inconnu <inconnu@partenaire.test>\n"
              "Subject: essai\n\ncorps\n");

    ServeurLmtpEssai st_Second(ScriptAccepte(1), false);
    r = Lance(st_Second.Designation(), "inconnu@partenaire.test", {"bob@vorane.example"}, s_Livre);
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    std::string s_Second = SansDate(DonneesRecues(st_Second.Recu()));
    EXPECT_EQ(s_Second.substr(0, s_Second.find("Subject:")),
              "From: \"Inconnu\"\n\t<inconnu@partenaire.test>\n"
              "X-Remise-Vorane: v1.1.0; le <date>;\n"
              "\t+ mdf=0; lda=1; ea=0; eab=0; fdv=0;\n"
              "\t+ from original: Inconnu <inconnu@partenaire.test>,\n"
              "\t+ from original: \"Inconnu\"\n\t<inconnu@partenaire.test>\n"
              "X-Remise-Vorane: v1.1.0; le <date>;\n"
              "\t+ mdf=0; lda=1; ea=0; eab=0; fdv=0;\n"
              "\t+ from original: Inconnu <inconnu@partenaire.test>\n");
}

// No From line, an empty envelope sender: warnings, the fall-back name,
// a From line put at the head, "anonyme" as depositor.  The placeholder
// sender lies in the internal top-level zone outside the internal domain's
// subdomains, so the message is marked as from an unauthenticated sender.
TEST_F(Remise, SansFromEtEmetteurVide) {
    ServeurLmtpEssai st_Lmtp(ScriptAccepte(1), false);
    ResultatProcessus r = Lance(st_Lmtp.Designation(), "", {"alice@vorane.example"},
                                "Subject: rebond\n\ncorps\n");
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_NE(r.s_Erreur.find(" !ERR:4, v1.1.0/3688: Analyse du From, partie adresse vide ! <\n> ?."),
              std::string::npos);
    EXPECT_NE(r.s_Erreur.find(" !ERR:4, v1.1.0/4063: Entete sans 'From:'..."), std::string::npos);
    std::string s_Recu = SansDate(st_Lmtp.Recu());
    EXPECT_NE(s_Recu.find("mail from:<mailer-daemon@vorane.example>\n"), std::string::npos)
        << s_Recu;
    EXPECT_EQ(s_Recu.substr(s_Recu.find("DATA\n")),
              "DATA\n"
              "From: =?ISO-8859-15?Q?=22=7E_Adresse_emetteur_illisible_=2D_Adresse_vide_=28?=\n"
              "\t=?ISO-8859-15?Q?emetteur_non_authentifie=2C_d=E9p=F4t_anonyme=29=22?=\n"
              "\t<postmaster@vorane.example>\n"
              "X-Remise-Vorane: v1.1.0; le <date>;\n"
              "\t+ mdf=1; lda=0; ea=0; eab=0; fdv=0;\n"
              "\t+ from original: __NonTrouveParDecod__\n"
              "Subject: rebond\n"
              "X-ravokOrigine: emetteur non authentifie\n"
              "X-ravokFromDifferent: 1\n"
              "Reply-to: \"Adresse emetteur illisible - Adresse vide\"\n"
              "\t<postmaster@vorane.example>\n"
              "\ncorps\n\n.\nQUIT\n");
}

// Every byte of a literal, NULs included.
template <std::size_t N>
std::string Octets(const char (&pc)[N]) {
    return std::string(pc, N - 1);
}

// Bad input never crashes the program nor ends it with 0 unless the store
// took the message whole; a NUL byte in the header is read as "?" and cuts
// nothing after it (the body keeps its bytes).
TEST_F(Remise, EntreesMalFormees) {
    std::string s_Longue(100000, 'x');
    std::string s_DixMille;
    for (int i = 0; i < 10000; i++) s_DixMille += "X-Ligne-" + std::to_string(i) + ": v\n";
    struct Cas {
        std::string s_Message, s_Livre;
    };
    const std::vector<Cas> v_Cas = {
        {"", ""},
        {"Subject: sans ligne vide\n", ""},
        {s_DixMille + "\ncorps\n", ""},
        {"Subject: " + s_Longue + "\n\n" + s_Longue + "\n", ""},
        {Octets("Subject: nul\0ici\n\tsuite\n\0To: x\n\ncorps\0\n"),
         Octets("Subject: nul?ici\n\tsuite\n?To: x\n\ncorps\0\n\n")},
        {"Subject: crlf\r\nFrom: a <ext@partenaire.test>\r\n\r\ncorps\r\n.\r\n", ""},
    };
    for (const Cas &c : v_Cas) {
        ServeurLmtpEssai st_Lmtp(ScriptAccepte(1), false);
        ResultatProcessus r = Lance(st_Lmtp.Designation(), "ext@partenaire.test",
                                    {"alice@vorane.example"}, c.s_Message);
        std::string s_Recu = st_Lmtp.Recu();
        EXPECT_EQ(r.i_Signal, 0);
        EXPECT_FALSE(r.b_Expire);
        EXPECT_TRUE(r.i_Statut == 0 || r.i_Statut == 65 || r.i_Statut == 75) << r.i_Statut;
        bool b_Terminee = false;
        std::string s_Donnees = DonneesRecues(s_Recu, &b_Terminee);
        if (r.i_Statut == 0) {
            EXPECT_TRUE(b_Terminee) << c.s_Message.substr(0, 40);
        }
        if (!c.s_Livre.empty()) {
            EXPECT_EQ(s_Donnees.substr(s_Donnees.find("Subject:")), c.s_Livre);
        }
    }
}

}  // namespace

namespace {

// One field of a header: its name (lower case, up to the colon) and its
// whole text, continuation lines and final line feed included.
struct Champ {
    std::string s_Nom;
    std::string s_Texte;
};

// Splits a message at the line feeds into its header fields (a line that
// begins with a blank or a tab continues the field before it) and its body,
// which follows the first empty line.
std::vector<Champ> Champs(const std::string &s_Message, std::string *ps_Corps) {
    std::vector<Champ> v;
    std::size_t p = 0;
    while (p < s_Message.size() && s_Message[p] != '\n') {
        std::size_t q = s_Message.find('\n', p);
        q = q == std::string::npos ? s_Message.size() : q + 1;
        std::string s_Ligne = s_Message.substr(p, q - p);
        if ((s_Ligne[0] == ' ' || s_Ligne[0] == '\t') && !v.empty()) {
            v.back().s_Texte += s_Ligne;
        } else {
            std::string s_Nom = s_Ligne.substr(0, s_Ligne.find(':'));
            for (char &c : s_Nom) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
            v.push_back({s_Nom, s_Ligne});
        }
        p = q;
    }
    *ps_Corps = p < s_Message.size() ? s_Message.substr(p + 1) : "";
    return v;
}

// A hostile From (and what comes with it) run through the whole program:
// the store gets the fields it was sent, the program's own and nothing
// else; every line the program wrote is one field without control bytes
// but its folding; the From and the Reply-to name exactly one address; the
// body is where it was.
TEST_F(Remise, FromHostileSansInjection) {
    const std::string FIN = "To: alice@vorane.example\n\ncorps\n";
    const std::string TRACE = "X-Remise-Vorane: v1.1.0; le 01/02/2024 10:00:00;\n"
                              "\t+ mdf=0; lda=1; ea=0; eab=0; fdv=0;\n\t+ from original: ";
    const std::string BLANCS(998, ' ');  // "From: <a@partenaire.test>" + blanks: 1023 bytes
    std::string s_Echappes;  // 247 escaped ">" and "a@b.test": an address of 255
    for (int i = 0; i < 247; i++) s_Echappes += "\\>";
    struct {
        const char *pc_Nom;
        std::string s_Suite;                // what follows Received and Message-ID
        std::string s_Attendu = "";         // found in the header delivered
        const char *pc_Emetteur = nullptr;  // envelope sender, if not ext@partenaire.test
    } t[] = {
        {"ligne_echappee_reprise_d_une_trace",
         TRACE + "Ancien <x\\\n\tReply-To:attacker@evil.example>\n"
                 "From: x\\\n\tReply-To:attacker@evil.example\n" + FIN,
         "\t+ from original: Ancien <\"x Reply-To:attacker\"@evil.example>,\n"},
        {"deux_lignes_echappees_dont_une_vide",
         TRACE + "Ancien <x\\\n\t\\\n\ty@evil.example>\nFrom: x\\\n\t\\\n\ty@evil.example\n" + FIN},
        {"ligne_repliee_vide", "From: x\\\n\t\n\ty@evil.example\n" + FIN},
        {"retour_chariot_seul",
         "From: Nom\rBcc: victime@x.test <\"a\rb\"@partenaire.test>\n"
         "Subject: caf\xe9\rBcc: victime@x.test\n" + FIN,
         "\t+ sujet original: caf\xe9 Bcc: victime@x.test\n"},
        {"mot_encode_avec_sauts_de_ligne",
         "From: =?UTF-8?Q?Nom=0ABcc:_victime@x.test=0D?= <\"a\rb\"@partenaire.test>\n" + FIN},
        {"chevrons_et_virgules_echappes",
         "From: a\\>\\,\\ \"Boss\"\\ \\<ceo@vorane.example\n" + FIN,
         "\n\t<\"a>, \\\"Boss\\\" <ceo\"@vorane.example>\n"},
        {"trace_precedente_hostile",
         TRACE + "Pre\x0b\x01" "cedent <a\\>\\,\\ \"Boss\"\\ \\<ceo@vorane.example>\n"
                 "From: a\\>\\,\\ \"Boss\"\\ \\<ceo@vorane.example\n" + FIN},
        {"guillemet_ouvert", "From: \"Boss <ceo@vorane.example>\n" + FIN},
        {"barre_oblique_finale", "From: <x@partenaire.test\\\\>\n" + FIN},
        {"echappements_jusqu_a_255", "From: <" + s_Echappes + "a@b.test>\n" + FIN},
        {"nom_de_509_caracteres", "From: " + std::string(509, 'n') + " <a@partenaire.test>\n" + FIN,
         "", "a@partenaire.test"},
        {"octets_8_bits",
         "From: J\xe9r\xf4me \xe9 <a\xe9" "b@partenaire.test>\nSubject: \xe9t\xe9\n" + FIN,
         "\t+ from original: J\xe9r\xf4me \xe9 <a\xe9" "b@partenaire.test>\n"},
        {"charset_hostile_du_from", "From: =?UTF-8\r?Q?N=C3=A9?= <a@partenaire.test>\n" + FIN},
        {"charset_utf16_du_from", "From: =?UTF-16LE?Q?x?= <a@partenaire.test>\n" + FIN},
        {"ligne_plus_longue_qu_une_lecture",
         "From: <a@partenaire.test>" + BLANCS + "Reply-To: attacker@evil.example\n" + FIN},
        {"ligne_de_1023_octets", "From: <a@partenaire.test>" + BLANCS + "\n" + FIN},
        {"fin_sans_saut_de_ligne", "To: alice@vorane.example\nFrom: x <a@partenaire.test>"},
    };
    const std::set<std::string> st_Propres = {"x-remise-vorane", "x-ravokorigine",
                                              "x-ravokfromdifferent", "reply-to"};
    int i_Rang = 0;
    for (auto &c : t) {
        SCOPED_TRACE(c.pc_Nom);
        std::string s_Message = "Received: from mx.partenaire.test (mx [10.0.1.77])\n"
                                "\tby relais.vorane.example\n"
                                "Message-ID: <hostile-" + std::to_string(++i_Rang) +
                                "@partenaire.test>\n" + c.s_Suite;
        ServeurLmtpEssai st_Lmtp(ScriptAccepte(1), false);
        const char *pc_Emetteur = c.pc_Emetteur != nullptr ? c.pc_Emetteur : "ext@partenaire.test";
        ResultatProcessus r =
            Lance(st_Lmtp.Designation(), pc_Emetteur, {"alice@vorane.example"}, s_Message);
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        std::string s_Corps, s_CorpsLivre, s_Livre = DonneesRecues(st_Lmtp.Recu());
        std::vector<Champ> v_Recus = Champs(s_Message, &s_Corps);
        std::vector<Champ> v_Livres = Champs(s_Livre, &s_CorpsLivre);
        EXPECT_EQ(s_CorpsLivre.substr(0, s_Corps.size()), s_Corps);
        EXPECT_NE(s_Livre.substr(0, s_Livre.size() - s_CorpsLivre.size()).find(c.s_Attendu),
                  std::string::npos)
            << s_Livre;

        // Names: as many as were sent, plus the program's own lines once
        // each (its trace header always) and a From where there was none.
        std::map<std::string, int> m_Recus, m_Livres;
        for (const Champ &ch : v_Recus) m_Recus[ch.s_Nom]++;
        for (const Champ &ch : v_Livres) m_Livres[ch.s_Nom]++;
        for (const auto &[s_Nom, n] : m_Livres) {
            int i_Plus = st_Propres.count(s_Nom) != 0 || (s_Nom == "from" && m_Recus[s_Nom] == 0);
            EXPECT_LE(n, m_Recus[s_Nom] + i_Plus) << s_Nom << " added";
        }
        for (const auto &[s_Nom, n] : m_Recus) EXPECT_GE(m_Livres[s_Nom], n) << s_Nom << " lost";
        EXPECT_EQ(m_Livres["x-remise-vorane"], m_Recus["x-remise-vorane"] + 1);

        // Lines the program wrote: no control byte but the folding, and one
        // address in the From and in a Reply-to of its own.
        for (const Champ &ch : v_Livres) {
            bool b_Recu = false;
            for (const Champ &ch_Recu : v_Recus) b_Recu = b_Recu || ch_Recu.s_Texte == ch.s_Texte;
            if (b_Recu) continue;
            for (unsigned char o : ch.s_Texte)
                EXPECT_TRUE(o >= 0x20 ? o != 0x7f : o == '\n' || o == '\t')
                    << static_cast<int>(o) << " in " << ch.s_Texte;
            if (ch.s_Nom == "from" || ch.s_Nom == "reply-to") {
                EXPECT_EQ(DefautAdresseUnique(ch.s_Texte), "");
            }
        }
    }
}

// A directory that answers a search with a referral: the library follows it
// and finds the recipient on the second server; a referral to a server that
// never answers ends within the time limits, the message kept for a retry.
TEST_F(Remise, RenvoiDeLAnnuaireSuivi) {
    ServeurMuet st_Muet;
    ASSERT_TRUE(DemarreServeurMuet(&st_Muet, ModeMuet::Accepte));
    for (const std::string &s_Cible : {sst_Annuaire.s_Hote, st_Muet.s_Hote}) {
        AnnuaireEssai st_Premier;
        ASSERT_TRUE(DemarreAnnuaire(
            &st_Premier, EntreeLdif("ou=ailleurs", "objectClass: referral\nobjectClass: "
                                                   "extensibleObject\nou: ailleurs\nref: ldap://" +
                                                       s_Cible + "/ou=ailleurs," +
                                                       SUFFIXE_ANNUAIRE_ESSAI + "\n")))
            << st_Premier.s_Erreur;
        ServeurLmtpEssai st_Lmtp(ScriptAccepte(1), false);
        ResultatProcessus r = Lance(st_Lmtp.Designation(), "ext@partenaire.test",
                                    {"loin@vorane.example"}, MESSAGE_EXTERNE,
                                    {"-l", st_Premier.s_Hote});
        ArreteAnnuaire(&st_Premier);
        EXPECT_FALSE(r.b_Expire);
        if (s_Cible == st_Muet.s_Hote) {
            EXPECT_EQ(r.i_Statut, 75);
            EXPECT_NE(r.s_Erreur.find(" !ERR:2, v1.1.0/2604: Erreur ldap_search_s"),
                      std::string::npos)
                << r.s_Erreur;
        } else {
            EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
            EXPECT_NE(st_Lmtp.Recu().find("rcpt to:<loin>\n"), std::string::npos);
        }
    }
    ArreteServeurMuet(&st_Muet);
}

}  // namespace

