// cyrus_essai.cpp - a real Cyrus mail store for the tests (see cyrus_essai.h).
//
// The administration client is a minimal IMAP client written here (tagged
// commands, line replies, no literals: the fixture's own commands never
// need them), so the fixture needs nothing beyond the Cyrus packages.
#include "cyrus_essai.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "annuaire_essai.h"
#include "processus.h"

namespace {

constexpr const char *MASTER = "/usr/lib/cyrus/bin/master";
constexpr const char *MBPATH = "/usr/lib/cyrus/bin/mbpath";
constexpr const char *SASLPASSWD2 = "/usr/sbin/saslpasswd2";
constexpr const char *NOM_SERVEUR = "vorane-essai";  // servername, and the sasldb realm
constexpr const char *ADMIN = "cyrus";
constexpr int ESSAIS_PORT = 3;
constexpr auto ATTENTE_DEMARRAGE = std::chrono::seconds(15);
constexpr auto ATTENTE_ARRET = std::chrono::seconds(10);
constexpr int DELAI_SOCKET_SECONDES = 20;  // every read and write of the fixture's clients

// Writes a file; false when it cannot.
bool EcritFichier(const std::string &s_Chemin, const std::string &s_Contenu) {
    std::ofstream f(s_Chemin, std::ios::binary | std::ios::trunc);
    f << s_Contenu;
    return static_cast<bool>(f.flush());
}

// imapd.conf of the instance.
std::string ConfigurationImapd(const std::string &D) {
    std::string s;
    s += "configdirectory: " + D + "/config\n";
    s += "defaultpartition: default\npartition-default: " + D + "/spool\n";
    s += "lmtpsocket: " + D + "/socket/lmtp\n";
    s += "idlesocket: " + D + "/socket/idle\nnotifysocket: " + D + "/socket/notify\n";
    s += "proc_path: " + D + "/proc\nmboxname_lockpath: " + D + "/lock\n";
    s += "temp_path: " + D + "/tmp\nsievedir: " + D + "/sieve\n";
    s += std::string("servername: ") + NOM_SERVEUR + "\n";
    s += std::string("admins: ") + ADMIN + "\n";
    // The standard namespace with "." as separator: user.alice is alice's INBOX.
    s += "altnamespace: no\nunixhierarchysep: no\n";
    s += "hashimapspool: false\nlmtp_downcase_rcpt: yes\nidlemethod: poll\n";
    s += "allowplaintext: yes\nsasl_pwcheck_method: auxprop\nsasl_auxprop_plugin: sasldb\n";
    s += "sasl_sasldb_path: " + D + "/sasldb2\nsasl_mech_list: PLAIN\n";
    s += "duplicatesuppression: 0\n";
    return s;
}

// cyrus.conf of the instance: lmtpd on the socket, imapd on the port.
std::string ConfigurationMaster(const std::string &D, int i_PortImap) {
    return "START {\n}\nSERVICES {\n"
           "  imap cmd=\"imapd -C " + D + "/imapd.conf\" listen=\"127.0.0.1:" +
           std::to_string(i_PortImap) + "\" prefork=0\n"
           "  lmtpunix cmd=\"lmtpd -C " + D + "/imapd.conf\" listen=\"" + D +
           "/socket/lmtp\" prefork=0\n"
           "}\nEVENTS {\n}\n";
}

// Gives the whole tree to cyrus:mail (symbolic links themselves, never
// what they point to) and lets anyone reach it; false and the reason.
bool DonneACyrus(const std::string &D, std::string *ps_Erreur) {
    ResultatProcessus r = LanceProgramme({"/bin/chown", "-hR", "cyrus:mail", D}, "", 30);
    if (r.i_Statut != 0)
        *ps_Erreur = "chown -hR cyrus:mail " + D + " (is cyrus-imapd installed?): " + r.s_Erreur;
    else if (chmod(D.c_str(), 0755) != 0)
        *ps_Erreur = "chmod " + D + ": " + strerror(errno);
    else
        return true;
    return false;
}

// Connection to a socket address with both time limits of the fixture's
// clients set, or -1.
int Connecte(int i_Famille, const void *pst_Adresse, socklen_t t_Long) {
    int i_Fd = socket(i_Famille, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (i_Fd < 0) return -1;
    timeval st{DELAI_SOCKET_SECONDES, 0};
    setsockopt(i_Fd, SOL_SOCKET, SO_RCVTIMEO, &st, sizeof st);
    setsockopt(i_Fd, SOL_SOCKET, SO_SNDTIMEO, &st, sizeof st);
    if (connect(i_Fd, static_cast<const sockaddr *>(pst_Adresse), t_Long) == 0) return i_Fd;
    close(i_Fd);
    return -1;
}

// Connection to 127.0.0.1:port, or -1.
int ConnecteTcp(int i_Port) {
    sockaddr_in st{};
    st.sin_family = AF_INET;
    st.sin_port = htons(static_cast<uint16_t>(i_Port));
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return Connecte(AF_INET, &st, sizeof st);
}

// Connection to a Unix-domain socket, or -1.
int ConnecteUnix(const std::string &s_Chemin) {
    sockaddr_un st{};
    if (s_Chemin.size() >= sizeof st.sun_path) return -1;
    st.sun_family = AF_UNIX;
    memcpy(st.sun_path, s_Chemin.c_str(), s_Chemin.size() + 1);
    return Connecte(AF_UNIX, &st, sizeof st);
}

// A line-oriented client connection (IMAP or LMTP, CRLF on the wire).
struct Ligne {
    int i_Fd = -1;
    std::string s_Attente;  // bytes read, not yet taken as lines

    ~Ligne() {
        if (i_Fd >= 0) close(i_Fd);
    }
    // Sends the bytes whole; false on failure.
    bool Envoie(const std::string &s) {
        std::size_t t = 0;
        while (t < s.size()) {
            ssize_t n = send(i_Fd, s.data() + t, s.size() - t, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            t += static_cast<std::size_t>(n);
        }
        return true;
    }
    // Next line without its CRLF; false at the end of the connection.
    bool Lit(std::string *ps) {
        for (;;) {
            std::size_t p = s_Attente.find("\r\n");
            if (p != std::string::npos) {
                *ps = s_Attente.substr(0, p);
                s_Attente.erase(0, p + 2);
                return true;
            }
            char pc[4096];
            ssize_t n = read(i_Fd, pc, sizeof pc);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            s_Attente.append(pc, static_cast<std::size_t>(n));
        }
    }
};

// Sends a tagged command and reads up to its tagged reply; false and the
// reason when the connection fails or the reply is not OK.
bool CommandeImap(Ligne *pl, const std::string &s_Etiquette, const std::string &s_Commande,
                  std::string *ps_Erreur) {
    if (!pl->Envoie(s_Etiquette + " " + s_Commande + "\r\n")) {
        *ps_Erreur = "IMAP write failed: " + s_Commande;
        return false;
    }
    std::string s;
    do {
        if (!pl->Lit(&s)) {
            *ps_Erreur = "IMAP connection closed after: " + s_Commande;
            return false;
        }
    } while (s.compare(0, s_Etiquette.size() + 1, s_Etiquette + " ") != 0);
    if (s.compare(s_Etiquette.size() + 1, 3, "OK ") == 0) return true;
    *ps_Erreur = s_Commande + ": " + s;
    return false;
}

// Opens an administrator session; false and the reason when it cannot.
bool OuvreImap(const CyrusEssai &st, Ligne *pl, std::string *ps_Erreur) {
    pl->i_Fd = ConnecteTcp(st.i_PortImap);
    std::string s;
    if (pl->i_Fd < 0 || !pl->Lit(&s)) {
        *ps_Erreur = "no IMAP service on 127.0.0.1:" + std::to_string(st.i_PortImap);
        return false;
    }
    if (s.compare(0, 4, "* OK") != 0 || s.find("Cyrus") == std::string::npos) {
        *ps_Erreur = "not Cyrus on 127.0.0.1:" + std::to_string(st.i_PortImap) + ": " + s;
        return false;
    }
    return CommandeImap(pl, "a0", std::string("LOGIN ") + ADMIN + " \"" + st.s_MotDePasse + "\"",
                        ps_Erreur);
}

// Waits until the master serves both sockets: the LMTP greeting on the
// Unix socket, the Cyrus IMAP greeting on the port.  false when the master
// died or took too long.
bool AttendCyrus(CyrusEssai *pst) {
    auto t_Fin = std::chrono::steady_clock::now() + ATTENTE_DEMARRAGE;
    bool b_Lmtp = false, b_Imap = false;
    while (std::chrono::steady_clock::now() < t_Fin) {
        int i_Etat = 0;
        if (waitpid(pst->i_Pid, &i_Etat, WNOHANG) == pst->i_Pid) {
            pst->i_Pid = 0;
            pst->s_Erreur = "the Cyrus master ended at start";
            return false;
        }
        struct stat st_Socket;
        if (!b_Lmtp && stat(pst->s_Socket.c_str(), &st_Socket) == 0 && S_ISSOCK(st_Socket.st_mode)) {
            Ligne l;
            l.i_Fd = ConnecteUnix(pst->s_Socket);
            std::string s;
            if (l.i_Fd >= 0 && l.Lit(&s) && s.compare(0, 4, "220 ") == 0) {
                l.Envoie("QUIT\r\n");
                b_Lmtp = true;
            }
        }
        if (b_Lmtp && !b_Imap) {
            Ligne l;
            std::string s_Erreur;
            b_Imap = OuvreImap(*pst, &l, &s_Erreur);
            if (b_Imap) l.Envoie("a1 LOGOUT\r\n");
            else pst->s_Erreur = s_Erreur;
            if (!b_Imap && s_Erreur.compare(0, 3, "no ") != 0) return false;  // someone else's port
        }
        if (b_Lmtp && b_Imap) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (pst->s_Erreur.empty())
        pst->s_Erreur = b_Lmtp ? "no IMAP service" : "no LMTP greeting on " + pst->s_Socket;
    return false;
}

// Stops the instance: SIGTERM to the guardian, which passes it on to the
// master and waits for it; SIGKILL to the whole process group if that takes
// too long.
void ArreteMaster(CyrusEssai *pst) {
    if (pst->i_Pid <= 0) return;
    kill(pst->i_Pid, SIGTERM);
    auto t_Fin = std::chrono::steady_clock::now() + ATTENTE_ARRET;
    for (;;) {
        // Seen ended but not reaped yet, the guardian's pid still names
        // its process group.
        siginfo_t st_Info{};
        int r = waitid(P_PID, static_cast<id_t>(pst->i_Pid), &st_Info, WEXITED | WNOHANG | WNOWAIT);
        if ((r == 0 && st_Info.si_pid == pst->i_Pid) || (r < 0 && errno != EINTR)) break;
        if (std::chrono::steady_clock::now() > t_Fin) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    kill(-pst->i_Pid, SIGKILL);  // whatever of the instance is still there
    while (waitpid(pst->i_Pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    pst->i_Pid = 0;
}

// The master's pid, in the guardian process.
volatile pid_t s_PidMaster = 0;

// Guardian's SIGTERM handler: passes the signal on to the master.
void TransmetArret(int) {
    if (s_PidMaster > 0) kill(s_PidMaster, SIGTERM);
}

// Starts the master under a guardian process, in a process group of their
// own, the master's output into files of the directory.  The guardian stays
// root, so its parent-death signal holds (the master switches to the cyrus
// user, which clears its own): when the test process dies, the guardian
// gets SIGTERM and passes it on.  Returns the guardian's pid, which ends
// when the master ends.
pid_t LanceMaster(const std::string &D) {
    const std::string s_Conf = D + "/imapd.conf", s_Services = D + "/cyrus.conf";
    const std::string s_Pid = D + "/master.pid", s_Log = D + "/master.log";
    const std::string s_Sortie = D + "/master.out";
    pid_t pid_Parent = getpid();
    pid_t pid = fork();
    if (pid != 0) return pid;

    // The guardian.
    setpgid(0, 0);
    sigset_t m_Term, m_Vide;
    sigemptyset(&m_Term);
    sigaddset(&m_Term, SIGTERM);
    sigemptyset(&m_Vide);
    sigprocmask(SIG_SETMASK, &m_Term, nullptr);
    struct sigaction st_Action {};
    st_Action.sa_handler = TransmetArret;
    sigaction(SIGTERM, &st_Action, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != pid_Parent) _exit(1);  // the test process is already gone
    pid_t pid_Master = fork();
    if (pid_Master < 0) _exit(1);
    if (pid_Master == 0) {
        int i_Fd = open(s_Sortie.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (i_Fd >= 0) {
            dup2(i_Fd, 1);
            dup2(i_Fd, 2);
        }
        int i_Nul = open("/dev/null", O_RDONLY);
        if (i_Nul >= 0) dup2(i_Nul, 0);
        signal(SIGTERM, SIG_DFL);
        signal(SIGPIPE, SIG_DFL);
        signal(SIGALRM, SIG_DFL);
        sigprocmask(SIG_SETMASK, &m_Vide, nullptr);
        execl(MASTER, MASTER, "-C", s_Conf.c_str(), "-M", s_Services.c_str(), "-p", s_Pid.c_str(),
              "-L", s_Log.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    s_PidMaster = pid_Master;
    sigprocmask(SIG_SETMASK, &m_Vide, nullptr);
    int i_Etat = 0;
    while (waitpid(pid_Master, &i_Etat, 0) < 0 && errno == EINTR) {
    }
    _exit(WIFEXITED(i_Etat) ? WEXITSTATUS(i_Etat) : 1);
}

// What the master said about itself, for an error text.
std::string JournalMaster(const std::string &D) {
    std::string s = LitFichier(D + "/master.out") + LitFichier(D + "/master.log");
    return s.empty() ? "(the master wrote nothing)" : s;
}

}  // namespace

bool DemarreCyrus(CyrusEssai *pst) {
    // 1. Preconditions, said plainly.
    for (const char *pc : {MASTER, MBPATH, SASLPASSWD2})
        if (access(pc, X_OK) != 0) {
            pst->s_Erreur = std::string(pc) + " missing: run scripts/installe-dependances.sh";
            return false;
        }
    if (geteuid() != 0) {
        pst->s_Erreur = "the Cyrus fixture must run as root (the master switches to cyrus)";
        return false;
    }

    // 2. Directory tree, configuration, administrator in a private sasldb.
    char pc_Modele[] = "/tmp/vorane-cyrus-XXXXXX";
    if (mkdtemp(pc_Modele) == nullptr) {
        pst->s_Erreur = std::string("mkdtemp: ") + strerror(errno);
        return false;
    }
    const std::string D = pc_Modele;
    pst->s_Repertoire = D;
    pst->s_Conf = D + "/imapd.conf";
    pst->s_Socket = D + "/socket/lmtp";
    for (const char *pc : {"config", "spool", "socket", "proc", "lock", "tmp", "sieve"})
        std::filesystem::create_directory(D + "/" + pc);
    pst->s_MotDePasse = "essai-" + std::to_string(getpid()) + "-" +
                        std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
    if (!EcritFichier(pst->s_Conf, ConfigurationImapd(D))) {
        pst->s_Erreur = "cannot write the configuration into " + D;
        return false;
    }
    ResultatProcessus r = LanceProgramme(
        {SASLPASSWD2, "-p", "-c", "-f", D + "/sasldb2", "-u", NOM_SERVEUR, ADMIN}, pst->s_MotDePasse, 30);
    if (r.i_Statut != 0) {
        pst->s_Erreur = "saslpasswd2: " + r.s_Erreur;
        return false;
    }

    // 3. The master, on a free port; another port when that one was taken
    //    in between.
    for (int i_Essai = 0; i_Essai < ESSAIS_PORT; i_Essai++) {
        pst->i_PortImap = PortLibre();
        pst->s_Erreur.clear();
        std::error_code ec;
        std::filesystem::remove(pst->s_Socket, ec);
        if (!EcritFichier(D + "/cyrus.conf", ConfigurationMaster(D, pst->i_PortImap)) ||
            !DonneACyrus(D, &pst->s_Erreur)) {
            if (pst->s_Erreur.empty()) pst->s_Erreur = "cannot write cyrus.conf";
            return false;
        }
        pst->i_Pid = LanceMaster(D);
        if (pst->i_Pid < 0) {
            pst->i_Pid = 0;
            pst->s_Erreur = std::string("fork: ") + strerror(errno);
            return false;
        }
        if (AttendCyrus(pst)) return true;
        ArreteMaster(pst);
    }
    pst->s_Erreur = "Cyrus did not start (" + pst->s_Erreur + "): " + JournalMaster(D);
    return false;
}

void ArreteCyrus(CyrusEssai *pst) {
    ArreteMaster(pst);
    if (!pst->s_Repertoire.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(pst->s_Repertoire, ec);
        pst->s_Repertoire.clear();
    }
}

bool CommandesImap(CyrusEssai *pst, const std::vector<std::string> &v_Commandes) {
    Ligne l;
    if (!OuvreImap(*pst, &l, &pst->s_Erreur)) return false;
    for (std::size_t k = 0; k < v_Commandes.size(); k++)
        if (!CommandeImap(&l, "a" + std::to_string(k + 1), v_Commandes[k], &pst->s_Erreur)) return false;
    l.Envoie("z LOGOUT\r\n");
    return true;
}

std::vector<std::string> MessagesStockes(const CyrusEssai &st, const std::string &s_Boite) {
    std::vector<std::string> v;
    ResultatProcessus r = LanceProgramme({MBPATH, "-C", st.s_Conf, "user." + s_Boite}, "", 30);
    std::string s_Dossier = r.s_Sortie.substr(0, r.s_Sortie.find('\n'));
    if (r.i_Statut != 0 || s_Dossier.empty()) return v;
    // Message files are "<uid>." with a decimal uid.
    std::vector<std::pair<unsigned long, std::string>> v_Fichiers;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(s_Dossier, ec)) {
        std::string s = e.path().filename().string();
        if (s.size() < 2 || s.back() != '.' ||
            !std::all_of(s.begin(), s.end() - 1, [](char c) { return c >= '0' && c <= '9'; }))
            continue;
        v_Fichiers.emplace_back(std::stoul(s.substr(0, s.size() - 1)), e.path().string());
    }
    std::sort(v_Fichiers.begin(), v_Fichiers.end());
    for (const auto &[n, s_Chemin] : v_Fichiers) v.push_back(LitFichier(s_Chemin));
    return v;
}

std::string SansCr(const std::string &s) {
    std::string s_Res;
    s_Res.reserve(s.size());
    for (std::size_t i = 0; i < s.size(); i++)
        if (!(s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n')) s_Res += s[i];
    return s_Res;
}

MessageStocke DecoupeMessage(const std::string &s_Stocke) {
    std::string s = SansCr(s_Stocke);
    std::size_t p = s.find("\n\n");
    if (p == std::string::npos) return {s, ""};
    return {s.substr(0, p + 1), s.substr(p + 2)};
}
