// driver.h - the delivery driver: the entry operation and the run.
//
// RemiseVorane(argc, argv) is the whole process: the "-decode" test form
// (returns 1), the maintenance forms --version and --init (exit 1), then the
// delivery form: options, postmaster address, main-server list, envelope
// checks, and the delivery itself.  Every other path ends the process.
//
// The process-wide values of the message in progress live here; every Part
// of the program reads them, most of all the reporting of report.h.
#pragma once

#include <csignal>
#include <cstddef>

#include "message/message.h"

constexpr const char *VERSION_VORANE = "1.1.0";
constexpr int NB_MAX_SERVEURS_PRINCIPAUX = 20;

extern char *gpc_MailFrom;                  // envelope sender, lower-cased
extern char **gtpc_RcptTo;                  // envelope recipients (argv tail)
extern const char *gpc_RcptTo;              // recipient in hand, or "-"
extern int gi_nbDestLcmd;                   // number of envelope recipients
extern char *gpc_AdPostmaster;              // "display" <postmaster>
extern int gi_OnEstSurServeurPrincipal;     // running on the main server
extern char gPc_InfoMessEnCours[TAILLE_TEXTE];  // description of the message
extern char gPc_MessageId[TAILLE_TEXTE];
extern int gi_EmetteurZeldor;               // sender found in the directory
extern int gi_EmetteurZeldorBoite;          // sender entry is a mailbox

// Values of one run that the command line sets and the later stages read.
struct OptionsRemise {
    const char *pc_ServeurLmtp = nullptr;     // -r
    const char *pc_SuffixeBoite = "";         // -c
    const char *pc_SuffixeSpam = nullptr;     // -s
    char *pc_HotesLdap = nullptr;             // -l, commas turned into spaces
    const char *pc_ServeursPrincipaux = nullptr;  // -p as given
    const char *pc_Postmaster = nullptr;      // -m
    // Main-server names split from a private copy of -p, null-terminated.
    char *tpc_ServeursPrincipaux[NB_MAX_SERVEURS_PRINCIPAUX + 1] = {};
    // LMTP delivery: recipient addresses and mailbox identifiers, each
    // gi_nbDestLcmd + 1 entries, filled by the recipient loop.
    char **tpc_AdrLmtp = nullptr;
    char **tpc_UidLmtp = nullptr;
};

// Entry operation of the process (returns only for the "-decode" form).
int RemiseVorane(int argc, char **argv);

// Parses the delivery form's options into the run's values and the
// process-wide values; reports usage errors (level 2) and stops at "-d".
void AnalyseOptions(int argc, char **argv, OptionsRemise *pst_Options);

// Rewrites the description of the message in progress; i_Rang 0 gives the
// "(-/n)" form.
void MajInfoMessEnCours(const char *pc_MessageId, int i_Rang);

// Arms the time budget of the run (gi_BudgetExecution seconds): when it is
// spent, the command in progress is killed and the process ends with 75.
void ArmeBudgetExecution();
// Process id of the submission command in progress (0: none), killed when
// the budget is spent; set by whoever starts such a command.
extern volatile sig_atomic_t gi_PidCommandeEnCours;

// 1 when the main-server value names one of the listed servers (any case).
int EstServeurPrincipal(char *const *tpc_Serveurs, const char *pc_Valeur);
