// erreur.cpp - TraitementErreur: report a failure and decide the exit status.
//
// One call formats the message, writes " !ERR:%d, %s\n" to standard error,
// logs the message (as an argument, never as a format) at the level's
// priority, writes the dump file once a header exists, and then, by level:
//   <= 2   exit 75;
//   3      incident notice and exit 0, or the message again on standard error
//          and exit 65 (main server) / 0 (elsewhere); while other recipients
//          of the run are still to be delivered (gi_DestinatairesEnSuspens)
//          no notice, the message on standard error and exit 65, so that
//          Postfix returns the message for every recipient of the run;
//   -3     as 3 without ending the process;
//   >= 4   return.
// Dump files: <spool>Erreurs/ERR.remise.<pid>.XXXXXX (levels up to 3) or
// ATT.remise.<pid>.XXXXXX (above 3), created exclusively with owner-only
// permissions; the name is built in a TAILLE_TEXTE buffer and a name that
// does not fit is not created (a cut name could land outside the spool).
// A dump that cannot be written (spool missing or unusable, file system
// full) is skipped, a partly written one removed: the report, its notice and
// the delivery go on.  The first such failure of a run is logged (3660, at
// warning priority, never on standard error, which Postfix quotes in its
// log and bounces); later ones are not, as each would say the same.
// Between OuvreSerieAvertissements and FermeSerieAvertissements (a retry
// loop that repeats its warnings) only the first warning writes a dump:
// the log and standard error still get every one.
// In the explain form (gi_Explication) a report is only said, on standard
// output, with what a delivery would make of it: no log line, no dump file,
// no notice, no delivery status.  Levels after which a delivery goes on
// return; the others end the explanation with the maintenance status (1).
#include "report/report.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

#include "socle.h"

