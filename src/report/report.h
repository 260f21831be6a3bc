// report.h - error reporting and exit status.
//
// TraitementErreur is the single reporting operation: every failure and
// warning of the program goes through it with a level and a printf-style
// message beginning "v1.1.0/NNNN: ".  The level decides what Postfix is told:
//   level <= 2  critical, ERR. dump, exit 75 (retry the whole message);
//   level 3     error, ERR. dump, incident notice then exit 0, or the message
//               on standard error and exit 65 (main server) / 0 (other);
//   level -3    as 3, but the call returns and the run goes on;
//   level >= 4  warning, ATT. dump, the call returns.
// Every report writes " !ERR:%d, %s\n" to standard error, the message to the
// system log, and, once a header exists, a dump file under the spool's
// Erreurs/ (owner-only, unique name); the first dump of a run that cannot be
// written is logged (3660, system log only).
//
// AvisIncident is the incident notice sent to the sender for level 3 and -3
// (7.2): from the postmaster, on the main server only, once a header exists;
// si_ErreurEnCours keeps a failure during a notice from sending another one.
// The notice is composed and submitted by the reply composition of the
// rules, which sits above this unit: the driver hands it over at start in
// gpf_EnvoiReponse (no notice while it is null).
//
// In the explain form (gi_Explication) a report is only said on standard
// output with what a delivery would make of it; no log line, dump file,
// notice or delivery status.  Levels 4 and -3 return; the others end the
// process with STATUT_MAINTENANCE.
#pragma once

#include "socle.h"

// Exit statuses Postfix acts on, and the one of the maintenance forms.
constexpr int STATUT_FAIT = 0;
constexpr int STATUT_MAINTENANCE = 1;
constexpr int STATUT_REFUS = 65;     // return the message to its sender
constexpr int STATUT_REESSAI = 75;   // keep the message and retry later

// Reporting levels.
constexpr int NIVEAU_CRITIQUE = 2;
constexpr int NIVEAU_ERREUR = 3;
constexpr int NIVEAU_ERREUR_SUITE = -3;
constexpr int NIVEAU_AVERTISSEMENT = 4;

void TraitementErreur(int i_Niveau, const char *pc_Format, ...)
    __attribute__((format(printf, 2, 3)));

// A retry loop whose attempts each raise a warning (the directory
// connection during an outage) brackets them with these: the warnings of
// the series share one dump file, the first one's; every one is still
// logged and written on standard error.
void OuvreSerieAvertissements();
void FermeSerieAvertissements();

// Ends the process with the given status after flushing standard streams.
[[noreturn]] void FinProcessus(int i_Statut);

// Set while an incident notice is being sent.
extern int si_ErreurEnCours;

// Sends the incident notice for a level-3 report; 1 when it counts as sent.
int AvisIncident(const char *pc_Message, const char *pc_FichierDebug);

// The reply composition (header, envelope sender, From text, body, label,
// charset, Message-Id prefix) -> 1 when handed over.
using FonctionEnvoiReponse = int (*)(Entete *, const char *, const char *, const char *,
                                     const char *, const char *, const char *);
extern FonctionEnvoiReponse gpf_EnvoiReponse;
