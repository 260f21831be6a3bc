// annuaire_essai.cpp - slapd and silent servers for the tests (see annuaire_essai.h).
#include "annuaire_essai.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
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

// Socket bound to 127.0.0.1 on the port (0: any free one); -1 on failure.
int SocketLocale(int i_Port) {
    int i_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (i_Fd < 0) return -1;
    sockaddr_in st{};
    st.sin_family = AF_INET;
    st.sin_port = htons(static_cast<uint16_t>(i_Port));
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0) {
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
    if (i_Fd < 0) return -1;
    sockaddr_in st{};
    st.sin_family = AF_INET;
    st.sin_port = htons(static_cast<uint16_t>(i_Port));
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0 && errno != EINPROGRESS) {
        close(i_Fd);
        return -1;
    }
    return i_Fd;
}

// Writes a file; false when it cannot.
bool EcritFichier(const std::string &s_Chemin, const std::string &s_Contenu) {
    std::ofstream f(s_Chemin, std::ios::binary | std::ios::trunc);
    f << s_Contenu;
    return static_cast<bool>(f.flush());
}

// slapd.conf of the test directory.
std::string Configuration(const AnnuaireEssai &st, const OptionsAnnuaire &st_Options) {
    std::string s;
    for (const char *pc : {"core", "cosine", "inetorgperson"})
        s += std::string("include /etc/ldap/schema/") + pc + ".schema\n";
    s += "include " REPERTOIRE_SOURCES "/schema/vorane.schema\n";
    s += "pidfile " + st.s_Repertoire + "/slapd.pid\n";
    s += "modulepath /usr/lib/ldap\nmoduleload back_mdb\n";
    if (st_Options.b_BaseParDefaut)
        s += std::string("defaultsearchbase ") + SUFFIXE_ANNUAIRE_ESSAI + "\n";
    if (st_Options.b_RefuseAnonyme) s += "disallow bind_anon\n";
    s += "loglevel 0\n";
    s += "database mdb\nmaxsize 104857600\n";
    s += std::string("suffix \"") + SUFFIXE_ANNUAIRE_ESSAI + "\"\n";
    s += std::string("rootdn \"cn=admin,") + SUFFIXE_ANNUAIRE_ESSAI + "\"\nrootpw secret\n";
    s += "directory " + st.s_Repertoire + "/db\n";
    s += "index objectClass,mail,ravokVixmailEmission eq\n";
    s += "access to * by * read\n";
    return s;
}

// Waits until slapd answers a TCP connection; false when it died or took
// too long.
bool AttendAnnuaire(AnnuaireEssai *pst) {
    auto t_Fin = std::chrono::steady_clock::now() + ATTENTE_DEMARRAGE;
    while (std::chrono::steady_clock::now() < t_Fin) {
        int i_Etat = 0;
        if (waitpid(pst->i_Pid, &i_Etat, WNOHANG) == pst->i_Pid) {
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
            if (i_Fd >= 0) {
                dup2(i_Fd, 1);
                dup2(i_Fd, 2);
            }
            int i_Nul = open("/dev/null", O_RDONLY);
            if (i_Nul >= 0) dup2(i_Nul, 0);
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
    std::string s_Rep = "/proc/" + std::to_string(i_Pid) + "/task";
    DIR *pd = opendir(s_Rep.c_str());
    if (pd == nullptr) return false;
    bool b_Arretees = true;
    while (dirent *pe = readdir(pd)) {
        if (pe->d_name[0] == '.') continue;
        std::ifstream f(s_Rep + "/" + pe->d_name + "/stat");
        std::string s_Stat;
        std::getline(f, s_Stat);
        std::size_t p = s_Stat.rfind(')');
        if (p == std::string::npos || p + 2 >= s_Stat.size() || s_Stat[p + 2] != 'T') b_Arretees = false;
    }
    closedir(pd);
    return b_Arretees;
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
    int i_Ecoute = SocketLocale(0);
    if (i_Ecoute < 0) return false;
    pst->i_Port = PortDe(i_Ecoute);
    pst->s_Hote = "127.0.0.1:" + std::to_string(pst->i_Port);

    if (e_Mode == ModeMuet::FilePleine) {
        // A backlog of 0 leaves room for one connection, which the fixture
        // takes itself; the kernel then drops every new SYN.
        if (listen(i_Ecoute, 0) != 0) {
            close(i_Ecoute);
            return false;
        }
        pst->i_Ecoute = i_Ecoute;
        pst->i_Bouchon = Connecte(pst->i_Port, false);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return pst->i_Bouchon >= 0;
    }

    if (listen(i_Ecoute, 16) != 0) {
        close(i_Ecoute);
        return false;
    }
    pid_t pid = fork();
    if (pid < 0) {
        close(i_Ecoute);
        return false;
    }
    if (pid == 0) {
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
            if (v[0].revents & POLLIN) {
                int i_Fd = accept(i_Ecoute, nullptr, nullptr);
                if (i_Fd >= 0) v.push_back({i_Fd, POLLIN, 0});
            }
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
