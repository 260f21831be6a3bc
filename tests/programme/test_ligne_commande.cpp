// The executable run as Postfix runs it, without a directory: every
// command-line form and early failure with its exact texts and status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "processus.h"

namespace {

using Liste = std::vector<std::string>;
const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string TEXTE_USAGE = "v1.1.0/3566: Erreur d'usage. Doit avoir 4 parametres: -e adresse-emetteur "
                                "et -d adresse-destination.\n";
const std::string USAGE = " !ERR:2, " + TEXTE_USAGE;
const std::string SANS_EMETTEUR = " !ERR:2, v1.1.0/3624: Erreur d'usage. Adresse emetteur non trouvee\n";

// A level-3 report: the line, then the text again for Postfix's bounce.
std::string Niveau3(const std::string &s) { return " !ERR:3, " + s + "\n" + s + "\n"; }

// The first row runs the default build, which carries the deployment
// values.  A sender of 256 characters is refused after the main-server list
// (25 names and one of 100,000 bytes for its 20 slots) was split, the
// unknown -z skipped and the first -e overridden.  An address to decode
// far beyond its buffer is refused whole.
TEST(FormesLigneCommande, StatutEtTextes) {
    const std::string s_256 = std::string(251, 'a') + "@b.cd";
    const std::string s_Enorme(100000, 'x');
    std::string s_Serveurs = s_Enorme;
    for (int i = 0; i < 25; i++) s_Serveurs += ",,srv" + std::to_string(i);
    const struct {
        Liste v_Args;
        int i_Statut;
        std::string s_Erreur, s_Sortie;
    } t[] = {
        {{"--VERSION"}, 1, "", "remise-vorane version 1.1.0 pour Cyrus (LMTP)\n"},
        {{"--version", "x"}, 75, USAGE, ""},
        {{}, 75, USAGE, ""},
        {{"--EXPLIQUE", "-e", "a@b.c", "-d"}, 1, "",
         "  ! signalement de niveau 2 : " + TEXTE_USAGE + "    -> remise reelle : arret, statut 75 (Postfix "
         "garde le message et le representera)\nFin de l'explication : la remise s'arreterait ici.\n"},
        {{"-DECODE", "Jean Dupont <jd@x.fr>"}, 1, "",
         "\nEntree:<Jean Dupont <jd@x.fr>>\nResultat: \nJean Dupont \n<jd@x.fr>\n"},
        {{"-d", "x@y", "-e", "a@b"}, 75, SANS_EMETTEUR, ""}, {{"-d", "x@y", "u@v", "-e"}, 75, SANS_EMETTEUR, ""},
        {{"-e", "a@b.c", "-r", "x", "-d"}, 75,
         " !ERR:2, v1.1.0/3625: Erreur d'usage. Adresse destinataire(s) non trouvee(s)\n", ""},
        {{"-p", s_Serveurs, "-e", "a@b.c", "-z", "-e", s_256, "-d", "x@y.z"}, 65,
         Niveau3("v1.1.0/3627: Adresse emetteur trop longue <" + s_256 + ">"), ""},
        {{"-decode", s_Enorme}, 65, Niveau3("v1.1.0/958: Buffer adresse trop petit (" + s_Enorme + "). "), ""},
        {{"-e", "a@b.c", "-d", "x@y.z", s_256}, 65,
         Niveau3("v1.1.0/3632: Adresse destinataire trop longue <" + s_256 + ">"), ""},
    };
    for (const auto &c : t) {
        SCOPED_TRACE(c.v_Args.empty() ? "" : c.v_Args[0]);
        Liste v = c.v_Args;
        v.insert(v.begin(), &c == t ? CHEMIN_REMISE_VORANE : PROG);
        ResultatProcessus r = LanceProgramme(v, "", 30);
        EXPECT_EQ(r.i_Statut, c.i_Statut);
        EXPECT_EQ(r.s_Erreur, c.s_Erreur);
        EXPECT_EQ(r.s_Sortie, c.s_Sortie);
    }
}

// A sender that never finishes sending: the run's time budget ends it with
// 75 before Postfix's own limit would bounce the message.
TEST(RemiseLigneCommande, BudgetDeTempsEpuise) {
    ResultatProcessus r = LanceProgramme({PROG, "-e", "a@b.c", "-d", "x@y.z"}, "Subject: lent\n", 60, {}, true);
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_FALSE(r.b_Expire);
    EXPECT_EQ(r.s_Erreur, " !ERR:2, v1.1.0/3652: Duree maximale d'execution atteinte (20 s), message "
                          "laisse a Postfix pour nouvelle tentative.\n");
}

// --init opens the spool root to every delivery user when an earlier --init
// (under the run's mask 027) left it 0750, and leaves a dump file (a
// message) to its owner alone.
TEST(RemiseLigneCommande, InitOuvreLaRacineDuSpool) {
    ASSERT_EQ(chmod(RACINE_SPOOL_ESSAI, 0750), 0);
    const std::string s_Vidage = std::string(RACINE_SPOOL_ESSAI) + "Erreurs/ERR.essai-init";
    int i_Fd = open(s_Vidage.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(i_Fd, 0);
    close(i_Fd);
    EXPECT_EQ(LanceProgramme({PROG, "--Init"}).i_Statut, 1);
    struct stat st;
    ASSERT_EQ(stat(RACINE_SPOOL_ESSAI, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    ASSERT_EQ(stat(s_Vidage.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    unlink(s_Vidage.c_str());
}

}  // namespace
