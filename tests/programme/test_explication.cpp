// The explain form run as an administrator runs it, against a real slapd:
// what it says of each recipient, and that it delivers, sends and writes
// nothing whatever the entries say.
#include <gtest/gtest.h>

#include <ctime>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <utime.h>
#include <vector>

#include "serveurs_essai.h"
#include "capture_essai.h"
#include "processus.h"
#include "serveur_lmtp.h"

namespace {

using Liste = std::vector<std::string>;
const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string SPOOL = RACINE_SPOOL_ESSAI;

std::string Boite(const std::string &s_Uid, const std::string &s_Plus) {
    return EntreeLdif("uid=" + s_Uid, "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\n"
                                      "uid: " + s_Uid + "\ncn: " + s_Uid + "\nsn: s\nmail: " +
                                          s_Uid + "@vorane.example\nravokVixRemise: LMTP\n" +
                                          s_Plus);
}
std::string Liste_(const std::string &s_Nom, const std::string &s_Remise,
                   const std::string &s_Plus) {
    return EntreeLdif("cn=" + s_Nom, "objectClass: ravokVixListe\ncn: " + s_Nom + "\nmail: " +
                                         s_Nom + "@vorane.example\nravokVixRemise: " + s_Remise +
                                         "\n" + s_Plus);
}

const std::string ENTREES =
    Boite("xpferme", "ravokVixRestrictions: 10- JOKE:*@PARTENAIRE.test\n"
                     "ravokVixRestrictions: 05- TOUT:\n"
                     "ravokVixReponse: 10~ TOUT:x TEXTE:jamais\n") +
    Boite("xpouvert", "ravokVixRestrictions: 30- TOUT:x\n"
                      "ravokVixRestrictions: 10+ JOKE:*@autre.test\n"
                      "ravokVixRestrictions: 20+ PCRE:^ext@partenaire\\.test$\n") +
    Boite("xpabsent", "ravokVixmailEmission: absent@vorane.example\n"
                      "ravokVixReponse: 10~ JOKE:*@ailleurs.test TEXTE:Non\n"
                      "ravokVixReponse: 20~ TOUT:x DDEB:20000101 DFIN:20991231 FREQ:60 "
                      "TEXTE:Absent.%h\n") +
    Boite("xpgarde", "ravokVixmailEmission: absent@vorane.example\n"
                     "ravokVixReponse: 10~ TOUT:x FREQ:60 TEXTE:Absent.%h\n") +
    Boite("xpparti", "ravokVixReponse: 20~ TOUT:x TEXTE:jamais atteint\n"
                     "ravokVixReponse: 10~ TOUT:x DFIN:20000101 TEXTE:Parti\n") +
    Liste_("xpliste", "LISTE-MU",
           "ravokVixMembres: a@x.test\nravokVixMembres: xpsous@vorane.example\n"
           "info: AVIS: retours@vorane.example\ninfo: REPONSE: xpliste@vorane.example\n") +
    Liste_("xpsous", "LISTE-BR", "ravokVixMembres: b@y.test\nravokVixMembres: A@X.TEST\n") +
    EntreeLdif("uid=ext", "objectClass: inetOrgPerson\nuid: ext\ncn: Jean Externe\nsn: E\n"
                          "mail: ext@partenaire.test\n");

const std::string MESSAGE =
    "Received: from mx.partenaire.test (mx [10.0.1.77])\n\tby relais.vorane.example\n"
    "Message-ID: <xp-1@partenaire.test>\n"
    "From: Jean Dupont <ext@partenaire.test>\n"
    "To: xpliste@vorane.example\n"
    "Subject: essai\n\ncorps\n";

// Dates and the day as placeholders.
std::string Stable(std::string s) {
    char pc[16];
    time_t t = time(nullptr);
    strftime(pc, sizeof pc, "%Y%m%d", localtime(&t));
    s = std::regex_replace(s, std::regex(pc), "<jour>");
    return std::regex_replace(s, std::regex("[0-3][0-9]/[01][0-9]/20[0-9]{2} [0-9:]{8}"), "<date>");
}

class Explication : public ::testing::Test {
public:
    static AnnuaireEssai sst_Annuaire;
    static void SetUpTestSuite() {
        ASSERT_TRUE(DemarreAnnuaire(&sst_Annuaire, ENTREES)) << sst_Annuaire.s_Erreur;
    }
    static void TearDownTestSuite() { ArreteAnnuaire(&sst_Annuaire); }
    ResultatProcessus Lance(const Liste &v_Dest, const std::string &s_Message,
                            const std::string &s_Lmtp = "/nulle/part",
                            const std::string &s_Hote = sst_Annuaire.s_Hote) {
        Liste v = {PROG, "--explique", "-r", s_Lmtp, "-l", s_Hote, "-c", "+Boite",
                   "-e", "ext@partenaire.test", "-d"};
        v.insert(v.end(), v_Dest.begin(), v_Dest.end());
        return LanceProgramme(v, s_Message, 60);
    }
};
AnnuaireEssai Explication::sst_Annuaire;

// The spool's state a run for these recipients could change: names and
// modification times of their frequency files and delivery markers (tests
// run side by side: each looks at its own recipients only).
std::vector<std::string> EtatSpool(const Liste &v_Dest) {
    std::vector<std::string> v;
    for (const std::string &s_Dest : v_Dest) {
        const std::string s_Uid = s_Dest.substr(0, s_Dest.find('@'));
        for (const auto &[pc_Rep, s_Prefixe] :
             {std::pair<const char *, std::string>{"Absences", "AvisAbs.." + s_Uid + ".."},
              {"Remises", s_Uid}})
            for (const std::string &s : FichiersCommencantPar(SPOOL + pc_Rep, s_Prefixe)) {
                struct stat st = {};
                stat(s.c_str(), &st);
                v.push_back(s + " " + std::to_string(st.st_mtim.tv_sec) + "." +
                            std::to_string(st.st_mtim.tv_nsec));
            }
    }
    return v;
}

// Dump files of the process written since the time given.
std::vector<std::string> DumpsDepuis(int i_Pid, time_t t_Debut) {
    std::vector<std::string> v;
    for (const char *pc : {"ERR", "ATT"})
        for (const std::string &s : FichiersCommencantPar(
                 SPOOL + "Erreurs", std::string(pc) + ".remise." + std::to_string(i_Pid) + ".")) {
            struct stat st = {};
            if (stat(s.c_str(), &st) == 0 && st.st_mtime >= t_Debut) v.push_back(s);
        }
    return v;
}

// Sets the frequency file of a recipient of the suite and the test's sender
// to an age in seconds (-1: no file).
void Frequence(const std::string &s_Uid, int i_Age) {
    std::string s = SPOOL + "Absences/AvisAbs.." + s_Uid + "..ext@partenaire.test.txt";
    unlink(s.c_str());
    if (i_Age < 0) return;
    fclose(fopen(s.c_str(), "w"));
    struct utimbuf st = {time(nullptr) - i_Age, time(nullptr) - i_Age};
    utime(s.c_str(), &st);
}

// Runs the explain form, then checks that it acted on nothing: status 1,
// no command started, nothing said to the LMTP store, the spool as it was.
std::string Explique(Explication *pt, const Liste &v_Dest, const std::string &s_Message) {
    Capture cap;
    ServeurLmtpEssai st_Lmtp({Rep("220 pret\n"), Rep("250 ok\n")}, true);
    std::vector<std::string> v_Avant = EtatSpool(v_Dest);
    time_t t_Debut = time(nullptr);
    ResultatProcessus r = pt->Lance(v_Dest, s_Message, st_Lmtp.Designation());
    EXPECT_EQ(r.i_Statut, 1) << r.s_Erreur;
    EXPECT_TRUE(cap.Appels().empty());
    EXPECT_EQ(st_Lmtp.Recu(0), "");
    EXPECT_EQ(EtatSpool(v_Dest), v_Avant);
    EXPECT_EQ(DumpsDepuis(r.i_Pid, t_Debut), std::vector<std::string>{});
    std::string s = Stable(r.s_Sortie);
    for (std::size_t i; (i = s.find(st_Lmtp.Designation())) != std::string::npos;)
        s.replace(i, st_Lmtp.Designation().size(), "<lmtp>");
    return s;
}

// One run through every kind of decision: a deny line (after a malformed
// one) that refuses with a notice, an allow list let through by its second
// line, a reply inside its dates held back by a recent frequency file, one
// outside its dates (stopping the search) beside an existing file, a list
// expanded through a nested list without duplicates, an unknown recipient;
// then the one LMTP transaction and the header the store would get, with
// the list's Reply-To.
TEST_F(Explication, SortieComplete) {
    Frequence("xpabsent", 600);
    Frequence("xpparti", 600);
    const std::string F = SPOOL + "Absences/AvisAbs..xpabsent..ext@partenaire.test.txt";
    EXPECT_EQ(Explique(this, {"xpferme@vorane.example", "xpouvert@vorane.example",
                              "xpabsent@vorane.example", "xpparti@vorane.example",
                              "xpliste@vorane.example", "inconnu@vorane.example"},
                       MESSAGE),
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
              "    Fichier de frequence " + F + " : derniere reponse le <date> -> pas de reponse "
              "avant le <date>\n"
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
              "    Reply-To de l'en-tete remplace par xpliste@vorane.example (pour la suite de la "
              "remise)\n"
              "    2 membre(s) inscrit(s)\n"
              "    apres expansion et suppression des doublons : 2 adresse(s), 1 lot(s) sendmail "
              "-f <retours@vorane.example>\n"
              "      a@x.test\n"
              "      b@y.test\n"
              "\nDestinataire 6/6 : <inconnu@vorane.example>\n"
              "  ! signalement de niveau -3 : v1.1.0/4198: Destinataire <inconnu@vorane.example> "
              "non trouve dans l'annuaire. message-id=<xp-1@partenaire.test>, "
              "from=<ext@partenaire.test>, to=<inconnu@vorane.example>(6/6)\n"
              "    -> remise reelle : avis \"Non remis (incident)\" a l'expediteur, puis la remise "
              "continue\n"
              "  Entree annuaire : aucune -> destinataire suivant\n"
              "\nTransaction LMTP apres la boucle, socket Unix <lmtp> :\n"
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

// The reply's end of the explanation: what the frequency file and the
// guards make of a due reply.  A reply said to go leaves no frequency file
// behind, an old one keeps its date.
TEST_F(Explication, ReponseFrequenceEtGardes) {
    const std::string F = "    Fichier de frequence " + SPOOL +
                          "Absences/AvisAbs..xpgarde..ext@partenaire.test.txt : ";
    const std::string DE = "    De : \"xpgarde\" <absent@vorane.example>\n";
    const std::string ENVOI = DE + "    Gardes de la composition : aucune ne s'y oppose\n"
                              "  -> reponse automatique envoyee a <ext@partenaire.test> ; le "
                              "fichier de frequence serait mis a l'heure\n";
    struct Cas {
        const char *pc_Nom;
        int i_Age;  // of the frequency file, seconds; -1: none
        std::string s_EnPlus, s_Attendu;
    } tst[] = {
        {"sans fichier", -1, "", F + "absent -> reponse permise\n" + ENVOI},
        {"fichier ancien", 7200, "", F + "derniere reponse le <date> -> reponse permise\n" + ENVOI},
        {"fichier recent", 600, "", F + "derniere reponse le <date> -> pas de reponse avant le "
                                        "<date>\n" + DE + "    Gardes de la composition : aucune "
                                        "ne s'y oppose\n  -> pas de reponse (frequence)\n"},
        {"liste", -1, "List-Id: <l.partenaire.test>\n",
         F + "absent -> reponse permise\n" + DE + "    Gardes de la composition : 2735, message "
             "de liste (en-tete List-* ou X-List-*)\n  -> pas de reponse (garde)\n"},
    };
    for (const Cas &c : tst) {
        SCOPED_TRACE(c.pc_Nom);
        Frequence("xpgarde", c.i_Age);
        std::string s = Explique(this, {"xpgarde@vorane.example"},
                                 "Received: from x\nFrom: ext@partenaire.test\n" + c.s_EnPlus +
                                     "\n");
        std::size_t p = s.find(F);
        ASSERT_NE(p, std::string::npos) << s;
        EXPECT_EQ(s.substr(p, s.find("  -> LMTP") - p), c.s_Attendu);
    }
    Frequence("xpgarde", -1);
}

// Without a message on standard input a minimal one stands in; a directory
// that cannot be reached is said after one attempt, and ends the
// explanation.
TEST_F(Explication, MessageMinimalEtAnnuaireInjoignable) {
    std::string s = Explique(this, {"xpouvert@vorane.example"}, "");
    EXPECT_NE(s.find("Message : aucun sur l'entree standard, message minimal\n"), std::string::npos);
    EXPECT_NE(s.find("  | Received: by localhost (remise-vorane --explique)\n"
                     "  | X-Remise-Vorane: v1.1.0; le <date>;\n"
                     "  | \t+ mdf=0; lda=1; ea=1; eab=0; fdv=0;\n"
                     "  | \t+ from original: <ext@partenaire.test>\n"
                     "  | Message-ID: <explication@remise-vorane>\n"
                     "  | From: \"Jean Externe\"\n  | \t<ext@partenaire.test>\n"
                     "  | To: <xpouvert@vorane.example>\n  | Subject: explication\n\n"),
              std::string::npos)
        << s;

    const std::string s_Hote = "127.0.0.1:" + std::to_string(PortLibre());
    ResultatProcessus r = Lance({"xpouvert@vorane.example"}, MESSAGE, "/nulle/part", s_Hote);
    EXPECT_EQ(r.i_Statut, 1);
    const std::string s_Info = "message-id=<xp-1@partenaire.test>, from=<ext@partenaire.test>, "
                               "to=<xpouvert@vorane.example>(-/1)";
    EXPECT_EQ(r.s_Sortie.substr(r.s_Sortie.find("  !")),
              "  ! signalement de niveau 4 : v1.1.0/2542: Erreur ldap_open <" + s_Hote +
                  ">, errno=107 (Transport endpoint is not connected). " + s_Info + "\n"
                  "    -> avertissement, la remise continue\n"
                  "  (remise reelle : un essai toutes les 1 s pendant 3 s, puis :)\n"
                  "  ! signalement de niveau 2 : v1.1.0/2576: Erreur connection LDAP sur <" +
                  s_Hote + ">. " + s_Info + ". Possibilite de depots repetes\n"
                  "    -> remise reelle : arret, statut 75 (Postfix garde le message et le "
                  "representera)\nFin de l'explication : la remise s'arreterait ici.\n");
}

}  // namespace
