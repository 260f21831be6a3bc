// processus.h - runs a program as a child process for whole-program tests.
//
// LanceProgramme(argv, input) starts argv[0] with the argument vector given
// (no shell), writes the input to its standard input and closes it, collects
// standard output and standard error, and waits for it, at most the limit
// given: a child still running then is killed and reported as such.
// SuitProcessus does the same for a child the caller forked itself.
#pragma once

#include <string>
#include <sys/types.h>
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

// Follows a child: writes the input to i_In (-1: none) and closes it (or
// keeps it open, never written again, with b_EntreeOuverte), reads i_Out
// and i_Err (-1: none) into s_Sortie and s_Erreur up to their end, and
// reaps the child; at the limit the child is killed.  Closes the three.
ResultatProcessus SuitProcessus(pid_t i_Pid, int i_In, const std::string &s_Entree, int i_Out,
                                int i_Err, int i_LimiteSecondes, bool b_EntreeOuverte = false);

// A TCP socket bound to 127.0.0.1 on a port the system chose (in *pi_Port),
// listening with the backlog given (none when negative); -1 on failure.
int SocketLocale(int *pi_Port, int i_Attente = -1);

// Files of the directory whose names begin with the prefix, full paths, sorted.
std::vector<std::string> FichiersCommencantPar(const std::string &s_Repertoire,
                                               const std::string &s_Prefixe);

// Whole content of a file ("" when it cannot be read).
std::string LitFichier(const std::string &s_Chemin);
