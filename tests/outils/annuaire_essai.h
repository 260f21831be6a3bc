// annuaire_essai.h - directory servers for the tests.
//
// DemarreAnnuaire starts Debian's slapd through scripts/serveurs.sh
// ("annuaire"): listening only on ldap://127.0.0.1:<free port>, with the
// core, cosine and inetorgperson schemas and the project's
// schema/vorane.schema, suffix dc=vorane,dc=example (the base entry is added
// by the fixture) with defaultsearchbase set so that searches from the
// empty base work, read access for everyone, and the given LDIF entries
// loaded offline.  ArreteAnnuaire stops it and removes its directory.  The
// server dies with the test process.
//
// DemarreServeurMuet stands in for a directory host that never answers:
//   ModeMuet::Accepte     TCP connections are established (and what the
//                         client writes is taken), nothing is ever written;
//   ModeMuet::FilePleine  a listening socket whose accept queue is full, so
//                         that a new connection is never established (the
//                         connect itself hangs).
#pragma once

#include <string>
#include <sys/types.h>

constexpr const char *SUFFIXE_ANNUAIRE_ESSAI = "dc=vorane,dc=example";

struct OptionsAnnuaire {
    bool b_RefuseAnonyme = false;  // every anonymous bind refused
    // When set, the entry ou=renvoi,<suffix> is a referral to this URL
    // (e.g. another fixture's s_Url + suffix): subtree searches return a
    // reference to it.
    std::string s_Renvoi;
};

struct AnnuaireEssai {
    std::string s_Repertoire;  // the server's directory (configuration, database, log)
    int i_Port = 0;
    pid_t i_Pid = 0;
    std::string s_Hote;    // "127.0.0.1:<port>", as -l takes it
    std::string s_Url;     // "ldap://127.0.0.1:<port>/"
    std::string s_Erreur;  // why the start failed
};

// Starts slapd with the entries; false (and s_Erreur) when it cannot.
bool DemarreAnnuaire(AnnuaireEssai *pst, const std::string &s_Ldif,
                     const OptionsAnnuaire &st_Options = {});
// Stops slapd and removes its directory; harmless twice.
void ArreteAnnuaire(AnnuaireEssai *pst);
// Freezes / thaws the running slapd (returns once every thread is stopped):
// a server that has accepted the session and then stops answering.
void SuspendAnnuaire(const AnnuaireEssai &st);
void ReprendAnnuaire(const AnnuaireEssai &st);

// Changes entries of the running slapd (ldapmodify as its administrator,
// LDIF change records such as "dn: ...\nchangetype: modify\nreplace: x\n
// x: v\n"); false when the server refuses them.
bool ModifieAnnuaire(const AnnuaireEssai &st, const std::string &s_Changements);

// LDIF text of one entry under the suffix: "dn: <rdn>,<suffix>" then the
// given lines ("attribute: value", one per line), then a blank line.
std::string EntreeLdif(const std::string &s_Rdn, const std::string &s_Lignes);

enum class ModeMuet { Accepte, FilePleine };

struct ServeurMuet {
    int i_Port = 0;
    int i_Ecoute = -1;   // listening socket, never accepted from
    int i_Bouchon = -1;  // connection that fills the queue
    std::string s_Hote;  // "127.0.0.1:<port>"
};

bool DemarreServeurMuet(ServeurMuet *pst, ModeMuet e_Mode);
void ArreteServeurMuet(ServeurMuet *pst);

// A 127.0.0.1 port on which nothing listens at the time of the call.
int PortLibre();
