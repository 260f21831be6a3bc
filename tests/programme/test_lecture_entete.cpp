// The program reads the message's header after its command-line checks:
// from then on every report dumps the incoming and working headers.
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

const std::string DESCRIPTION =
    "message-id=<PasEncoreConnu>, from=<emetteur@exemple.fr>, to=<->(-/2)";
const std::string MESSAGE_3650 =
    "v1.1.0/3650: Remise non disponible dans cette version, message laisse a Postfix pour "
    "nouvelle tentative. " + DESCRIPTION;

TEST(LectureEnteteProgramme, DumpAvecEntetesOrigineEtTravail) {
    const std::string s_Entete =
        "Received: from relais\r\n\tby boite; 22 Nov 2026\r\n"
        "From: =?UTF-8?Q?Andr=C3=A9?= <andre@exemple.fr>\r\n"
        "Subject: essai\r\n"
        "\r\n";
    ResultatProcessus r = LanceProgramme(
        {PROG, "-e", "Emetteur@Exemple.FR", "-d", "a@x.y", "b@x.y"},
        s_Entete + "corps\r\nFrom: pas une entete\r\n", 30);
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(r.s_Erreur, " !ERR:2, " + MESSAGE_3650 + "\n");

    std::vector<std::string> v = Dumps("ERR", r.i_Pid);
    ASSERT_EQ(v.size(), 1u);
    EXPECT_TRUE(Dumps("ATT", r.i_Pid).empty());
    struct stat st;
    ASSERT_EQ(stat(v[0].c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(LitFichier(v[0]),
              MESSAGE_3650 +
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
}

// A header cut by the end of input: warning 1783 with its own dump of the
// lines read, then the level-2 report; nothing is delivered.
TEST(LectureEnteteProgramme, FinAvantLaLigneVide) {
    ResultatProcessus r = LanceProgramme(
        {PROG, "-e", "emetteur@exemple.fr", "-d", "a@x.y", "b@x.y"}, "Subject: coupe\n", 30);
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(r.s_Erreur, " !ERR:4, v1.1.0/1783: EOF avant ligne de fin d'entete. " + DESCRIPTION +
                              "\n !ERR:2, " + MESSAGE_3650 + "\n");
    std::vector<std::string> v_Att = Dumps("ATT", r.i_Pid);
    ASSERT_EQ(v_Att.size(), 1u);
    EXPECT_NE(LitFichier(v_Att[0]).find("__DEBUT_ENTETE_ORIGINE__\nO>Subject: coupe\n__FIN"),
              std::string::npos);
    std::vector<std::string> v_Err = Dumps("ERR", r.i_Pid);
    EXPECT_EQ(v_Err.size(), 1u);
    for (const std::string &s : v_Att) unlink(s.c_str());
    for (const std::string &s : v_Err) unlink(s.c_str());
}

}  // namespace
