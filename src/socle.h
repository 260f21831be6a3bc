// socle.h - the bottom floor: the process-wide values of the message in
// progress and the deployment values of this build.
//
// Every subsystem may include this header; it includes nothing of the
// program.  It holds:
//   - the buffer sizes used throughout the program (addresses 256, phrases
//     512, texts 1024, directory filters 320, one read of the message 1024);
//   - the header line lists of the message (incoming and working);
//   - the values of the run that the command line, the sender analysis and
//     the recipient loop set and every other part reads;
//   - the values a site chooses (organisation name, postmaster, internal
//     domain, spool root, command paths, run budget, origin-zone patterns)
//     and the time limits of the protocol dialogues.
//
// The run's values are defined in socle.cpp.  The deployment values are
// defined in one generated unit, written by the build from its cache
// variables (src/deploiement.cpp.in): the default build carries the
// reference deployment, the test build a copy whose spool root and command
// paths lie in the build tree and whose time limits are short.  The time
// limits are plain integers so that tests can shorten them in their own
// process; nothing in the program changes them.
#pragma once

#include <csignal>
#include <cstddef>

constexpr const char *VERSION_VORANE = "1.1.0";

// ---------------------------------------------------------------------------
// Buffer sizes.
// ---------------------------------------------------------------------------
constexpr std::size_t TAILLE_ADRESSE = 256;
constexpr std::size_t TAILLE_PHRASE = 512;
constexpr std::size_t TAILLE_TEXTE = 1024;
constexpr std::size_t TAILLE_FILTRE = 320;
constexpr std::size_t TAILLE_LECTURE = 1024;

// ---------------------------------------------------------------------------
// The message in progress.
// ---------------------------------------------------------------------------

// One line of the message as read (line feed included); a folded header
// field is one node whose text holds its continuation lines.  A piece of
// the body loaded into the list is kept byte for byte, NUL bytes included:
// its length is then t_Long (0 for every other node: the text's own).
struct Entete {
    char *pc_Ligne;
    Entete *pet_Suivant;
    std::size_t t_Long = 0;
};

// The incoming header as read (never changed) and the working copy that is
// rewritten and delivered; the body follows in the working list once loaded.
extern Entete *gpet_EnteteMessOrigine;
extern Entete *gpet_EnteteMess;

extern char *gpc_MailFrom;                      // envelope sender, lower-cased
extern char **gtpc_RcptTo;                      // envelope recipients (argv tail)
extern const char *gpc_RcptTo;                  // recipient in hand, or "-"
extern int gi_nbDestLcmd;                       // number of envelope recipients
extern char *gpc_AdPostmaster;                  // "display" <postmaster>
extern int gi_OnEstSurServeurPrincipal;         // running on the main server
extern char gPc_InfoMessEnCours[TAILLE_TEXTE];  // description of the message
extern char gPc_MessageId[TAILLE_TEXTE];
extern int gi_EmetteurZeldor;                   // sender found in the directory
extern int gi_EmetteurZeldorBoite;              // sender entry is a mailbox

// Set by the recipient loop while a report that ends the run would leave
// other recipients of the run behind: a later one not yet looked at, or
// mailboxes collected for the LMTP delivery.  A refusal (level 3) then goes
// back to Postfix with its text (status 65), so that the sender learns of
// every recipient, instead of a notice naming the one in hand and a status
// 0 under which the others would be neither delivered nor named.
extern int gi_DestinatairesEnSuspens;

// Process id of the command in progress (0: none), killed when the run's
// time budget is spent; set by whoever starts such a command.
extern volatile sig_atomic_t gi_PidCommandeEnCours;

// Set once the run's outcome is settled: every delivery is made and no
// notice remains to be sent, so that what is left (closing the store's
// session) decides nothing.  A time budget spent after that ends the run
// with status 0: a retry would deliver the message again everywhere.
extern volatile sig_atomic_t gi_IssueAcquise;

// Set for the whole process by the explain form (--explique): nothing is
// delivered, sent or written.  Read only where a step would act on its own
// account: the reporting (no dump file, no notice, no delivery status) and
// the directory connection (one attempt, no retry loop).
extern int gi_Explication;

// ---------------------------------------------------------------------------
// Deployment values of this build.
// ---------------------------------------------------------------------------
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
