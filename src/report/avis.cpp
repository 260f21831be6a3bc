// avis.cpp - the incident notice sent to the sender of a refused message.
//
// AvisIncident(message, dump file) is asked by TraitementErreur for every
// level-3 report.  The notice goes out through the reply composition, which
// this build does not carry yet: no notice is sent, so a level-3 report ends
// as one without a notice (the text on standard error, status 65 on the main
// server).  si_ErreurEnCours is the notice-in-progress flag that keeps a
// failure during a notice from sending another one.
#include "report/report.h"

int si_ErreurEnCours = 0;

// Sends the incident notice; 1 when it counts as sent (never, in this build).
int AvisIncident(const char *pc_Message, const char *pc_FichierDebug) {
    (void)pc_Message;
    (void)pc_FichierDebug;
    return 0;
}
