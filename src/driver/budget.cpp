// budget.cpp - the time budget of one run.
//
// Postfix kills a pipe command that runs past its own limit and then
// returns the message to its sender.  The run therefore has a budget of its
// own, gi_BudgetExecution seconds (below Postfix's limit): when it is spent
// the process ends with the level-2 line on standard error and status 75,
// so that Postfix keeps the message and tries again.  Once the message is
// delivered and nothing remains to be told (gi_IssueAcquise), a retry could
// only deliver it twice: the run then ends with status 0 and the warning
// line 3654 (the store's session is left unclosed).  The budget uses a
// monotonic POSIX timer and a signal of its own, apart from the SIGALRM of
// the alarm guard.  Its handler may only do what is safe in a signal
// handler: it kills the submission command in progress (so that a command
// reading the message never sees a clean end of input and submits a cut
// message), writes a prepared line and ends the process.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "driver/driver.h"
#include "report/report.h"

namespace {

char sPc_LigneBudget[TAILLE_TEXTE], sPc_LigneBudgetAcquis[TAILLE_TEXTE];
std::size_t st_LongLigneBudget = 0, st_LongLigneBudgetAcquis = 0;

// The budget is spent: stop the command in progress and leave the message
// with Postfix, unless the message is already where it goes.
void BudgetEpuise(int) {
    pid_t i_Pid = static_cast<pid_t>(gi_PidCommandeEnCours);
    if (i_Pid > 0) kill(i_Pid, SIGKILL);
    const bool b_Acquis = gi_IssueAcquise != 0;
    ssize_t i_Res = b_Acquis ? write(STDERR_FILENO, sPc_LigneBudgetAcquis, st_LongLigneBudgetAcquis)
                             : write(STDERR_FILENO, sPc_LigneBudget, st_LongLigneBudget);
    (void)i_Res;
    _exit(b_Acquis ? STATUT_FAIT : STATUT_REESSAI);
}

// Length of a prepared line (0 when it could not be made).
std::size_t LongueurPreparee(int i_Long, std::size_t t_Taille) {
    return i_Long > 0 ? std::min(static_cast<std::size_t>(i_Long), t_Taille - 1) : 0;
}

}  // namespace

// Arms the run's budget; a failure to arm it is a warning only.
void ArmeBudgetExecution() {
    int i_Long = snprintf(sPc_LigneBudget, sizeof sPc_LigneBudget,
                          " !ERR:2, v1.1.0/3652: Duree maximale d'execution atteinte (%d s), "
                          "message laisse a Postfix pour nouvelle tentative.\n",
                          gi_BudgetExecution);
    st_LongLigneBudget = LongueurPreparee(i_Long, sizeof sPc_LigneBudget);
    i_Long = snprintf(sPc_LigneBudgetAcquis, sizeof sPc_LigneBudgetAcquis,
                      " !ERR:4, v1.1.0/3654: Duree maximale d'execution atteinte (%d s) apres la "
                      "remise, fin sans attendre le serveur.\n",
                      gi_BudgetExecution);
    st_LongLigneBudgetAcquis = LongueurPreparee(i_Long, sizeof sPc_LigneBudgetAcquis);

    struct sigaction st_Action = {};
    st_Action.sa_handler = BudgetEpuise;
    sigfillset(&st_Action.sa_mask);
    sigaction(SIGRTMIN, &st_Action, nullptr);

    struct sigevent st_Evenement = {};
    st_Evenement.sigev_notify = SIGEV_SIGNAL;
    st_Evenement.sigev_signo = SIGRTMIN;
    timer_t t_Minuterie;
    struct itimerspec st_Delai = {};
    st_Delai.it_value.tv_sec = gi_BudgetExecution > 0 ? gi_BudgetExecution : 1;
    if (timer_create(CLOCK_MONOTONIC, &st_Evenement, &t_Minuterie) != 0 ||
        timer_settime(t_Minuterie, 0, &st_Delai, nullptr) != 0)
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/3653: Erreur armement duree maximale d'execution, errno=%d (%s)",
                         errno, strerror(errno));
}
