// annuaire_essai.cpp - slapd and silent servers for the tests (see annuaire_essai.h).
#include "annuaire_essai.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "processus.h"

namespace {

constexpr const char *SLAPD = "/usr/sbin/slapd";
constexpr const char *SLAPADD = "/usr/sbin/slapadd";
constexpr int ESSAIS_PORT = 5;
constexpr auto ATTENTE_DEMARRAGE = std::chrono::seconds(10);

// 127.0.0.1:port as a socket address.
sockaddr_in Adresse(int i_Port) {
    sockaddr_in st{};
    st.sin_family = AF_INET;
    st.sin_port = htons(static_cast<uint16_t>(i_Port));
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return st;
}

// Socket bound to 127.0.0.1 on the port (0: any free one); -1 on failure.
int SocketLocale(int i_Port) {
    int i_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in st = Adresse(i_Port);
    if (i_Fd >= 0 && bind(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0) {
        close(i_Fd);
        return -1;
    }
    return i_Fd;
}

// Port a socket is bound to.
int PortDe(int i_Fd) {
    sockaddr_in st{};
    socklen_t t = sizeof st;
    getsockname(i_Fd, reinterpret_cast<sockaddr *>(&st), &t);
    return ntohs(st.sin_port);
}

// Starts connecting to 127.0.0.1:port; with b_Attente, waits for the outcome.
int Connecte(int i_Port, bool b_Attente) {
    int i_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (b_Attente ? 0 : SOCK_NONBLOCK), 0);
    sockaddr_in st = Adresse(i_Port);
    if (i_Fd >= 0 && connect(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0 &&
        errno != EINPROGRESS) {
        close(i_Fd);
        return -1;
    }
    return i_Fd;
}

// Writes a file; false when it cannot.
bool EcritFichier(const std::string &s_Chemin, const std::string &s_Contenu) {
    std::ofstream f(s_Chemin, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(f << s_Contenu << std::flush);
}

// slapd.conf of the test directory.
std::string Configuration(const AnnuaireEssai &st, const OptionsAnnuaire &st_Options) {
    const std::string s_Suffixe = SUFFIXE_ANNUAIRE_ESSAI;
    return "include /etc/ldap/schema/core.schema\n"
           "include /etc/ldap/schema/cosine.schema\n"
           "include /etc/ldap/schema/inetorgperson.schema\n"
           "include " REPERTOIRE_SOURCES "/schema/vorane.schema\n"
           "pidfile " + st.s_Repertoire + "/slapd.pid\n"
           "modulepath /usr/lib/ldap\nmoduleload back_mdb\n"
           "defaultsearchbase " + s_Suffixe + "\n" +
           (st_Options.b_RefuseAnonyme ? "disallow bind_anon\n" : "") +
           "loglevel 0\ndatabase mdb\nmaxsize 104857600\n"
           "suffix \"" + s_Suffixe + "\"\nrootdn \"cn=admin," + s_Suffixe + "\"\nrootpw secret\n"
           "directory " + st.s_Repertoire + "/db\n"
           "index objectClass,mail,ravokVixmailEmission eq\naccess to * by * read\n";
}

// Waits until slapd answers a TCP connection; false when it died or took
// too long.
bool AttendAnnuaire(AnnuaireEssai *pst) {
    auto t_Fin = std::chrono::steady_clock::now() + ATTENTE_DEMARRAGE;
    while (std::chrono::steady_clock::now() < t_Fin) {
        if (waitpid(pst->i_Pid, nullptr, WNOHANG) == pst->i_Pid) {
            pst->i_Pid = 0;
            return false;
        }
        int i_Fd = Connecte(pst->i_Port, true);
        if (i_Fd >= 0) {
            close(i_Fd);
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace

int PortLibre() {
    int i_Fd = SocketLocale(0);
    if (i_Fd < 0) return 0;
    int i_Port = PortDe(i_Fd);
    close(i_Fd);
    return i_Port;
}

std::string EntreeLdif(const std::string &s_Rdn, const std::string &s_Lignes) {
    std::string s = "dn: " + s_Rdn + "," + SUFFIXE_ANNUAIRE_ESSAI + "\n" + s_Lignes;
    if (!s.empty() && s.back() != '\n') s += "\n";
    return s + "\n";
}

bool DemarreAnnuaire(AnnuaireEssai *pst, const std::string &s_Ldif,
                     const OptionsAnnuaire &st_Options) {
    // 1. Directory, configuration, entries.
    char pc_Modele[] = "/tmp/vorane-slapd-XXXXXX";
    if (mkdtemp(pc_Modele) == nullptr) {
        pst->s_Erreur = std::string("mkdtemp: ") + strerror(errno);
        return false;
    }
    pst->s_Repertoire = pc_Modele;
    std::filesystem::create_directory(pst->s_Repertoire + "/db");
    const std::string s_Conf = pst->s_Repertoire + "/slapd.conf";
    const std::string s_Entrees = pst->s_Repertoire + "/entrees.ldif";
    std::string s_Base =
        std::string("dn: ") + SUFFIXE_ANNUAIRE_ESSAI +
        "\nobjectClass: dcObject\nobjectClass: organization\ndc: vorane\no: vorane\n\n";
    if (!EcritFichier(s_Conf, Configuration(*pst, st_Options)) ||
        !EcritFichier(s_Entrees, s_Base + s_Ldif)) {
        pst->s_Erreur = "cannot write the configuration";
        return false;
    }
    ResultatProcessus r = LanceProgramme({SLAPADD, "-q", "-f", s_Conf, "-l", s_Entrees}, "", 60);
    if (r.i_Statut != 0) {
        pst->s_Erreur = "slapadd: " + r.s_Erreur;
        return false;
    }

    // 2. slapd in the foreground on a free port; another port when the one
    //    chosen was taken in between.
    const std::string s_Journal = pst->s_Repertoire + "/slapd.log";
    for (int i_Essai = 0; i_Essai < ESSAIS_PORT; i_Essai++) {
        pst->i_Port = PortLibre();
        std::string s_Url = "ldap://127.0.0.1:" + std::to_string(pst->i_Port) + "/";
        pid_t pid = fork();
        if (pid < 0) break;
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            int i_Fd = open(s_Journal.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            int i_Nul = open("/dev/null", O_RDONLY);
            for (int i : {0, 1, 2}) dup2(i == 0 ? i_Nul : i_Fd, i);
            execl(SLAPD, SLAPD, "-d", "0", "-f", s_Conf.c_str(), "-h", s_Url.c_str(),
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        pst->i_Pid = pid;
        if (AttendAnnuaire(pst)) {
            pst->s_Hote = "127.0.0.1:" + std::to_string(pst->i_Port);
            return true;
        }
        if (pst->i_Pid != 0) {
            kill(pst->i_Pid, SIGKILL);
            waitpid(pst->i_Pid, nullptr, 0);
            pst->i_Pid = 0;
        }
    }
    pst->s_Erreur = "slapd did not start: " + LitFichier(s_Journal);
    return false;
}

void ArreteAnnuaire(AnnuaireEssai *pst) {
    if (pst->i_Pid > 0) {
        kill(pst->i_Pid, SIGCONT);
        kill(pst->i_Pid, SIGTERM);
        while (waitpid(pst->i_Pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        pst->i_Pid = 0;
    }
    if (!pst->s_Repertoire.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(pst->s_Repertoire, ec);
        pst->s_Repertoire.clear();
    }
}

// True when every thread of the process is stopped (state "T" in its stat
// line), so that nothing it already started can still answer.
static bool ToutesTachesArretees(pid_t i_Pid) {
    std::error_code ec;
    std::filesystem::directory_iterator it("/proc/" + std::to_string(i_Pid) + "/task", ec);
    if (ec) return false;
    for (const auto &e : it) {
        std::ifstream f(e.path() / "stat");
        std::string s_Stat;
        std::getline(f, s_Stat);
        std::size_t p = s_Stat.rfind(')');
        if (p == std::string::npos || p + 2 >= s_Stat.size() || s_Stat[p + 2] != 'T') return false;
    }
    return true;
}

void SuspendAnnuaire(const AnnuaireEssai &st) {
    if (st.i_Pid <= 0) return;
    kill(st.i_Pid, SIGSTOP);
    // The signal is asynchronous: wait until every thread has stopped.
    for (int i = 0; i < 200 && !ToutesTachesArretees(st.i_Pid); i++) usleep(5000);
}

void ReprendAnnuaire(const AnnuaireEssai &st) {
    if (st.i_Pid > 0) kill(st.i_Pid, SIGCONT);
}

bool DemarreServeurMuet(ServeurMuet *pst, ModeMuet e_Mode) {
    // A backlog of 0 leaves room for one connection, which the fixture takes
    // itself in ModeMuet::FilePleine; the kernel then drops every new SYN.
    const bool b_Plein = e_Mode == ModeMuet::FilePleine;
    int i_Ecoute = SocketLocale(0);
    if (i_Ecoute < 0) return false;
    pid_t pid = 0;
    if (listen(i_Ecoute, b_Plein ? 0 : 16) != 0 || (!b_Plein && (pid = fork()) < 0)) {
        close(i_Ecoute);
        return false;
    }
    pst->i_Port = PortDe(i_Ecoute);
    pst->s_Hote = "127.0.0.1:" + std::to_string(pst->i_Port);
    if (b_Plein) {
        pst->i_Ecoute = i_Ecoute;
        pst->i_Bouchon = Connecte(pst->i_Port, false);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return pst->i_Bouchon >= 0;
    }
    if (pid == 0) {
        // Accepts every connection and reads whatever comes, never writing.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::vector<pollfd> v{{i_Ecoute, POLLIN, 0}};
        char pc[4096];
        for (;;) {
            if (poll(v.data(), v.size(), -1) < 0) continue;
            for (std::size_t i = 1; i < v.size(); i++)
                if (v[i].fd >= 0 && v[i].revents != 0 && read(v[i].fd, pc, sizeof pc) <= 0) {
                    close(v[i].fd);
                    v[i].fd = -1;
                }
            int i_Fd = (v[0].revents & POLLIN) ? accept(i_Ecoute, nullptr, nullptr) : -1;
            if (i_Fd >= 0) v.push_back({i_Fd, POLLIN, 0});
        }
    }
    close(i_Ecoute);
    pst->i_Pid = pid;
    return true;
}

void ArreteServeurMuet(ServeurMuet *pst) {
    if (pst->i_Pid > 0) {
        kill(pst->i_Pid, SIGKILL);
        waitpid(pst->i_Pid, nullptr, 0);
        pst->i_Pid = 0;
    }
    if (pst->i_Bouchon >= 0) close(pst->i_Bouchon);
    if (pst->i_Ecoute >= 0) close(pst->i_Ecoute);
    pst->i_Bouchon = pst->i_Ecoute = -1;
}
