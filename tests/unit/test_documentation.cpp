// The manual page against the program: it renders without a single groff
// warning, as man shows it, and its DIAGNOSTICS name every numbered message
// the sources can raise, so that a message added to the code without its
// meaning for the site fails here.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "processus.h"

namespace {

const std::string PAGE = REPERTOIRE_SOURCES "/doc/remise-vorane.8";

// Every "v1.1.0/NNNN" number written in the program's sources.
std::set<std::string> NumerosDesSources() {
    std::set<std::string> st;
    const std::regex re("v1\\.1\\.0/([0-9]+)");
    for (const auto &e :
         std::filesystem::recursive_directory_iterator(REPERTOIRE_SOURCES "/src")) {
        const std::string s = LitFichier(e.path().string());
        for (std::sregex_iterator i(s.begin(), s.end(), re), fin; i != fin; ++i)
            st.insert((*i)[1]);
    }
    return st;
}

TEST(Documentation, PageDeManuelSansAvertissement) {
    ResultatProcessus r =
        LanceProgramme({"/usr/bin/man", "--warnings=w", "-l", PAGE}, "", 60, {"MANWIDTH=80"});
    EXPECT_EQ(r.i_Statut, 0);
    EXPECT_EQ(r.s_Erreur, "");
    EXPECT_NE(r.s_Sortie.find("EXIT STATUS"), std::string::npos);
}

TEST(Documentation, ChaqueMessageNumeroteEstDecrit) {
    const std::string s_Page = LitFichier(PAGE);
    const std::size_t t_Debut = s_Page.find("\n.SH DIAGNOSTICS");
    ASSERT_NE(t_Debut, std::string::npos);
    const std::string s_Section = s_Page.substr(t_Debut, s_Page.find("\n.SH ", t_Debut + 1) - t_Debut);
    std::set<std::string> st_Decrits;
    const std::regex re("\\\\fB([0-9]+)\\\\fR");
    for (std::sregex_iterator i(s_Section.begin(), s_Section.end(), re), fin; i != fin; ++i)
        st_Decrits.insert((*i)[1]);

    const std::set<std::string> st_Sources = NumerosDesSources();
    ASSERT_GT(st_Sources.size(), 100u);
    std::string s_Manquants;
    for (const std::string &s : st_Sources)
        if (st_Decrits.count(s) == 0) s_Manquants += " " + s;
    EXPECT_EQ(s_Manquants, "") << "messages missing from DIAGNOSTICS in doc/remise-vorane.8";
}

}  // namespace
