// socle.cpp - the process-wide values of the message in progress, with
// their initial values.  The command line (driver) sets the envelope, the
// postmaster and the first description; the reader fills the header lists;
// the sender analysis sets the Message-Id and the sender flags; the
// recipient loop moves the recipient in hand and the main-server flag.
#include "socle.h"

Entete *gpet_EnteteMessOrigine = nullptr;
Entete *gpet_EnteteMess = nullptr;

char *gpc_MailFrom = nullptr;
char **gtpc_RcptTo = nullptr;
const char *gpc_RcptTo = nullptr;
int gi_nbDestLcmd = 0;
char *gpc_AdPostmaster = nullptr;
int gi_OnEstSurServeurPrincipal = 1;
char gPc_InfoMessEnCours[TAILLE_TEXTE] = "";
char gPc_MessageId[TAILLE_TEXTE] = "";
int gi_EmetteurZeldor = 0;
int gi_EmetteurZeldorBoite = 0;

volatile sig_atomic_t gi_PidCommandeEnCours = 0;
volatile sig_atomic_t gi_IssueAcquise = 0;
int gi_Explication = 0;
int gi_DestinatairesEnSuspens = 0;
