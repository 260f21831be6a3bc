// serveur_lmtp.h - a scripted LMTP server and a child-process runner for the
// transport tests.
//
// ServeurLmtpEssai listens on loopback TCP (port chosen by the system) or on
// a Unix-domain socket in a temporary directory, and serves ONE connection
// in a forked child (the code under test uses SIGALRM; the server never sees
// it).  The script is a list of steps: step 0 answers the connection, each
// later step answers one unit received (a command line up to its line feed,
// or, after a DATA command answered "354", the whole data up to its "\n.\n").
// A step replies with its text, closes the connection, or stalls (before
// or after its reply), or closes after its reply.  Every byte
// received is recorded; Recu() waits for the server to end and returns them.
// Once the script is used up the server reads to the end of the connection.
//
// ListeLignes and FluxOctets build a message list and a body stream.
//
// ExecuteEnFils runs a callable in a forked child with its standard output
// and error captured together, and returns the child's exit status (or
// signal), that output (in s_Erreur) and the text the callable returned
// (written back through a pipe, in s_Sortie).
// It is how tests call operations that may end the process (level 2).
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "processus.h"

struct EtapeLmtp {
    enum Action { Repondre, Fermer, Bloquer };
    Action e_Action = Repondre;
    std::string s_Reponse;  // sent as is (put the line end in it); at a byte
                            // \x01 the server pauses 200 ms instead (a reply
                            // that comes in several reads)
    // Computes the reply from the unit received, in the server process.
    std::function<std::string(const std::string &)> f_Reponse;
    // After replying, stop reading (and answering) for good.
    bool b_BloqueApres = false;
    // After replying, close the connection.
    bool b_FermeApres = false;
    // After replying, read 4 KB every 20 ms (a store that reads a trickle,
    // slower than one 256 KB piece of the body per second).
    bool b_LentApres = false;
};

// Shorthands for script steps.
EtapeLmtp Rep(const std::string &s_Texte);
EtapeLmtp Ferme();
EtapeLmtp Bloque();

class ServeurLmtpEssai {
public:
    ServeurLmtpEssai(std::vector<EtapeLmtp> v_Script, bool b_Unix);
    ~ServeurLmtpEssai();
    ServeurLmtpEssai(const ServeurLmtpEssai &) = delete;
    ServeurLmtpEssai &operator=(const ServeurLmtpEssai &) = delete;

    // Designation for Remise_LMTP: "127.0.0.1:port" or the socket path.
    const std::string &Designation() const { return s_Designation; }
    // Waits (at most the limit) for the server to end; the bytes received.
    std::string Recu(int i_LimiteSecondes = 20);

private:
    std::string s_Designation;
    std::string s_Repertoire;
    std::string s_FichierRecu;
    int i_Pid = -1;
};

// The data of the first transaction in the bytes received: what follows the
// "DATA\n" command up to the line ".", with the leading dot of every line
// removed as an LMTP server does.  b_Terminee tells whether the "." line was
// found.
std::string DonneesRecues(const std::string &s_Recu, bool *pb_Terminee = nullptr);

// A line list (copies of the texts) and a body stream holding the bytes, as
// the transports take them.
struct Entete;
Entete *ListeLignes(const std::vector<std::string> &v_Lignes);
FILE *FluxOctets(const std::string &s_Octets);

// What the callable returned is in s_Sortie.
using ResultatEnfant = ResultatProcessus;
ResultatEnfant ExecuteEnFils(const std::function<std::string()> &f, int i_LimiteSecondes = 30);
