// The program reads the message's header after its command-line checks:
// from then on every report dumps the incoming and working headers.  The
// runs here have no directory to reach, so each ends at the directory
// connection, before the header is rewritten, with status 75; the warnings
// of its attempts share one dump file.
#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "processus.h"

namespace {

const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string REP_ERREURS = std::string(RACINE_SPOOL_ESSAI) + "Erreurs/";

// Dump files of the given kind written by the process.
std::vector<std::string> Dumps(const char *pc_Type, int i_Pid) {
    return FichiersCommencantPar(REP_ERREURS,
                                 std::string(pc_Type) + ".remise." + std::to_string(i_Pid) + ".");
}

const std::string DESCRIPTION = "message-id=<>, from=<emetteur@exemple.fr>, to=<->(-/2)";
const std::string HOTES = "127.0.0.1:1";
const std::string MESSAGE_2576 = "v1.1.0/2576: Erreur connection LDAP sur <" + HOTES + ">. " +
                                 DESCRIPTION + ". Possibilite de depots repetes";

// The delivery form with an unreachable directory.
std::vector<std::string> Arguments(const std::string &s_Emetteur) {
    return {PROG, "-l", HOTES, "-e", s_Emetteur, "-d", "a@x.y", "b@x.y"};
}

// Standard error without the warnings of the failed directory attempts
// (one " !ERR:4, v1.1.0/2542" line per attempt); their count in *pi_Nb.
std::string SansEssaisAnnuaire(const std::string &s_Erreur, int *pi_Nb) {
    std::string s_Reste;
    *pi_Nb = 0;
    std::size_t p = 0;
    while (p < s_Erreur.size()) {
        std::size_t q = s_Erreur.find('\n', p);
        q = q == std::string::npos ? s_Erreur.size() : q + 1;
        std::string s_Ligne = s_Erreur.substr(p, q - p);
        if (s_Ligne.rfind(" !ERR:4, v1.1.0/2542: ", 0) == 0) ++*pi_Nb;
        else s_Reste += s_Ligne;
        p = q;
    }
    return s_Reste;
}

// What the program writes on standard error before any report.
std::string Annonce(int i_Pid) {
    return "remise-vorane[" + std::to_string(i_Pid) + "]: " + DESCRIPTION + "\n";
}

TEST(LectureEnteteProgramme, DumpAvecEntetesOrigineEtTravail) {
    const std::string s_Entete =
        "Received: from relais\r\n\tby boite; 22 Nov 2026\r\n"
        "From: =?UTF-8?Q?Andr=C3=A9?= <andre@exemple.fr>\r\n"
        "Subject: essai\r\n"
        "\r\n";
    ResultatProcessus r = LanceProgramme(Arguments("Emetteur@Exemple.FR"),
                                         s_Entete + "corps\r\nFrom: pas une entete\r\n", 30);
    EXPECT_EQ(r.i_Statut, 75);
    int i_Essais = 0;
    EXPECT_EQ(SansEssaisAnnuaire(r.s_Erreur, &i_Essais),
              Annonce(r.i_Pid) + " !ERR:2, " + MESSAGE_2576 + "\n");
    EXPECT_GE(i_Essais, 2);

    std::vector<std::string> v = Dumps("ERR", r.i_Pid);
    ASSERT_EQ(v.size(), 1u);
    // The warnings of the attempts share one dump, the first attempt's.
    std::vector<std::string> v_Att = Dumps("ATT", r.i_Pid);
    ASSERT_EQ(v_Att.size(), 1u);
    EXPECT_EQ(LitFichier(v_Att[0]).rfind("v1.1.0/2542: Erreur ldap_open <" + HOTES + ">", 0), 0u);
    struct stat st;
    ASSERT_EQ(stat(v[0].c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(LitFichier(v[0]),
              MESSAGE_2576 +
                  "\n\nAction: LOG_CRIT, pour nouvelle tentative par Postfix\n\n"
                  "__DEBUT_DESTINATAIRES__\nDest[1]=<a@x.y>\nDest[2]=<b@x.y>\n"
                  "__FIN_DESTINATAIRES__\n\n"
                  "__DEBUT_ENTETE_ORIGINE__\n"
                  "O>Received: from relais\r\n\tby boite; 22 Nov 2026\r\n"
                  "O>From: =?UTF-8?Q?Andr=C3=A9?= <andre@exemple.fr>\r\n"
                  "O>Subject: essai\r\n"
                  "O>\r\n"
                  "__FIN_ENTETE_ORIGINE__\n\n"
                  "__DEBUT_ENTETE_TRAVAIL__\n"
                  "T>Received: from relais\r\n\tby boite; 22 Nov 2026\r\n"
                  "T>From: =?UTF-8?Q?Andr=C3=A9?= <andre@exemple.fr>\r\n"
                  "T>Subject: essai\r\n"
                  "T>\r\n"
                  "__FIN_ENTETE_TRAVAIL__\n\n");
    for (const std::string &s : v) unlink(s.c_str());
    unlink(v_Att[0].c_str());
}

// A header cut by the end of input: warning 1783 with its own dump of the
// lines read (and 3688 for the missing From), then the level-2 report;
// nothing is delivered.
TEST(LectureEnteteProgramme, FinAvantLaLigneVide) {
    ResultatProcessus r = LanceProgramme(Arguments("emetteur@exemple.fr"), "Subject: coupe\n", 30);
    EXPECT_EQ(r.i_Statut, 75);
    const std::string s_Info = "message-id=<PasEncoreConnu>, from=<emetteur@exemple.fr>, to=<->(-/2)";
    int i_Essais = 0;
    EXPECT_EQ(SansEssaisAnnuaire(r.s_Erreur, &i_Essais),
              " !ERR:4, v1.1.0/1783: EOF avant ligne de fin d'entete. " + s_Info +
                              "\n" + Annonce(r.i_Pid) +
                              " !ERR:4, v1.1.0/3688: Analyse du From, partie adresse vide ! <\n> ?. " +
                              DESCRIPTION + "\n !ERR:2, " + MESSAGE_2576 + "\n");
    std::vector<std::string> v_Att = Dumps("ATT", r.i_Pid);
    ASSERT_EQ(v_Att.size(), 3u);
    std::string s_Dumps;
    for (const std::string &s : v_Att) s_Dumps += LitFichier(s);
    EXPECT_NE(s_Dumps.find("v1.1.0/1783: EOF avant ligne de fin d'entete."), std::string::npos);
    EXPECT_NE(s_Dumps.find("__DEBUT_ENTETE_ORIGINE__\nO>Subject: coupe\n__FIN"),
              std::string::npos);
    std::vector<std::string> v_Err = Dumps("ERR", r.i_Pid);
    EXPECT_EQ(v_Err.size(), 1u);
    for (const std::string &s : v_Att) unlink(s.c_str());
    for (const std::string &s : v_Err) unlink(s.c_str());
}

}  // namespace
