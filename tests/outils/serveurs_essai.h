// serveurs_essai.h - scripts/serveurs.sh as the server fixtures call it.
//
// The fixtures of annuaire_essai.h, cyrus_essai.h and postfix_essai.h start
// and stop the real servers through that script only, run as a child with
// an argument vector (never a shell line).  The script ties every server it
// starts to its caller, the test process: when that process ends, however
// it ends, a guardian stops the servers and removes their directory.
#pragma once

#include <map>
#include <string>
#include <vector>

struct SortieServeurs {
    bool b_Ok = false;                              // the script ended with 0
    std::map<std::string, std::string> m_Valeurs;   // its NAME=VALUE lines
    std::string s_Sortie;                           // standard output, whole
    std::string s_Erreur;                           // why it failed
};

// Runs "serveurs.sh <arguments>" with the text on its standard input.
SortieServeurs Serveurs(const std::vector<std::string> &v_Args, const std::string &s_Entree = "",
                        int i_LimiteSecondes = 120);

// A new empty directory /tmp/vorane-<nom>-XXXXXX for one server ("" when
// it cannot be made).
std::string RepertoireServeur(const char *pc_Nom);

// "serveurs.sh arrete" on the directory, which is then forgotten;
// harmless on an empty name or twice.
void ArreteServeur(std::string *ps_Repertoire);

// The integer value of a NAME=VALUE line (0 when absent or not a number).
int ValeurEntiere(const SortieServeurs &r, const std::string &s_Nom);
