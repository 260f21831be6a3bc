// Report unit: what each level of TraitementErreur tells Postfix, its
// standard-error lines and dump files; the manual page describes every
// numbered message.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

#include "processus.h"
#include "report/report.h"
#include "socle.h"

namespace {

// Dump files of this process of one type ("ERR" or "ATT").
std::vector<std::string> Dumps(const char *pc_Type) {
    return FichiersCommencantPar(std::string(RACINE_SPOOL_ESSAI) + "Erreurs",
                                 pc_Type + (".remise." + std::to_string(getpid()) + "."));
}

// Level 2 and below: 75 (retry).  Level 3 without a notice: the text twice
// (the second is what Postfix quotes in its bounce), 65 on the main server,
// 0 elsewhere.
TEST(Rapport, NiveauxQuiTerminent) {
    gi_OnEstSurServeurPrincipal = 1;
    EXPECT_EXIT(TraitementErreur(2, "v1.1.0/1: critique %d", 7), ::testing::ExitedWithCode(75),
                "^ !ERR:2, v1.1.0/1: critique 7\n$");
    EXPECT_EXIT(TraitementErreur(3, "v1.1.0/2: refus <%s>", "x"), ::testing::ExitedWithCode(65),
                "^ !ERR:3, v1.1.0/2: refus <x>\nv1.1.0/2: refus <x>\n$");
    gi_OnEstSurServeurPrincipal = 0;
    EXPECT_EXIT(TraitementErreur(3, "v1.1.0/2: refus"), ::testing::ExitedWithCode(0), "refus\n$");
}

// Levels -3 and 4 return; once a header exists each writes its dump, ERR.
// and ATT., owner-only, in the exact layout (recipients, incoming header,
// working header); text from outside is never taken as a format.
TEST(Rapport, NiveauxQuiRendentLaMainEtLeurDump) {
    char pc_O1[] = "Subject: essai\n\tsuite\n", pc_Vide[] = "\n", pc_T0[] = "X-Trace: oui\n";
    Entete et_O2 = {pc_Vide, nullptr}, et_O1 = {pc_O1, &et_O2}, et_T0 = {pc_T0, &et_O1};
    char pc_D1[] = "a@x.fr", pc_D2[] = "b@y.fr", *tpc_Dest[] = {pc_D1, pc_D2, nullptr};
    gtpc_RcptTo = tpc_Dest;
    for (const char *pc : {"ERR", "ATT"})  // left by an earlier process of the same id
        for (const std::string &s : Dumps(pc)) unlink(s.c_str());
    ::testing::internal::CaptureStderr();
    TraitementErreur(-3, "v1.1.0/3: inconnu");
    EXPECT_TRUE(Dumps("ERR").empty());
    gpet_EnteteMessOrigine = &et_O1;
    gpet_EnteteMess = &et_T0;
    TraitementErreur(-3, "v1.1.0/3: inconnu");
    TraitementErreur(4, "v1.1.0/4: valeur <%s>", "%n%s%n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              " !ERR:-3, v1.1.0/3: inconnu\nv1.1.0/3: inconnu\n !ERR:-3, v1.1.0/3: inconnu\n"
              "v1.1.0/3: inconnu\n !ERR:4, v1.1.0/4: valeur <%n%s%n>\n");
    std::vector<std::string> v_Err = Dumps("ERR"), v_Att = Dumps("ATT");
    ASSERT_EQ(std::pair(v_Err.size(), v_Att.size()), std::pair(1ul, 1ul));
    struct stat st;
    EXPECT_EQ(stat(v_Err[0].c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0600u);
    EXPECT_EQ(LitFichier(v_Err[0]),
              "v1.1.0/3: inconnu\n\nAction: LOG_ERR, pour avis de non remise\n\n"
              "__DEBUT_DESTINATAIRES__\nDest[1]=<a@x.fr>\nDest[2]=<b@y.fr>\n"
              "__FIN_DESTINATAIRES__\n\n"
              "__DEBUT_ENTETE_ORIGINE__\nO>Subject: essai\n\tsuite\nO>\n__FIN_ENTETE_ORIGINE__\n\n"
              "__DEBUT_ENTETE_TRAVAIL__\nT>X-Trace: oui\nT>Subject: essai\n\tsuite\nT>\n"
              "__FIN_ENTETE_TRAVAIL__\n\n");
    EXPECT_EQ(LitFichier(v_Att[0]).rfind("v1.1.0/4: valeur <%n%s%n>\n\nAction: LOG_WARN, "
                                         "avertissement mais poursuite de la remise\n\n", 0), 0u);
    for (const std::string &s : {v_Err[0], v_Att[0]}) unlink(s.c_str());
}

// The manual page renders without a groff warning, and its DIAGNOSTICS
// describe every numbered message written in the sources.
TEST(Documentation, PageSansAvertissementEtMessagesDecrits) {
    const std::string PAGE = REPERTOIRE_SOURCES "/doc/remise-vorane.8";
    ResultatProcessus r =
        LanceProgramme({"/usr/bin/man", "--warnings=w", "-l", PAGE}, "", 60, {"MANWIDTH=80"});
    EXPECT_EQ(std::to_string(r.i_Statut) + r.s_Erreur, "0");  // status 0, nothing on stderr
    const std::string s_Page = LitFichier(PAGE);
    // Without the section, substr throws and the case fails.
    const std::size_t t = s_Page.find("\n.SH DIAGNOSTICS");
    const std::string s_Diag = s_Page.substr(t, s_Page.find("\n.SH ", t + 1) - t);
    const std::regex re("v1\\.1\\.0/([0-9]+)");
    std::string s_Manquants;
    int n = 0;
    for (const auto &e : std::filesystem::recursive_directory_iterator(REPERTOIRE_SOURCES "/src")) {
        const std::string s = LitFichier(e.path().string());
        for (std::sregex_iterator i(s.begin(), s.end(), re), fin; i != fin; ++i, ++n)
            if (s_Diag.find("\\fB" + (*i)[1].str() + "\\fR") == std::string::npos)
                s_Manquants += " " + (*i)[1].str();
    }
    EXPECT_GT(n, 100);
    EXPECT_EQ(s_Manquants, "") << "messages missing from DIAGNOSTICS in doc/remise-vorane.8";
}

}  // namespace
