// enfant_essai.cpp - a function run in a forked child (see enfant_essai.h).
#include "enfant_essai.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

ResultatProcessus ExecuteDansEnfant(const std::function<void()> &fn, int i_LimiteSecondes) {
    ResultatProcessus r;
    int t_Err[2];
    if (pipe2(t_Err, O_CLOEXEC) != 0) return r;
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return r;
    if (pid == 0) {
        dup2(t_Err[1], 2);
        close(t_Err[0]);
        fn();
        fflush(stderr);
        _exit(0);
    }
    r.i_Pid = pid;
    close(t_Err[1]);
    auto t_Fin = std::chrono::steady_clock::now() + std::chrono::seconds(i_LimiteSecondes);
    for (;;) {
        auto t_Reste = std::chrono::duration_cast<std::chrono::milliseconds>(
            t_Fin - std::chrono::steady_clock::now());
        if (t_Reste.count() <= 0) {
            kill(pid, SIGKILL);
            r.b_Expire = true;
            break;
        }
        pollfd st{t_Err[0], POLLIN, 0};
        int i_Res = poll(&st, 1, static_cast<int>(t_Reste.count()));
        if (i_Res < 0 && errno == EINTR) continue;
        if (i_Res <= 0) continue;
        char pc[4096];
        ssize_t n = read(t_Err[0], pc, sizeof pc);
        if (n > 0) {
            r.s_Erreur.append(pc, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        break;
    }
    close(t_Err[0]);
    int i_Etat = 0;
    while (waitpid(pid, &i_Etat, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(i_Etat)) r.i_Statut = WEXITSTATUS(i_Etat);
    if (WIFSIGNALED(i_Etat)) r.i_Signal = WTERMSIG(i_Etat);
    return r;
}
