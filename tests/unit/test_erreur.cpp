// TraitementErreur: what each level tells Postfix, the standard-error line,
// and the dump file (name, permissions, exact layout).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "message/message.h"
#include "processus.h"
#include "report/report.h"
#include "socle.h"

namespace {

const std::string REP_ERREURS = std::string(RACINE_SPOOL_ESSAI) + "Erreurs";

// A message in progress: two recipients, a two-line incoming header (one
// folded field) and a working header with one more line.
class Rapport : public ::testing::Test {
protected:
    char pc_O1[64] = "Subject: essai\n\tsuite\n";
    char pc_O2[8] = "\n";
    char pc_T0[64] = "X-Trace: oui\n";
    Entete et_O2 = {pc_O2, nullptr};
    Entete et_O1 = {pc_O1, &et_O2};
    Entete et_T2 = {pc_O2, nullptr};
    Entete et_T1 = {pc_O1, &et_T2};
    Entete et_T0 = {pc_T0, &et_T1};
    char pc_D1[16] = "a@x.fr";
    char pc_D2[16] = "b@y.fr";
    char *tpc_Dest[3] = {pc_D1, pc_D2, nullptr};

    void SetUp() override {
        gtpc_RcptTo = tpc_Dest;
        gi_nbDestLcmd = 2;
        gpc_RcptTo = "-";
        gi_OnEstSurServeurPrincipal = 1;
        gpet_EnteteMessOrigine = nullptr;
        gpet_EnteteMess = nullptr;
        Nettoie();
    }
    void TearDown() override {
        gpet_EnteteMessOrigine = nullptr;
        gpet_EnteteMess = nullptr;
        Nettoie();
    }
    void PoseEntetes() {
        gpet_EnteteMessOrigine = &et_O1;
        gpet_EnteteMess = &et_T0;
    }
    // Dump files of this process with the given prefix.
    std::vector<std::string> Dumps(const std::string &s_Type) {
        return FichiersCommencantPar(REP_ERREURS,
                                     s_Type + ".remise." + std::to_string(getpid()) + ".");
    }
    void Nettoie() {
        for (const char *pc : {"ERR", "ATT"})
            for (const std::string &s : Dumps(pc)) unlink(s.c_str());
    }
};

TEST_F(Rapport, Niveau2TerminePourNouvelleTentative) {
    EXPECT_EXIT(TraitementErreur(2, "v1.1.0/1: critique %d", 7), ::testing::ExitedWithCode(75),
                "^ !ERR:2, v1.1.0/1: critique 7\n$");
    EXPECT_EXIT(TraitementErreur(1, "v1.1.0/1: plus grave"), ::testing::ExitedWithCode(75),
                " !ERR:1, ");
    EXPECT_EXIT(TraitementErreur(-2, "v1.1.0/1: negatif"), ::testing::ExitedWithCode(75),
                " !ERR:-2, ");
}

// Level 3 without a notice: the text twice on standard error (the second
// copy is what Postfix quotes in its bounce), 65 on the main server, 0
// elsewhere.
TEST_F(Rapport, Niveau3SelonLeServeur) {
    EXPECT_EXIT(TraitementErreur(3, "v1.1.0/2: refus <%s>", "x"), ::testing::ExitedWithCode(65),
                "^ !ERR:3, v1.1.0/2: refus <x>\nv1.1.0/2: refus <x>\n$");
    gi_OnEstSurServeurPrincipal = 0;
    EXPECT_EXIT(TraitementErreur(3, "v1.1.0/2: refus"), ::testing::ExitedWithCode(0),
                "v1.1.0/2: refus\n$");
}

// Levels -3 and 4 return; once a header exists each writes its dump file,
// ERR. and ATT. respectively, readable by its owner only.
TEST_F(Rapport, NiveauxQuiRendentLaMainEtLeurDump) {
    ::testing::internal::CaptureStderr();
    TraitementErreur(-3, "v1.1.0/3: destinataire inconnu");
    TraitementErreur(4, "v1.1.0/4: avertissement");
    std::string s_Err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(s_Err,
              " !ERR:-3, v1.1.0/3: destinataire inconnu\nv1.1.0/3: destinataire inconnu\n"
              " !ERR:4, v1.1.0/4: avertissement\n");
    EXPECT_TRUE(Dumps("ERR").empty());
    EXPECT_TRUE(Dumps("ATT").empty());

    PoseEntetes();
    ::testing::internal::CaptureStderr();
    TraitementErreur(-3, "v1.1.0/3: destinataire inconnu");
    TraitementErreur(4, "v1.1.0/4: avertissement %s", "w");
    ::testing::internal::GetCapturedStderr();

    std::vector<std::string> v_Err = Dumps("ERR");
    ASSERT_EQ(v_Err.size(), 1u);
    std::vector<std::string> v_Att = Dumps("ATT");
    ASSERT_EQ(v_Att.size(), 1u);
    struct stat st;
    ASSERT_EQ(stat(v_Err[0].c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // The unique suffix replaces the six X.
    EXPECT_EQ(v_Err[0].size(),
              (REP_ERREURS + "/ERR.remise." + std::to_string(getpid()) + ".XXXXXX").size());

    EXPECT_EQ(LitFichier(v_Err[0]),
              "v1.1.0/3: destinataire inconnu\n\nAction: LOG_ERR, pour avis de non remise\n\n"
              "__DEBUT_DESTINATAIRES__\nDest[1]=<a@x.fr>\nDest[2]=<b@y.fr>\n"
              "__FIN_DESTINATAIRES__\n\n"
              "__DEBUT_ENTETE_ORIGINE__\nO>Subject: essai\n\tsuite\nO>\n__FIN_ENTETE_ORIGINE__\n\n"
              "__DEBUT_ENTETE_TRAVAIL__\nT>X-Trace: oui\nT>Subject: essai\n\tsuite\nT>\n"
              "__FIN_ENTETE_TRAVAIL__\n\n");
    std::string s_Att = LitFichier(v_Att[0]);
    EXPECT_EQ(s_Att.substr(0, s_Att.find("__DEBUT")),
              "v1.1.0/4: avertissement w\n\nAction: LOG_WARN, avertissement mais poursuite de la "
              "remise\n\n");
}

// Levels without an action of their own get the "unplanned" text.
TEST_F(Rapport, NiveauSansActionPrevue) {
    PoseEntetes();
    ::testing::internal::CaptureStderr();
    TraitementErreur(6, "v1.1.0/5: information");
    ::testing::internal::GetCapturedStderr();
    std::vector<std::string> v = Dumps("ATT");
    ASSERT_EQ(v.size(), 1u);
    EXPECT_NE(LitFichier(v[0]).find("\nAction: LOG_???, niveau non prevu\n"), std::string::npos);
}

// Message texts are never used as formats: a "%n" coming from outside is
// only text.
TEST_F(Rapport, TexteExterieurJamaisCommeFormat) {
    ::testing::internal::CaptureStderr();
    TraitementErreur(4, "v1.1.0/6: valeur <%s>", "%n%s%n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), " !ERR:4, v1.1.0/6: valeur <%n%s%n>\n");
}

}  // namespace
