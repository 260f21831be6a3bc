// cyrus_essai.cpp - a Cyrus mail store for the tests (see cyrus_essai.h).
#include "cyrus_essai.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "processus.h"

namespace {

const std::string BIN_CYRUS = "/usr/lib/cyrus/bin/";
const char *const MOT_DE_PASSE = "secret-essai";

// A loopback port free at the time of the call.
int PortLibre() {
    int i_Fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in st = {};
    st.sin_family = AF_INET;
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st);
    socklen_t t = sizeof st;
    getsockname(i_Fd, reinterpret_cast<sockaddr *>(&st), &t);
    close(i_Fd);
    return ntohs(st.sin_port);
}

// Writes a whole file.
void EcritFichier(const std::string &s_Chemin, const std::string &s) {
    std::ofstream f(s_Chemin, std::ios::binary);
    f << s;
}

// Connects to the IMAP port; -1 when it does not answer.
int ConnecteImap(int i_Port) {
    int i_Fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in st = {};
    st.sin_family = AF_INET;
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    st.sin_port = htons(static_cast<unsigned short>(i_Port));
    if (connect(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0) {
        close(i_Fd);
        return -1;
    }
    return i_Fd;
}

// Sends one tagged IMAP command and reads up to its tagged answer; true
// when the answer is OK.
bool CommandeImap(int i_Fd, const std::string &s_Etiquette, const std::string &s_Commande,
                  std::string *ps_Trace) {
    std::string s = s_Etiquette + " " + s_Commande + "\r\n";
    if (write(i_Fd, s.data(), s.size()) != static_cast<ssize_t>(s.size())) return false;
    std::string s_Recu;
    char pc[4096];
    for (;;) {
        std::size_t p = s_Recu.find("\r\n" + s_Etiquette + " ");
        if (s_Recu.compare(0, s_Etiquette.size() + 1, s_Etiquette + " ") == 0) p = 0;
        else if (p != std::string::npos) p += 2;
        if (p != std::string::npos && s_Recu.find("\r\n", p) != std::string::npos) {
            *ps_Trace += s_Recu;
            return s_Recu.compare(p + s_Etiquette.size() + 1, 2, "OK") == 0;
        }
        ssize_t n = read(i_Fd, pc, sizeof pc);
        if (n <= 0) return false;
        s_Recu.append(pc, static_cast<std::size_t>(n));
    }
}

}  // namespace

