// processus.cpp - child processes for whole-program tests (see processus.h).
#include "processus.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

// Reads what is available on a descriptor into the text; false at its end.
bool LitDisponible(int i_Fd, std::string &s) {
    char pc[65536];
    ssize_t n = read(i_Fd, pc, sizeof pc);
    if (n > 0) {
        s.append(pc, static_cast<std::size_t>(n));
        return true;
    }
    return n < 0 && (errno == EINTR || errno == EAGAIN);
}

}  // namespace

ResultatProcessus LanceProgramme(const std::vector<std::string> &v_Argv, const std::string &s_Entree,
                                 int i_LimiteSecondes, const std::vector<std::string> &v_Env,
                                 bool b_EntreeOuverte) {
    int t_In[2], t_Out[2], t_Err[2];
    if (pipe2(t_In, O_CLOEXEC) || pipe2(t_Out, O_CLOEXEC) || pipe2(t_Err, O_CLOEXEC)) return {};

    std::vector<std::string> v_Env2;
    for (char **pp = environ; *pp != nullptr; pp++) v_Env2.emplace_back(*pp);
    for (const std::string &s : v_Env) v_Env2.push_back(s);
    std::vector<char *> v_A, v_E;
    for (const std::string &s : v_Argv) v_A.push_back(const_cast<char *>(s.c_str()));
    v_A.push_back(nullptr);
    for (const std::string &s : v_Env2) v_E.push_back(const_cast<char *>(s.c_str()));
    v_E.push_back(nullptr);

    pid_t pid = fork();
    if (pid == 0) {
        dup2(t_In[0], 0);
        dup2(t_Out[1], 1);
        dup2(t_Err[1], 2);
        signal(SIGPIPE, SIG_DFL);
        signal(SIGALRM, SIG_DFL);
        sigset_t m;
        sigemptyset(&m);
        sigprocmask(SIG_SETMASK, &m, nullptr);
        execve(v_A[0], v_A.data(), v_E.data());
        _exit(127);
    }
    close(t_In[0]);
    close(t_Out[1]);
    close(t_Err[1]);
    return SuitProcessus(pid, t_In[1], s_Entree, t_Out[0], t_Err[0], i_LimiteSecondes, b_EntreeOuverte);
}

ResultatProcessus SuitProcessus(pid_t i_Pid, int i_In, const std::string &s_Entree, int i_Out,
                                int i_Err, int i_LimiteSecondes, bool b_EntreeOuverte) {
    ResultatProcessus r;
    r.i_Pid = i_Pid;
    if (i_In >= 0) fcntl(i_In, F_SETFL, O_NONBLOCK);
    auto t_Fin = std::chrono::steady_clock::now() + std::chrono::seconds(i_LimiteSecondes);
    std::size_t t_Ecrit = 0;
    // The input is closed once written, or kept (never written again) for a
    // sender that stalls.
    int i_InGarde = -1;
    auto FinEntree = [&] {
        if (b_EntreeOuverte) i_InGarde = i_In;
        else close(i_In);
        i_In = -1;
    };
    if (i_In >= 0 && s_Entree.empty()) FinEntree();
    void (*p_Ancien)(int) = signal(SIGPIPE, SIG_IGN);
    int i_Etat = 0;
    struct rusage st_Usage = {};
    for (;;) {
        // With its output read to the end, only the child's own end is awaited.
        const bool b_Lus = i_Out < 0 && i_Err < 0;
        if (b_Lus) {
            pid_t w = wait4(i_Pid, &i_Etat, WNOHANG, &st_Usage);
            if (w == i_Pid || (w < 0 && errno != EINTR)) break;
        }
        auto t_Reste = std::chrono::duration_cast<std::chrono::milliseconds>(
            t_Fin - std::chrono::steady_clock::now());
        if (t_Reste.count() <= 0) {
            kill(i_Pid, SIGKILL);
            r.b_Expire = true;
            while (wait4(i_Pid, &i_Etat, 0, &st_Usage) < 0 && errno == EINTR) {
            }
            break;
        }
        // poll skips the descriptors already done (negative).
        pollfd t_P[3] = {{i_Out, POLLIN, 0}, {i_Err, POLLIN, 0}, {i_In, POLLOUT, 0}};
        int i_Res = poll(t_P, 3, static_cast<int>(std::min<long>(t_Reste.count(), b_Lus ? 5 : 1000)));
        if (i_Res < 0 && errno != EINTR) t_Fin = std::chrono::steady_clock::now();
        if (i_Res <= 0) continue;
        for (auto [i, ps] : {std::pair{0, &r.s_Sortie}, {1, &r.s_Erreur}})
            if (t_P[i].revents && !LitDisponible(t_P[i].fd, *ps)) {
                close(t_P[i].fd);
                (i == 0 ? i_Out : i_Err) = -1;
            }
        if (t_P[2].revents) {
            ssize_t w = write(i_In, s_Entree.data() + t_Ecrit, s_Entree.size() - t_Ecrit);
            if (w > 0) t_Ecrit += static_cast<std::size_t>(w);
            if (w < 0 && errno != EAGAIN && errno != EINTR) t_Ecrit = s_Entree.size();
            if (t_Ecrit >= s_Entree.size()) FinEntree();
        }
    }
    signal(SIGPIPE, p_Ancien);
    for (int i_Fd : {i_In, i_InGarde, i_Out, i_Err})
        if (i_Fd >= 0) close(i_Fd);
    r.l_MemoireMaxKo = st_Usage.ru_maxrss;
    if (WIFEXITED(i_Etat)) r.i_Statut = WEXITSTATUS(i_Etat);
    if (WIFSIGNALED(i_Etat)) r.i_Signal = WTERMSIG(i_Etat);
    return r;
}

int SocketLocale(int *pi_Port, int i_Attente) {
    int i_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in st{};
    st.sin_family = AF_INET;
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t t = sizeof st;
    if (i_Fd < 0 || bind(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0 ||
        getsockname(i_Fd, reinterpret_cast<sockaddr *>(&st), &t) != 0 ||
        (i_Attente >= 0 && listen(i_Fd, i_Attente) != 0)) {
        if (i_Fd >= 0) close(i_Fd);
        return -1;
    }
    *pi_Port = ntohs(st.sin_port);
    return i_Fd;
}

std::vector<std::string> FichiersCommencantPar(const std::string &s_Repertoire,
                                               const std::string &s_Prefixe) {
    std::vector<std::string> v;
    DIR *pd = opendir(s_Repertoire.c_str());
    if (pd == nullptr) return v;
    while (dirent *pe = readdir(pd)) {
        std::string s = pe->d_name;
        if (s.compare(0, s_Prefixe.size(), s_Prefixe) == 0) v.push_back(s_Repertoire + "/" + s);
    }
    closedir(pd);
    std::sort(v.begin(), v.end());
    return v;
}

std::string LitFichier(const std::string &s_Chemin) {
    std::ifstream f(s_Chemin, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}