namespace {

// What the dump file says happens after the report, by level.
struct ActionNiveau {
    int i_Niveau;
    const char *pc_Action;
};
const ActionNiveau st_Actions[] = {
    {2, "LOG_CRIT, pour nouvelle tentative par Postfix"},
    {3, "LOG_ERR, pour avis de non remise"},
    {4, "LOG_WARN, avertissement mais poursuite de la remise"},
};
const char *const PC_ACTION_INCONNUE = "LOG_???, niveau non prevu";

bool sb_DumpImpossibleSignale = false;  // 3660 already logged by this run
bool sb_SerieOuverte = false;           // warnings of a retry loop in progress
bool sb_DumpSerieEcrit = false;         // ... one of which has its dump

// Action text of a (positive) level.
const char *TexteAction(int i_Niveau) {
    for (const ActionNiveau &st : st_Actions)
        if (st.i_Niveau == i_Niveau) return st.pc_Action;
    return PC_ACTION_INCONNUE;
}

// System-log priority of a (positive) level: the level itself, kept within
// the priority range.
int PrioriteSyslog(int i_Niveau) {
    if (i_Niveau > LOG_DEBUG) return LOG_DEBUG;
    return i_Niveau;
}

// Writes one header list into the dump with its prefix.
void DumpListe(FILE *pf, const Entete *pet, const char *pc_Prefixe) {
    for (; pet != nullptr; pet = pet->pet_Suivant)
        fprintf(pf, "%s%s", pc_Prefixe, pet->pc_Ligne != nullptr ? pet->pc_Ligne : "");
}

// Logs, once per run, that a dump file could not be written.
void SignaleDumpImpossible(int i_Errno) {
    if (sb_DumpImpossibleSignale) return;
    sb_DumpImpossibleSignale = true;
    syslog(LOG_WARNING,
           "v1.1.0/3660: Fichier de debug impossible dans <%sErreurs/>, errno=%d (%s). %s",
           gpc_RacineSpool, i_Errno, strerror(i_Errno), gPc_InfoMessEnCours);
}

// Writes the dump file for this report into pc_Nom (TAILLE_TEXTE bytes);
// leaves pc_Nom empty when no file was written.
void EcritDump(int i_Niveau, const char *pc_Message, char *pc_Nom) {
    pc_Nom[0] = '\0';
    if (gpet_EnteteMessOrigine == nullptr && gpet_EnteteMess == nullptr) return;
    if (i_Niveau > NIVEAU_ERREUR && sb_SerieOuverte && sb_DumpSerieEcrit) return;

    const char *pc_Type = i_Niveau <= NIVEAU_ERREUR ? "ERR" : "ATT";
    int i_Long = snprintf(pc_Nom, TAILLE_TEXTE, "%sErreurs/%s.remise.%d.XXXXXX", gpc_RacineSpool,
                          pc_Type, static_cast<int>(getpid()));
    if (i_Long < 0 || static_cast<std::size_t>(i_Long) >= TAILLE_TEXTE) {
        pc_Nom[0] = '\0';
        SignaleDumpImpossible(ENAMETOOLONG);
        return;
    }
    int i_Fd = mkstemp(pc_Nom);
    if (i_Fd < 0) {
        pc_Nom[0] = '\0';
        SignaleDumpImpossible(errno);
        return;
    }
    FILE *pf = fdopen(i_Fd, "w");
    if (pf == nullptr) {
        int i_Errno = errno;
        close(i_Fd);
        unlink(pc_Nom);
        pc_Nom[0] = '\0';
        SignaleDumpImpossible(i_Errno);
        return;
    }
    fprintf(pf, "%s\n\nAction: %s\n\n", pc_Message, TexteAction(i_Niveau));
    fputs("__DEBUT_DESTINATAIRES__\n", pf);
    for (int i = 0; gtpc_RcptTo != nullptr && gtpc_RcptTo[i] != nullptr; i++)
        fprintf(pf, "Dest[%d]=<%s>\n", i + 1, gtpc_RcptTo[i]);
    fputs("__FIN_DESTINATAIRES__\n\n", pf);
    fputs("__DEBUT_ENTETE_ORIGINE__\n", pf);
    DumpListe(pf, gpet_EnteteMessOrigine, "O>");
    fputs("__FIN_ENTETE_ORIGINE__\n\n", pf);
    fputs("__DEBUT_ENTETE_TRAVAIL__\n", pf);
    DumpListe(pf, gpet_EnteteMess, "T>");
    fputs("__FIN_ENTETE_TRAVAIL__\n\n", pf);
    // A dump the file system could not hold whole (full, over quota) is
    // removed rather than left cut, and no notice points at it.
    bool b_Erreur = ferror(pf) != 0;
    errno = 0;
    if (fclose(pf) != 0 || b_Erreur) {
        int i_Errno = errno != 0 ? errno : EIO;
        unlink(pc_Nom);
        pc_Nom[0] = '\0';
        SignaleDumpImpossible(i_Errno);
        return;
    }
    if (i_Niveau > NIVEAU_ERREUR && sb_SerieOuverte) sb_DumpSerieEcrit = true;
}

// The explain form's account of a report: the message, then what a
// delivery would do after it.  Returns only when a delivery would go on.
void ExpliqueSignalement(int i_Niveau, bool b_Poursuite, const char *pc_Message) {
    printf("  ! signalement de niveau %d : %s\n", b_Poursuite ? -i_Niveau : i_Niveau, pc_Message);
    const char *pc_Suite = b_Poursuite ? ", puis la remise continue" : ", statut 0";
    if (i_Niveau <= NIVEAU_CRITIQUE) {
        printf("    -> remise reelle : arret, statut 75 (Postfix garde le message et le "
               "representera)\n");
    } else if (i_Niveau == NIVEAU_ERREUR) {
        if (!b_Poursuite && gi_DestinatairesEnSuspens)
            printf("    -> remise reelle : statut 65 (Postfix renvoie le message a l'expediteur avec "
                   "ce texte, pour tous les destinataires : d'autres restent a remettre)\n");
        else if (gi_OnEstSurServeurPrincipal && gpet_EnteteMess != nullptr && gpc_MailFrom != nullptr)
            printf("    -> remise reelle : avis \"Non remis (incident)\" a l'expediteur%s\n",
                   pc_Suite);
        else if (!gi_OnEstSurServeurPrincipal)
            printf("    -> remise reelle : pas d'avis (pas le serveur principal)%s\n", pc_Suite);
        else
            printf("    -> remise reelle : statut 65 (Postfix renvoie le message a "
                   "l'expediteur avec ce texte)\n");
    } else {
        printf("    -> avertissement, la remise continue\n");
    }
    if (i_Niveau <= NIVEAU_CRITIQUE || (i_Niveau == NIVEAU_ERREUR && !b_Poursuite)) {
        printf("Fin de l'explication : la remise s'arreterait ici.\n");
        FinProcessus(STATUT_MAINTENANCE);
    }
}

}  // namespace

