// serveurs_essai.cpp - scripts/serveurs.sh as the server fixtures call it
// (see serveurs_essai.h).
#include "serveurs_essai.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <unistd.h>

#include "processus.h"

SortieServeurs Serveurs(const std::vector<std::string> &v_Args, const std::string &s_Entree,
                        int i_LimiteSecondes) {
    std::vector<std::string> v = {"/bin/bash", REPERTOIRE_SOURCES "/scripts/serveurs.sh"};
    v.insert(v.end(), v_Args.begin(), v_Args.end());
    ResultatProcessus r = LanceProgramme(v, s_Entree, i_LimiteSecondes);
    SortieServeurs st;
    st.b_Ok = r.i_Statut == 0;
    st.s_Sortie = r.s_Sortie;
    st.s_Erreur = r.b_Expire ? "serveurs.sh " + v_Args[0] + ": no end after " +
                                   std::to_string(i_LimiteSecondes) + " s\n" + r.s_Erreur
                             : r.s_Erreur;
    std::istringstream f(r.s_Sortie);
    for (std::string s; std::getline(f, s);) {
        std::size_t p = s.find('=');
        if (p != std::string::npos) st.m_Valeurs[s.substr(0, p)] = s.substr(p + 1);
    }
    return st;
}

std::string RepertoireServeur(const char *pc_Nom) {
    std::string s = std::string("/tmp/vorane-") + pc_Nom + "-XXXXXX";
    return mkdtemp(s.data()) != nullptr ? s : "";
}

void ArreteServeur(std::string *ps_Repertoire) {
    if (ps_Repertoire->empty()) return;
    Serveurs({"arrete", *ps_Repertoire});
    // A start refused before the script took the directory leaves it empty.
    std::error_code ec;
    std::filesystem::remove(*ps_Repertoire, ec);
    ps_Repertoire->clear();
}

int ValeurEntiere(const SortieServeurs &r, const std::string &s_Nom) {
    auto it = r.m_Valeurs.find(s_Nom);
    return it == r.m_Valeurs.end() ? 0 : atoi(it->second.c_str());
}
