// deploiement.h - deployment values of this build.
//
// The values a site chooses (organisation name, postmaster, internal domain,
// spool root, command paths, run budget) and the time limits of the protocol
// dialogues.  They are defined in one generated unit, written by the build
// from its cache variables (src/driver/deploiement.cpp.in); the default build
// carries the reference deployment, the test build a copy whose spool root
// and command paths lie in the build tree and whose time limits are short.
//
// The time limits are plain integers so that unit tests can shorten them in
// their own process; nothing in the program changes them.
#pragma once

extern const char *const gpc_NomOrganisation;     // in the postmaster display name
extern const char *const gpc_PostmasterDefaut;    // default postmaster address (-m)
extern const char *const gpc_PostmasterRelais;    // internal host's postmaster alias
extern const char *const gpc_DomaineInterne;      // internal mail domain
extern const char *const gpc_TldInterne;          // internal top-level label
extern const char *const gpc_EmetteurVide;        // stands for an empty envelope sender
extern const char *const gpc_HoteWebmail;         // webmail front-end host name
extern const char *const gpc_PrefixeRelaisIntra;  // intranet relay host-name prefix
extern const char *const gpc_PrefixeRelaisInet;   // internet relay host-name prefix
extern const char *const gpc_RacineSpool;         // spool root, ends with "/"
extern const char *const gpc_CmdSendmail;         // submission command
extern const char *const gpc_CmdSympaQueue;       // Sympa queue program
extern const char *const gpc_CmdSympaBounce;      // Sympa bounce queue program

extern int gi_BudgetExecution;       // whole run, seconds (900)
extern int gi_DelaiReseau;           // LMTP connect, write, reply (120 s)
extern int gi_DelaiFinDonnees;       // LMTP reply after the end of data (360 s)
extern int gi_DelaiEntreEssaisLmtp;  // pause between LMTP attempts (10 s)
extern int gi_DureeReessaiLdap;      // directory retry window (299 s)
extern int gi_PasReessaiLdap;        // pause between directory attempts (5 s)
extern int gi_DelaiReseauLdap;       // directory network and operation limit (10 s)

// Origin zones: the regular expressions of rows 0-16 (site data: relay
// address literals and the webmail clauses), ended by a null entry.
constexpr int NB_MOTIFS_ZONE = 17;
extern const char *const gtpc_MotifsZone[NB_MOTIFS_ZONE + 1];