bool DemarreCyrus(CyrusEssai *pst, const std::vector<std::string> &v_Boites,
                  const std::vector<std::string> &v_BoitesPetites) {
    if (geteuid() != 0) {
        pst->s_Erreur = "the Cyrus master must be started as root";
        return false;
    }
    if (access((BIN_CYRUS + "master").c_str(), X_OK) != 0) {
        pst->s_Erreur = "Cyrus is not installed";
        return false;
    }
    char pc_Modele[] = "/tmp/cyrus-essai.XXXXXX";
    pst->s_Repertoire = mkdtemp(pc_Modele);
    const std::string &D = pst->s_Repertoire;
    chmod(D.c_str(), 0755);
    for (const char *pc : {"/conf", "/part", "/sock"}) mkdir((D + pc).c_str(), 0755);
    pst->s_SocketLmtp = D + "/sock/lmtp";
    pst->i_PortImap = PortLibre();

    EcritFichier(D + "/imapd.conf",
                 "configdirectory: " + D + "/conf\n"
                 "partition-default: " + D + "/part\n"
                 "lmtpsocket: " + pst->s_SocketLmtp + "\n"
                 "idlesocket: " + D + "/sock/idle\n"
                 "notifysocket: " + D + "/sock/notify\n"
                 "admins: cyrus\n"
                 "sasl_pwcheck_method: auxprop\n"
                 "sasl_auxprop_plugin: sasldb\n"
                 "sasl_sasldb_path: " + D + "/sasldb2\n"
                 "allowplaintext: yes\n"
                 "duplicatesuppression: 0\n"
                 "unixhierarchysep: no\n");
    EcritFichier(D + "/cyrus.conf",
                 "START {\n  recover cmd=\"ctl_cyrusdb -r -C " + D + "/imapd.conf\"\n}\n"
                 "SERVICES {\n"
                 "  imap cmd=\"imapd -C " + D + "/imapd.conf\" listen=\"127.0.0.1:" +
                     std::to_string(pst->i_PortImap) + "\" prefork=0 maxchild=5\n"
                 "  lmtpunix cmd=\"lmtpd -C " + D + "/imapd.conf\" listen=\"" + pst->s_SocketLmtp +
                     "\" prefork=0 maxchild=5\n"
                 "}\nEVENTS {\n}\n");
    ResultatProcessus r = LanceProgramme(
        {"/usr/sbin/saslpasswd2", "-p", "-c", "-f", D + "/sasldb2", "cyrus"},
        std::string(MOT_DE_PASSE) + "\n", 20);
    if (r.i_Statut != 0) {
        pst->s_Erreur = "saslpasswd2: " + r.s_Erreur;
        return false;
    }
    r = LanceProgramme({"/bin/chown", "-R", "cyrus:mail", D}, "", 20);
    chmod((D + "/sasldb2").c_str(), 0644);

    pid_t i_Pid = fork();
    if (i_Pid == 0) {
        signal(SIGPIPE, SIG_DFL);
        signal(SIGALRM, SIG_DFL);
        std::string s_Conf = D + "/imapd.conf", s_Serv = D + "/cyrus.conf", s_Pid = D + "/master.pid",
                    s_Log = D + "/master.log";
        execl((BIN_CYRUS + "master").c_str(), "master", "-C", s_Conf.c_str(), "-M", s_Serv.c_str(),
              "-p", s_Pid.c_str(), "-L", s_Log.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    pst->i_Pid = i_Pid;

    // Wait for IMAP, then create the mailboxes.
    int i_Fd = -1;
    auto t_Fin = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while ((i_Fd = ConnecteImap(pst->i_PortImap)) < 0 && std::chrono::steady_clock::now() < t_Fin)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (i_Fd < 0) {
        pst->s_Erreur = "no IMAP answer: " + LitFichier(D + "/master.log");
        return false;
    }
    std::string s_Trace;
    bool b_Ok = CommandeImap(i_Fd, "a0", "NOOP", &s_Trace) &&
                CommandeImap(i_Fd, "a1", std::string("LOGIN cyrus ") + MOT_DE_PASSE, &s_Trace);
    int k = 2;
    for (const std::string &s : v_Boites)
        b_Ok = b_Ok && CommandeImap(i_Fd, "a" + std::to_string(k++), "CREATE user." + s, &s_Trace);
    for (const std::string &s : v_BoitesPetites)
        b_Ok = b_Ok && CommandeImap(i_Fd, "a" + std::to_string(k++), "CREATE user." + s, &s_Trace) &&
               CommandeImap(i_Fd, "a" + std::to_string(k++), "SETQUOTA user." + s + " (STORAGE 1)",
                            &s_Trace);
    CommandeImap(i_Fd, "z", "LOGOUT", &s_Trace);
    close(i_Fd);
    if (!b_Ok) {
        pst->s_Erreur = "IMAP set-up failed: " + s_Trace;
        return false;
    }
    struct stat st;
    if (stat(pst->s_SocketLmtp.c_str(), &st) != 0) {
        pst->s_Erreur = "no LMTP socket";
        return false;
    }
    return true;
}

void ArreteCyrus(CyrusEssai *pst) {
    if (pst->i_Pid > 0) {
        kill(pst->i_Pid, SIGTERM);
        int i_Etat;
        auto t_Fin = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (waitpid(pst->i_Pid, &i_Etat, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > t_Fin) {
                kill(pst->i_Pid, SIGKILL);
                waitpid(pst->i_Pid, &i_Etat, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        pst->i_Pid = 0;
    }
    if (!pst->s_Repertoire.empty()) {
        LanceProgramme({"/bin/rm", "-rf", pst->s_Repertoire}, "", 30);
        pst->s_Repertoire.clear();
    }
}

std::vector<std::string> MessagesCyrus(const CyrusEssai &st, const std::string &s_Boite) {
    ResultatProcessus r = LanceProgramme(
        {BIN_CYRUS + "mbpath", "-C", st.s_Repertoire + "/imapd.conf", "user." + s_Boite}, "", 20);
    std::string s_Dossier = r.s_Sortie.substr(0, r.s_Sortie.find('\n'));
    std::vector<std::string> v;
    for (int k = 1;; k++) {
        std::string s_Fichier = s_Dossier + "/" + std::to_string(k) + ".";
        if (access(s_Fichier.c_str(), F_OK) != 0) break;
        v.push_back(LitFichier(s_Fichier));
    }
    return v;
}
