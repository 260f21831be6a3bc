// The executable run as Postfix runs it: every command-line form and early
// failure, with its exact standard-error line and exit status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "processus.h"

namespace {

const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string PROG_SITE = CHEMIN_REMISE_VORANE;

ResultatProcessus Lance(std::vector<std::string> v_Args, const std::string &s_Entree = "") {
    v_Args.insert(v_Args.begin(), PROG);
    return LanceProgramme(v_Args, s_Entree, 30);
}

const std::string LIGNE_USAGE =
    " !ERR:2, v1.1.0/3566: Erreur d'usage. Doit avoir 4 parametres: -e adresse-emetteur et -d "
    "adresse-destination.\n";

struct CasStatut {
    const char *pc_Nom;
    std::vector<std::string> v_Args;
    int i_Statut;
    std::string s_Erreur;   // whole standard error
    std::string s_Sortie;   // whole standard output
};

void PrintTo(const CasStatut &c, std::ostream *os) { *os << c.pc_Nom; }

class FormesLigneCommande : public ::testing::TestWithParam<CasStatut> {};

TEST_P(FormesLigneCommande, StatutEtTextes) {
    const CasStatut &c = GetParam();
    ResultatProcessus r = Lance(c.v_Args);
    EXPECT_EQ(r.i_Statut, c.i_Statut);
    EXPECT_EQ(r.s_Erreur, c.s_Erreur);
    EXPECT_EQ(r.s_Sortie, c.s_Sortie);
}

const std::string VERSION = "remise-vorane version 1.1.0 pour Cyrus (LMTP)\n";

INSTANTIATE_TEST_SUITE_P(
    Cas, FormesLigneCommande,
    ::testing::Values(
        CasStatut{"version", {"--version"}, 1, "", VERSION},
        CasStatut{"version_majuscules", {"--VERSION"}, 1, "", VERSION},
        CasStatut{"version_avec_autre_argument", {"--version", "x"}, 75, LIGNE_USAGE, ""},
        CasStatut{"tiret_double_inconnu", {"--aide"}, 75, LIGNE_USAGE, ""},
        CasStatut{"sans_argument", {}, 75, LIGNE_USAGE, ""},
        CasStatut{"trois_arguments", {"-e", "a@b.c", "-d"}, 75, LIGNE_USAGE, ""},
        CasStatut{"decode_seul", {"-decode"}, 75, LIGNE_USAGE, ""},
        CasStatut{"explique_sans_destinataire", {"--EXPLIQUE", "-e", "a@b.c", "-d"}, 1, "",
                  "  ! signalement de niveau 2 : v1.1.0/3566: Erreur d'usage. Doit avoir 4 "
                  "parametres: -e adresse-emetteur et -d adresse-destination.\n    -> remise "
                  "reelle : arret, statut 75 (Postfix garde le message et le representera)\n"
                  "Fin de l'explication : la remise s'arreterait ici.\n"},
        CasStatut{"decode", {"-DECODE", "Jean Dupont <jd@x.fr>"}, 1, "",
                  "\nEntree:<Jean Dupont <jd@x.fr>>\nResultat: \nJean Dupont \n<jd@x.fr>\n"},
        CasStatut{"destinataires_avant_emetteur",
                  {"-d", "x@y.z", "-e", "a@b.c"},
                  75,
                  " !ERR:2, v1.1.0/3624: Erreur d'usage. Adresse emetteur non trouvee\n",
                  ""},
        CasStatut{"aucun_destinataire",
                  {"-e", "a@b.c", "-r", "x", "-d"},
                  75,
                  " !ERR:2, v1.1.0/3625: Erreur d'usage. Adresse destinataire(s) non trouvee(s)\n",
                  ""},
        CasStatut{"option_e_en_dernier_sans_valeur",
                  {"-d", "x@y.z", "u@v.w", "-e"},
                  75,
                  " !ERR:2, v1.1.0/3624: Erreur d'usage. Adresse emetteur non trouvee\n",
                  ""}),
    [](const ::testing::TestParamInfo<CasStatut> &i) { return std::string(i.param.pc_Nom); });

// A sender that never finishes sending: the run's time budget ends it with
// 75 before Postfix's own limit would bounce the message.
TEST(RemiseLigneCommande, BudgetDeTempsEpuise) {
    ResultatProcessus r = LanceProgramme({PROG, "-e", "a@b.c", "-d", "x@y.z"}, "Subject: lent\n", 60,
                                         {}, true);
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_FALSE(r.b_Expire);
    EXPECT_EQ(r.s_Erreur, " !ERR:2, v1.1.0/3652: Duree maximale d'execution atteinte (20 s), message "
                          "laisse a Postfix pour nouvelle tentative.\n");
}

// Several recipients: "-" stands for them in the description; a later -e
// overrides an earlier one; unknown arguments are skipped.
TEST(RemiseLigneCommande, PlusieursDestinatairesEtOptionRepetee) {
    ResultatProcessus r =
        Lance({"-e", "premier@x.y", "-z", "-e", "second@x.y", "-d", "a@x.y", "B@X.Y", "c@x.y"});
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_NE(r.s_Erreur.find("from=<second@x.y>, to=<->(-/3)\n"), std::string::npos)
        << r.s_Erreur;
}

// Addresses of 255 characters pass; 256 are refused at level 3 with the
// text repeated for Postfix's bounce, status 65 (main server by default).
TEST(RemiseLigneCommande, LongueurDesAdresses) {
    std::string s_255 = std::string(250, 'a') + "@b.cd";
    ASSERT_EQ(s_255.size(), 255u);
    ResultatProcessus r = Lance({"-e", s_255, "-d", "x@y.z"});
    EXPECT_EQ(r.i_Statut, 75) << r.s_Erreur;

    std::string s_256 = "a" + s_255;
    r = Lance({"-e", s_256, "-d", "x@y.z"});
    EXPECT_EQ(r.i_Statut, 65);
    std::string s_Ligne = "v1.1.0/3627: Adresse emetteur trop longue <" + s_256 + ">";
    EXPECT_EQ(r.s_Erreur, " !ERR:3, " + s_Ligne + "\n" + s_Ligne + "\n");

    r = Lance({"-e", "a@b.c", "-d", "x@y.z", s_256});
    EXPECT_EQ(r.i_Statut, 65);
    s_Ligne = "v1.1.0/3632: Adresse destinataire trop longue <" + s_256 + ">";
    EXPECT_EQ(r.s_Erreur, " !ERR:3, " + s_Ligne + "\n" + s_Ligne + "\n");
}

// Arguments of any size or content never crash the program nor reach a
// shell: a recipient holding shell syntax is only an address.
TEST(RemiseLigneCommande, ArgumentsHostilesOuEnormes) {
    std::string s_Enorme(100000, 'x');  // below the kernel's 128 KiB per argument
    for (const std::vector<std::string> &v :
         {std::vector<std::string>{"-e", s_Enorme, "-d", s_Enorme},
          std::vector<std::string>{"-p", s_Enorme, "-e", "a@b.c", "-d", "x@y.z"},
          std::vector<std::string>{"-decode", s_Enorme},
          std::vector<std::string>{"-e", "a@b.c", "-d", "`touch /tmp/vorane-pwned`;$(id)'\"@x"}}) {
        ResultatProcessus r = Lance(v);
        EXPECT_EQ(r.i_Signal, 0);
        EXPECT_TRUE(r.i_Statut == 75 || r.i_Statut == 65 || r.i_Statut == 1) << r.i_Statut;
    }
    EXPECT_NE(access("/tmp/vorane-pwned", F_OK), 0);
}

// The main-server list keeps at most 20 names: with 25 given, the program
// still runs to its checks (no overflow under the sanitizers).
TEST(RemiseLigneCommande, ListeServeursPrincipauxBornee) {
    std::string s_Liste;
    for (int i = 0; i < 25; i++) s_Liste += (i ? ",," : "") + std::string("srv") + std::to_string(i);
    ResultatProcessus r = Lance({"-p", s_Liste, "-e", "a@b.c", "-d", "x@y.z"});
    EXPECT_EQ(r.i_Statut, 75);
}

// The default build carries the reference deployment values.
TEST(RemiseLigneCommande, ConstructionParDefautRepondALaVersion) {
    ResultatProcessus r = LanceProgramme({PROG_SITE, "--version"});
    EXPECT_EQ(r.i_Statut, 1);
    EXPECT_EQ(r.s_Sortie, VERSION);
}

}  // namespace

namespace {

// --init opens the spool root to every delivery user when an earlier --init
// (under the run's mask 027) left it 0750.  What it creates on a fresh
// machine is checked where the pipe user needs it, in the chain tests.
TEST(RemiseLigneCommande, InitCreeLesRepertoiresDuSpool) {
    ASSERT_EQ(chmod(RACINE_SPOOL_ESSAI, 0750), 0);
    ResultatProcessus r = LanceProgramme({PROG, "--Init"});
    EXPECT_EQ(r.i_Statut, 1);
    struct stat st;
    ASSERT_EQ(stat(RACINE_SPOOL_ESSAI, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
}

}  // namespace
