// temps.cpp - dates, file times and the alarm guard.
//
// _dattifc(t, out[>=20])         "dd/mm/yyyy hh:mm:ss" local time; 0, or -1
//                                 outside 0..DATE_MAX (output empty)
// _dattirfc822(t, out, size)      "%a, %d %b %Y %H:%M:%S %z"; strftime's
//                                 length (0 when too small), or -1 out of range
// _pc_datcfc(out), _pcs_datcfc()  now, into the caller's / a static 32-byte buffer
// _ltimefic, _mtimefic, _touchfic, _exidir: file times and kind; _touchfic
//   creates a missing file (mode 0666 before the umask) and follows no link
// Alarm guard: _debatt(limit); one blocking call; save errno; _finatt().
//   The SIGALRM handler only re-arms the alarm for 1 s and sets gi_timeout,
//   so a call that starts after the first alarm is interrupted too; calls are
//   not restarted (no SA_RESTART) and fail with EINTR, which _finatt turns
//   into ETIMEDOUT.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "message/message.h"

namespace {
volatile sig_atomic_t gi_timeout = 0;
char Pc_dat[32];
constexpr std::size_t TAILLE_DATE_CFC = 20;  // "dd/mm/yyyy hh:mm:ss" + NUL
}  // namespace

// Local date "dd/mm/yyyy hh:mm:ss".
int _dattifc(time_t t_Date, char *pc_Sortie) {
    pc_Sortie[0] = '\0';
    if (t_Date < 0 || t_Date > DATE_MAX) return -1;
    struct tm st_Tm;
    if (localtime_r(&t_Date, &st_Tm) == nullptr) return -1;
    // Within the accepted range the text is always 19 characters; the wider
    // scratch buffer only keeps the compiler's truncation analysis quiet.
    char pc_Tampon[80];
    snprintf(pc_Tampon, sizeof pc_Tampon, "%02d/%02d/%02d %02d:%02d:%02d", st_Tm.tm_mday,
             st_Tm.tm_mon + 1, st_Tm.tm_year + 1900, st_Tm.tm_hour, st_Tm.tm_min, st_Tm.tm_sec);
    _strncpy(pc_Sortie, pc_Tampon, TAILLE_DATE_CFC);
    return 0;
}

// RFC 822 date of the local time.
int _dattirfc822(time_t t_Date, char *pc_Sortie, std::size_t t_Taille) {
    if (t_Taille > 0) pc_Sortie[0] = '\0';
    if (t_Date < 0 || t_Date > DATE_MAX) return -1;
    struct tm st_Tm;
    if (localtime_r(&t_Date, &st_Tm) == nullptr) return -1;
    std::size_t t_Long = strftime(pc_Sortie, t_Taille, "%a, %d %b %Y %H:%M:%S %z", &st_Tm);
    if (t_Long == 0 && t_Taille > 0) pc_Sortie[0] = '\0';
    return static_cast<int>(t_Long);
}

// Current local date into the caller's buffer.
char *_pc_datcfc(char *pc_Sortie) {
    _dattifc(time(nullptr), pc_Sortie);
    return pc_Sortie;
}

// Current local date into the static buffer (overwritten by each call).
char *_pcs_datcfc() { return _pc_datcfc(Pc_dat); }

// Modification time of the file, or -1.
time_t _ltimefic(const char *pc_Chemin) {
    struct stat st;
    if (stat(pc_Chemin, &st) != 0) return -1;
    return st.st_mtime;
}

// Sets both file times.
int _mtimefic(const char *pc_Chemin, time_t t_Date) {
    struct utimbuf st = {t_Date, t_Date};
    return utime(pc_Chemin, &st);
}

// Touches the file, creating it empty when it does not exist.  The spool
// directories are open to every delivery user, so a link planted there is
// never followed (the file is then left alone, like any failure).
void _touchfic(const char *pc_Chemin) {
    int i_Fd = open(pc_Chemin, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                    0666);
    if (i_Fd < 0) return;
    futimens(i_Fd, nullptr);
    close(i_Fd);
}

// 1 when the path is a directory.
int _exidir(const char *pc_Chemin) {
    struct stat st;
    if (stat(pc_Chemin, &st) != 0) return 0;
    return S_ISDIR(st.st_mode) ? 1 : 0;
}

// Installs a handler with an empty mask and no flags; returns the previous one.
GestionnaireSignal _Signal(int i_Signal, GestionnaireSignal p_Gestionnaire) {
    struct sigaction st_Nouveau = {};
    struct sigaction st_Ancien = {};
    st_Nouveau.sa_handler = p_Gestionnaire;
    sigemptyset(&st_Nouveau.sa_mask);
    st_Nouveau.sa_flags = 0;
    if (sigaction(i_Signal, &st_Nouveau, &st_Ancien) != 0) return SIG_ERR;
    return st_Ancien.sa_handler;
}

// SIGALRM during a guard: fire again in 1 s and flag the time-out.
void _timeout(int) {
    alarm(1);
    gi_timeout = ETIMEDOUT;
}

// Starts a guard of i_Limite seconds (at least 1).
void _debatt(int i_Limite) {
    alarm(0);
    gi_timeout = 0;
    _Signal(SIGALRM, _timeout);
    alarm(static_cast<unsigned>(i_Limite < 1 ? 1 : i_Limite));
    errno = 0;
}

// Ends the guard; ETIMEDOUT when the alarm fired.
int _finatt() {
    int i_Err = errno;
    // Ignored first: an alarm that expires while it is being cancelled
    // would otherwise run the handler, which arms it again, after the
    // cancel, and with the default action restored it would end the process.
    _Signal(SIGALRM, SIG_IGN);
    alarm(0);
    _Signal(SIGALRM, SIG_DFL);
    int i_Res = gi_timeout;
    if (i_Res == ETIMEDOUT && i_Err == EINTR) i_Err = ETIMEDOUT;
    errno = i_Err;
    return i_Res;
}
