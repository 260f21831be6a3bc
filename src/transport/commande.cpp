// commande.cpp - submission of a message through a command.
//
// DelivreMessage(message, body, action, argv, status slot) starts the command
// from its argument vector (posix_spawn: no shell ever parses a value, so an
// address reaches the command as one literal argument whatever bytes it
// holds), writes every node of the message and then the body stream into its
// standard input, and waits for it.  A command that cannot be started is a
// temporary failure, as with a command that could not be opened at all.
// EnvoiMessage(message, body, sender, recipients) runs sendmail in batches of
// at most MAX_DEST_LOT recipients whose command text, as logged, fits
// TAILLE_COMMANDE bytes.
// Results, messages and levels: see transport.h.
#include "transport/transport.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "report/report.h"
#include "socle.h"

extern char **environ;

namespace {

// Body pieces copied into the command.
constexpr std::size_t TAILLE_MORCEAU_CMD = 32 * 1024;

// Exit codes of the command that call for a retry by Postfix (the command
// may already hold the message); every other non-zero status refuses it.
struct NiveauSortie {
    int i_Code;
    const char *pc_Nom;
};
const NiveauSortie st_CodesReessai[] = {
    {68, "EX_NOHOST"}, {71, "EX_OSERR"},    {72, "EX_OSFILE"}, {74, "EX_IOERR"},
    {75, "EX_TEMPFAIL"}, {77, "EX_NOPERM"}, {78, "EX_CONFIG"},
};
constexpr const char *PC_ACTION_REESSAI = "Re-tentative, possibilite de depots repetes";
constexpr const char *PC_ACTION_REFUS = "Bounce";

// Level of a non-zero exit code.
int NiveauCodeSortie(int i_Code) {
    for (const NiveauSortie &st : st_CodesReessai)
        if (st.i_Code == i_Code) return NIVEAU_CRITIQUE;
    return NIVEAU_ERREUR;
}

// A command being fed its input: its pid, the write end of its standard
// input, and the read end kept by this process as a witness.  Holding the
// read end lets the program tell, once the command has ended, how much of
// its input it left unread: a command that exits without reading the whole
// message must never count as a delivery, even when the message fitted in
// the pipe.  The write end is non-blocking, so that a command that ended
// while the pipe was full cannot hold the writer.
//
// The command's standard output and standard error go to a pipe of this
// process, never to the program's own: under Postfix those are the pipe
// service's, which keeps the first few kilobytes and then stops reading, so
// that a command printing one warning more would die by SIGPIPE, a refusal.
// What the command writes is read as it comes (a chatty command must never
// block on a full pipe while this process waits for it) and its beginning,
// at most TAILLE_SORTIE_GARDEE bytes, is logged.
struct Commande {
    pid_t i_Pid = 0;
    int i_Fd = -1;
    int i_Temoin = -1;
    int i_Sortie = -1;
    std::string s_Sortie;
    std::size_t t_SortieTotale = 0;
};

// What is kept of a command's output for the log.
constexpr std::size_t TAILLE_SORTIE_GARDEE = 512;

// True when the command has ended (it is not reaped: its status is still
// to be waited for).
bool CommandeFinie(pid_t i_Pid) {
    siginfo_t st = {};
    return waitid(P_PID, static_cast<id_t>(i_Pid), &st, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           st.si_pid == i_Pid;
}

// Reads what the command has written so far, keeping its beginning; closes
// the pipe at its end.
void LitSortie(Commande *pst) {
    char Pc[4096];
    while (pst->i_Sortie >= 0) {
        ssize_t i_Lu = read(pst->i_Sortie, Pc, sizeof Pc);
        if (i_Lu < 0 && errno == EINTR) continue;
        if (i_Lu < 0) return;  // nothing more for now
        if (i_Lu == 0) {
            close(pst->i_Sortie);
            pst->i_Sortie = -1;
            return;
        }
        std::size_t t_Lu = static_cast<std::size_t>(i_Lu);
        std::size_t t_Place = TAILLE_SORTIE_GARDEE - pst->s_Sortie.size();
        pst->s_Sortie.append(Pc, t_Lu < t_Place ? t_Lu : t_Place);
        pst->t_SortieTotale += t_Lu;
    }
}

// Reads the command's output until the command has ended (its input is
// closed).  A process the command left behind may hold the pipe open: once
// the command itself has ended, what is there is taken and the pipe closed.
void AttendSortie(Commande *pst) {
    while (pst->i_Sortie >= 0 && !CommandeFinie(pst->i_Pid)) {
        struct pollfd st_Attente = {pst->i_Sortie, POLLIN, 0};
        if (poll(&st_Attente, 1, 100) > 0) LitSortie(pst);
    }
    LitSortie(pst);
    if (pst->i_Sortie >= 0) close(pst->i_Sortie);
    pst->i_Sortie = -1;
}

// Logs what the command wrote, control characters made spaces.
void JournaliseSortie(const Commande &st, const char *pc_Action) {
    if (st.t_SortieTotale == 0) return;
    std::string s = st.s_Sortie;
    for (char &c : s)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
    syslog(LOG_WARNING, "v1.1.0/1895: Sortie de la commande (%zu octets) : %s. <%.*s>. %s",
           st.t_SortieTotale, s.c_str(), TAILLE_CITATION_JOURNAL, pc_Action,
           gPc_InfoMessEnCours);
}

// Result of EcritTout for a command that ended before reading its input.
constexpr int CODE_FIN_SANS_LIRE = -1;

// Writes the bytes whole to the command; 0, errno, or CODE_FIN_SANS_LIRE
// when it ended with its input full.
int EcritTout(Commande *pst, const char *pc, std::size_t t_Long) {
    while (t_Long > 0) {
        ssize_t i_Compte = write(pst->i_Fd, pc, t_Long);
        if (i_Compte < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN) return errno;
            // Full: wait for room, as long as the command is there to read,
            // taking what it writes meanwhile.
            struct pollfd t_Attente[2] = {{pst->i_Fd, POLLOUT, 0}, {pst->i_Sortie, POLLIN, 0}};
            int i_Prets = poll(t_Attente, 2, 100);
            if (i_Prets > 0 && t_Attente[1].revents != 0) LitSortie(pst);
            // Still no room: has it ended?  (A process it left behind may
            // keep its output busy, so this is asked on every turn.)
            if ((t_Attente[0].revents & POLLOUT) == 0 && CommandeFinie(pst->i_Pid))
                return CODE_FIN_SANS_LIRE;
            continue;
        }
        pc += i_Compte;
        t_Long -= static_cast<std::size_t>(i_Compte);
    }
    return 0;
}

// Waits for the child; its whole status, or -1 when the wait fails.
int AttendFils(pid_t i_Pid) {
    int i_Etat = 0;
    pid_t i_Res;
    do {
        i_Res = waitpid(i_Pid, &i_Etat, 0);
    } while (i_Res < 0 && errno == EINTR);
    return i_Res < 0 ? -1 : i_Etat;
}

// Stops a command whose input is incomplete, before its input is closed: a
// submission program that saw an end of input would send a cut message.
void AbandonneFils(Commande *pst, const char *pc_Action) {
    kill(pst->i_Pid, SIGKILL);
    close(pst->i_Fd);
    close(pst->i_Temoin);
    AttendSortie(pst);
    JournaliseSortie(*pst, pc_Action);
    AttendFils(pst->i_Pid);
    gi_PidCommandeEnCours = 0;
}

// Starts the command with its standard input on a new pipe; 0, or the
// errno of the failure (the exec's own included).  The command is spawned
// without copying this process: a list of ten thousand members starts a
// hundred of them.  It inherits nothing of this process but its environment
// and its pipes (no directory connection, no spool file), with the default
// SIGPIPE and SIGALRM and no signal blocked; alarms and timers are never
// inherited by a new process.
int LanceCommande(char *const *tpc_Argv, Commande *pst) {
    int t_Entree[2], t_Sortie[2];
    if (pipe2(t_Entree, O_CLOEXEC) != 0) return errno;
    if (pipe2(t_Sortie, O_CLOEXEC) != 0) {
        int i_Err = errno;
        close(t_Entree[0]);
        close(t_Entree[1]);
        return i_Err;
    }
    posix_spawn_file_actions_t st_Actions;
    posix_spawnattr_t st_Attributs;
    posix_spawn_file_actions_init(&st_Actions);
    posix_spawnattr_init(&st_Attributs);
    posix_spawn_file_actions_adddup2(&st_Actions, t_Entree[0], 0);
    posix_spawn_file_actions_adddup2(&st_Actions, t_Sortie[1], 1);
    posix_spawn_file_actions_adddup2(&st_Actions, t_Sortie[1], 2);
    posix_spawn_file_actions_addclosefrom_np(&st_Actions, 3);
    sigset_t st_Defaut, st_Vide;
    sigemptyset(&st_Defaut);
    sigaddset(&st_Defaut, SIGPIPE);
    sigaddset(&st_Defaut, SIGALRM);
    sigemptyset(&st_Vide);
    posix_spawnattr_setsigdefault(&st_Attributs, &st_Defaut);
    posix_spawnattr_setsigmask(&st_Attributs, &st_Vide);
    posix_spawnattr_setflags(&st_Attributs, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    // The run's time budget kills the command in progress rather than let
    // it see the end of a message that was not sent whole: its signal waits
    // until the new command is known to it (ending the run between the
    // spawn and that would close the pipe under a live command, which would
    // submit an empty message).
    sigset_t st_Budget, st_Avant;
    sigemptyset(&st_Budget);
    sigaddset(&st_Budget, SIGRTMIN);
    sigprocmask(SIG_BLOCK, &st_Budget, &st_Avant);
    pid_t i_Pid = 0;
    int i_Err = posix_spawn(&i_Pid, tpc_Argv[0], &st_Actions, &st_Attributs, tpc_Argv, environ);
    if (i_Err == 0) gi_PidCommandeEnCours = i_Pid;
    sigprocmask(SIG_SETMASK, &st_Avant, nullptr);
    posix_spawn_file_actions_destroy(&st_Actions);
    posix_spawnattr_destroy(&st_Attributs);
    close(t_Sortie[1]);
    if (i_Err != 0) {
        close(t_Entree[0]);
        close(t_Entree[1]);
        close(t_Sortie[0]);
        return i_Err;
    }
    fcntl(t_Entree[1], F_SETFL, O_NONBLOCK);
    fcntl(t_Sortie[0], F_SETFL, O_NONBLOCK);
    pst->i_Pid = i_Pid;
    pst->i_Fd = t_Entree[1];
    pst->i_Temoin = t_Entree[0];
    pst->i_Sortie = t_Sortie[0];
    return 0;
}

}  // namespace

// Pipes the message into the command and maps its exit status.
void DelivreMessage(Entete *pet_Message, FILE *pf_Corps, const char *pc_Action,
                    char *const *tpc_Argv, int *pi_Statut) {
    if (pi_Statut != nullptr) *pi_Statut = -1;
    if (pc_Action == nullptr) pc_Action = "";

    // 1. What is about to run.
    syslog(LOG_INFO, "v1.1.0/1826:  Action=%d<%s>. %s", static_cast<int>(strlen(pc_Action)),
           pc_Action, gPc_InfoMessEnCours);

    // 2. Start the command.
    Commande st_Cmd;
    int i_Err = tpc_Argv != nullptr && tpc_Argv[0] != nullptr ? LanceCommande(tpc_Argv, &st_Cmd)
                                                              : ENOENT;
    if (i_Err != 0)
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/1835: Erreur popen commande, errno=%d (%s). %s. Possibilite de "
                         "depots repetes",
                         i_Err, strerror(i_Err), gPc_InfoMessEnCours);

