// processus.h - runs a program as a child process for whole-program tests.
//
// LanceProgramme(argv, input) starts argv[0] with the argument vector given
// (no shell), writes the input to its standard input and closes it, collects
// standard output and standard error, and waits for it, at most the limit
// given: a child still running then is killed and reported as such.
#pragma once

#include <string>
#include <vector>

struct ResultatProcessus {
    int i_Statut = -1;        // exit status, or -1 when ended by a signal
    int i_Signal = 0;         // signal that ended it, or 0
    bool b_Expire = false;    // killed after the limit
    std::string s_Sortie;     // standard output
    std::string s_Erreur;     // standard error
    int i_Pid = 0;            // the child's process id
    long l_MemoireMaxKo = 0;  // its peak resident memory, KiB
};

// Runs the program; environment as the parent's plus the given NAME=VALUE
// pairs.  With b_EntreeOuverte the program's standard input is never closed
// (a sender that stalls after the input given).
ResultatProcessus LanceProgramme(const std::vector<std::string> &v_Argv,
                                 const std::string &s_Entree = "", int i_LimiteSecondes = 60,
                                 const std::vector<std::string> &v_Env = {},
                                 bool b_EntreeOuverte = false);

// Files of the directory whose names begin with the prefix, full paths, sorted.
std::vector<std::string> FichiersCommencantPar(const std::string &s_Repertoire,
                                               const std::string &s_Prefixe);

// Whole content of a file ("" when it cannot be read).
std::string LitFichier(const std::string &s_Chemin);