// Starts a series of repeated warnings: they share one dump file.
void OuvreSerieAvertissements() {
    sb_SerieOuverte = true;
    sb_DumpSerieEcrit = false;
}

// Ends the series; later warnings write their own dump files again.
void FermeSerieAvertissements() { sb_SerieOuverte = sb_DumpSerieEcrit = false; }

// Flushes the standard streams and ends the process with the status.
void FinProcessus(int i_Statut) {
    fflush(stdout);
    fflush(stderr);
    exit(i_Statut);
}

// Reports a failure or a warning; see the unit's heading for the levels.
void TraitementErreur(int i_Niveau, const char *pc_Format, ...) {
    // 1. Format; an unformattable message is the format text itself.
    char *pc_Alloue = nullptr;
    va_list ap;
    va_start(ap, pc_Format);
    int i_Res = vasprintf(&pc_Alloue, pc_Format, ap);
    va_end(ap);
    if (i_Res < 0) pc_Alloue = nullptr;
    const char *pc_Message = pc_Alloue != nullptr ? pc_Alloue : pc_Format;

    if (gi_Explication) {
        ExpliqueSignalement(i_Niveau < 0 ? -i_Niveau : i_Niveau, i_Niveau < 0, pc_Message);
        free(pc_Alloue);
        return;
    }

    // 2. Standard error, with the level as given.
    fprintf(stderr, " !ERR:%d, %s\n", i_Niveau, pc_Message);

    // 3. A negative level reports as its positive value and goes on.
    bool b_Poursuite = false;
    if (i_Niveau < 0) {
        i_Niveau = -i_Niveau;
        b_Poursuite = true;
    }

    // 4. System log.
    syslog(PrioriteSyslog(i_Niveau), "%s", pc_Message);

    // 5-6. Dump file, once a header exists.
    char pc_NomDump[TAILLE_TEXTE];
    EcritDump(i_Niveau, pc_Message, pc_NomDump);

    // 7. Temporary failure: Postfix keeps the message.
    if (i_Niveau <= NIVEAU_CRITIQUE) FinProcessus(STATUT_REESSAI);

    // 8. Refusal: notice to the sender, or the text for Postfix's bounce.
    bool b_AvisPose = false;
    if (i_Niveau == NIVEAU_ERREUR && !b_Poursuite && gi_DestinatairesEnSuspens) {
        fprintf(stderr, "%s\n", pc_Message);
        FinProcessus(STATUT_REFUS);
    }
    if (i_Niveau == NIVEAU_ERREUR) {
        int i_AvantAvis = si_ErreurEnCours;
        int i_Avis = AvisIncident(pc_Message, pc_NomDump);
        b_AvisPose = i_AvantAvis == 0 && si_ErreurEnCours != 0;
        if (i_Avis && !b_Poursuite) FinProcessus(STATUT_FAIT);
        fprintf(stderr, "%s\n", pc_Message);
        if (!b_Poursuite) FinProcessus(gi_OnEstSurServeurPrincipal ? STATUT_REFUS : STATUT_FAIT);
    }

    // 9. The run goes on.
    free(pc_Alloue);
    if (b_AvisPose) si_ErreurEnCours = 0;
}