    // 3. Every node of the message, in order (a command that ended with its
    //    input full gets nothing more: its status says the rest).
    for (Entete *pet = pet_Message; pet != nullptr && i_Err == 0; pet = pet->pet_Suivant) {
        if (pet->pc_Ligne == nullptr) continue;
        i_Err = EcritTout(&st_Cmd, pet->pc_Ligne, LongueurLigne(pet));
        if (i_Err > 0) {
            AbandonneFils(&st_Cmd, pc_Action);
            TraitementErreur(NIVEAU_CRITIQUE,
                             "v1.1.0/1839: Erreur fputs entete vers commande <%s>, errno=%d (%s). "
                             "%s. Possibilite de depots repetes",
                             pc_Action, i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        }
    }

    // 4. The body stream to its end.
    if (pf_Corps != nullptr && i_Err == 0) {
        static char s_Morceau[TAILLE_MORCEAU_CMD];
        std::size_t t_Lu;
        while (i_Err == 0 && (t_Lu = fread(s_Morceau, 1, sizeof s_Morceau, pf_Corps)) > 0) {
            i_Err = EcritTout(&st_Cmd, s_Morceau, t_Lu);
            if (i_Err > 0) {
                AbandonneFils(&st_Cmd, pc_Action);
                TraitementErreur(NIVEAU_CRITIQUE,
                                 "v1.1.0/1845: Erreur fputs corps vers commande <%s>, errno=%d "
                                 "(%s). %s. Possibilite de depots repetes",
                                 pc_Action, i_Err, strerror(i_Err), gPc_InfoMessEnCours);
            }
        }
        if (i_Err == 0 && ferror(pf_Corps)) {
            // The message is incomplete: the command must not see an end of
            // input and send what it has; Postfix keeps the whole message.
            i_Err = errno;
            AbandonneFils(&st_Cmd, pc_Action);
            TraitementErreur(NIVEAU_CRITIQUE,
                             "v1.1.0/1847: Erreur lecture du corps pour la commande <%s>, "
                             "errno=%d (%s). %s",
                             pc_Action, i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        }
    }

    // 5. End of input; wait for the command, then see that it read it all.
    close(st_Cmd.i_Fd);
    AttendSortie(&st_Cmd);
    errno = 0;
    int i_Etat = AttendFils(st_Cmd.i_Pid);
    int i_ErrAttente = errno;
    gi_PidCommandeEnCours = 0;
    JournaliseSortie(st_Cmd, pc_Action);
    int i_NonLus = 0;
    if (ioctl(st_Cmd.i_Temoin, FIONREAD, &i_NonLus) != 0) i_NonLus = 0;
    close(st_Cmd.i_Temoin);
    // A success without the whole message read is no delivery: a retry.
    if (i_Etat == 0 && (i_NonLus > 0 || i_Err != 0))
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/1893: Commande <%s> terminee sans lire tout le message (%d octets "
                         "non lus). %s. Possibilite de depots repetes",
                         pc_Action, i_NonLus, gPc_InfoMessEnCours);
    int i_Code = (i_Etat >> 8) & 0xff;
    if (pi_Statut != nullptr) {
        *pi_Statut = i_Code;
        return;
    }

    // 6-7. Its exit status: done, retry or refusal.
    if (i_Etat == 0) return;
    int i_Niveau = NiveauCodeSortie(i_Code);
    TraitementErreur(i_Niveau,
                     "v1.1.0/1891: Erreur sur pclose <%s>, cr=%d(%d), errno=%d (%s) . %s. %s",
                     pc_Action, i_Code, i_Etat, i_ErrAttente, strerror(i_ErrAttente),
                     gPc_InfoMessEnCours,
                     i_Niveau == NIVEAU_CRITIQUE ? PC_ACTION_REESSAI : PC_ACTION_REFUS);
}

namespace {

// One batch of a submission: the command text as logged, the argument
// vector run, and the number of entries it took.
struct LotEnvoi {
    char Pc_Commande[TAILLE_COMMANDE];
    std::vector<char *> v_Argv;
    int i_Pris = 0;
};

// Cuts the next batch from entry *pi of the sorted recipients and moves *pi
// past it: at most MAX_DEST_LOT entries whose command text fits; an address
// that could never fit is refused (1952) and skipped.  False when no batch
// is left.
bool LotSuivant(char **tpc_Destinataires, int *pi, const char *pc_De, LotEnvoi *pst) {
    if (tpc_Destinataires[*pi] == nullptr) return false;
    char *Pc_Commande = pst->Pc_Commande;

    // 2.1. The fixed part: what is logged, and the argument vector run.
    int i_Fixe = snprintf(Pc_Commande, TAILLE_COMMANDE, "exec %s -i -f \"%s\" -- ",
                          gpc_CmdSendmail, pc_De);
    if (i_Fixe < 0 || static_cast<std::size_t>(i_Fixe) >= TAILLE_COMMANDE)
        TraitementErreur(NIVEAU_ERREUR,
                         "v1.1.0/1951: EnvoiMessage, adresse d'emission trop longue pour la "
                         "commande (%zu caracteres). %s",
                         strlen(pc_De), gPc_InfoMessEnCours);
    std::size_t t_Long = static_cast<std::size_t>(i_Fixe);
    pst->v_Argv = {const_cast<char *>(gpc_CmdSendmail), const_cast<char *>("-i"),
                   const_cast<char *>("-f"), const_cast<char *>(pc_De), const_cast<char *>("--")};

    // 2.2. At most MAX_DEST_LOT entries that fit the command text.
    int i_Pris = 0;
    while (tpc_Destinataires[*pi] != nullptr && i_Pris < MAX_DEST_LOT) {
        char *pc_Adresse = tpc_Destinataires[*pi];
        if (pc_Adresse[0] == '\0') {
            ++*pi;
            i_Pris++;
            continue;
        }
        std::size_t t_Ajout = strlen(pc_Adresse) + 3;  // space and two quotes
        if (static_cast<std::size_t>(i_Fixe) + t_Ajout + 1 > TAILLE_COMMANDE) {
            // It could never join a batch: refuse it and go on.
            TraitementErreur(NIVEAU_ERREUR_SUITE,
                             "v1.1.0/1952: EnvoiMessage, adresse trop longue pour la commande, "
                             "destinataire refuse (%zu caracteres) <%.200s...>. %s",
                             strlen(pc_Adresse), pc_Adresse, gPc_InfoMessEnCours);
            ++*pi;
            continue;
        }
        if (t_Long + t_Ajout + 1 > TAILLE_COMMANDE) break;
        Pc_Commande[t_Long] = ' ';
        Pc_Commande[t_Long + 1] = '"';
        memcpy(Pc_Commande + t_Long + 2, pc_Adresse, t_Ajout - 3);
        Pc_Commande[t_Long + t_Ajout - 1] = '"';
        Pc_Commande[t_Long + t_Ajout] = '\0';
        t_Long += t_Ajout;
        pst->v_Argv.push_back(pc_Adresse);
        ++*pi;
        i_Pris++;
    }
    pst->i_Pris = i_Pris;
    if (i_Pris == 0) return false;  // only refused addresses were left
    pst->v_Argv.push_back(nullptr);
    return true;
}

}  // namespace

// Submits the message through sendmail, batch by batch.
void EnvoiMessage(Entete *pet_Message, FILE *pf_Corps, const char *pc_Emetteur,
                  char **tpc_Destinataires) {
    if (tpc_Destinataires == nullptr) return;
    const char *pc_De = pc_Emetteur != nullptr ? pc_Emetteur : "";

    // 1. Addresses of one domain stand together.
    TriDomSmtpTableau(tpc_Destinataires);

    // 2. Batch by batch (a notice sent while one is cut submits its own:
    // each call has its batch).
    LotEnvoi st_Lot;
    int i = 0;
    while (LotSuivant(tpc_Destinataires, &i, pc_De, &st_Lot)) {
        // 2.3. More batches to come: the body must be sent more than once.
        if (pf_Corps != nullptr && tpc_Destinataires[i] != nullptr) {
            syslog(LOG_NOTICE,
                   "v1.1.0/1950: EnvoiMessage, depot scinde car trop de destinataire (>%d). %s",
                   st_Lot.i_Pris, gPc_InfoMessEnCours);
            LitMessage(pet_Message, pf_Corps);
            pf_Corps = nullptr;
        }

        // 2.4. Run the batch.
        DelivreMessage(pet_Message, pf_Corps, st_Lot.Pc_Commande, st_Lot.v_Argv.data(), nullptr);
    }
}

// The batches EnvoiMessage would run for the recipients, cut by the same
// rule; the recipients are sorted as it sorts them.
int CompteLotsEnvoi(const char *pc_Emetteur, char **tpc_Destinataires) {
    if (tpc_Destinataires == nullptr) return 0;
    const char *pc_De = pc_Emetteur != nullptr ? pc_Emetteur : "";
    TriDomSmtpTableau(tpc_Destinataires);
    LotEnvoi st_Lot;
    int i = 0, i_Lots = 0;
    while (LotSuivant(tpc_Destinataires, &i, pc_De, &st_Lot)) i_Lots++;
    return i_Lots;
}
