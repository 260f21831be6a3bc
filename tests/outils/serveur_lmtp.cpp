// serveur_lmtp.cpp - scripted LMTP server and child runner (see serveur_lmtp.h).
#include "serveur_lmtp.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "message/message.h"
#include "processus.h"

namespace {

// Writes the bytes whole.
void EcritTout(int i_Fd, const char *pc, std::size_t t_Long) {
    while (t_Long > 0) {
        ssize_t n = write(i_Fd, pc, t_Long);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        pc += n;
        t_Long -= static_cast<std::size_t>(n);
    }
}

// Length of the first complete unit in the pending bytes, or 0.
std::size_t FinUnite(const std::string &s, bool b_Donnees) {
    if (!b_Donnees) {
        std::size_t p = s.find('\n');
        return p == std::string::npos ? 0 : p + 1;
    }
    if (s.compare(0, 2, ".\n") == 0) return 2;
    std::size_t p = s.find("\n.\n");
    return p == std::string::npos ? 0 : p + 3;
}

// The server's side: one connection, the script, then the rest.
[[noreturn]] void Sert(int i_Ecoute, std::vector<EtapeLmtp> &v_Script, const std::string &s_Fichier) {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGALRM, SIG_DFL);
    alarm(60);  // never outlive a forgotten test
    int i_Fichier = open(s_Fichier.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int i_Fd = accept(i_Ecoute, nullptr, nullptr);
    close(i_Ecoute);
    if (i_Fd < 0) _exit(1);
    std::string s_Attente;
    bool b_Donnees = false, b_Lent = false;
    char pc[65536];
    // Once the script is used up, the units that still come are recorded
    // and left unanswered until the client closes.
    for (std::size_t k = 0;; k++) {
        std::size_t t_Fin = 0;
        while (k > 0 && (t_Fin = FinUnite(s_Attente, b_Donnees)) == 0) {
            if (b_Lent) usleep(20000);
            ssize_t n = read(i_Fd, pc, b_Lent ? 4096 : sizeof pc);
            if (n <= 0) _exit(0);
            EcritTout(i_Fichier, pc, static_cast<std::size_t>(n));
            s_Attente.append(pc, static_cast<std::size_t>(n));
        }
        std::string s_Unite = s_Attente.substr(0, t_Fin);
        s_Attente.erase(0, t_Fin);
        if (k >= v_Script.size()) continue;
        const EtapeLmtp &e = v_Script[k];
        if (e.e_Action == EtapeLmtp::Fermer) _exit(0);
        if (e.e_Action == EtapeLmtp::Bloquer)
            for (;;) pause();
        std::string s_Rep = e.f_Reponse ? e.f_Reponse(s_Unite) : e.s_Reponse;
        b_Donnees = !b_Donnees && strncasecmp(s_Unite.c_str(), "DATA", 4) == 0 &&
                    s_Rep.compare(0, 3, "354") == 0;
        for (std::size_t p = 0, q; p <= s_Rep.size(); p = q + 1) {
            q = std::min(s_Rep.find('\x01', p), s_Rep.size());
            if (p > 0) usleep(200000);
            EcritTout(i_Fd, s_Rep.data() + p, q - p);
        }
        if (e.b_BloqueApres)
            for (;;) pause();
        if (e.b_FermeApres) _exit(0);
        b_Lent = e.b_LentApres;
    }
}

}  // namespace

EtapeLmtp Rep(const std::string &s_Texte) {
    EtapeLmtp e;
    e.s_Reponse = s_Texte;
    return e;
}
EtapeLmtp Ferme() { return {.e_Action = EtapeLmtp::Fermer, .s_Reponse = {}, .f_Reponse = {}}; }
EtapeLmtp Bloque() { return {.e_Action = EtapeLmtp::Bloquer, .s_Reponse = {}, .f_Reponse = {}}; }

ServeurLmtpEssai::ServeurLmtpEssai(std::vector<EtapeLmtp> v_Script, bool b_Unix) {
    char pc_Modele[] = "/tmp/lmtp-essai.XXXXXX";
    s_Repertoire = mkdtemp(pc_Modele);
    s_FichierRecu = s_Repertoire + "/recu";
    int i_Ecoute;
    if (b_Unix) {
        s_Designation = s_Repertoire + "/lmtp";
        i_Ecoute = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un st = {};
        st.sun_family = AF_UNIX;
        strncpy(st.sun_path, s_Designation.c_str(), sizeof st.sun_path - 1);
        bind(i_Ecoute, reinterpret_cast<sockaddr *>(&st), sizeof st);
    } else {
        int i_Port = 0;
        i_Ecoute = SocketLocale(&i_Port);
        s_Designation = "127.0.0.1:" + std::to_string(i_Port);
    }
    listen(i_Ecoute, 4);
    i_Pid = fork();
    if (i_Pid == 0) Sert(i_Ecoute, v_Script, s_FichierRecu);
    close(i_Ecoute);
}

ServeurLmtpEssai::~ServeurLmtpEssai() {
    if (i_Pid > 0) {
        kill(i_Pid, SIGKILL);
        waitpid(i_Pid, nullptr, 0);
    }
    unlink(s_FichierRecu.c_str());
    if (s_Designation[0] == '/') unlink(s_Designation.c_str());
    rmdir(s_Repertoire.c_str());
}

std::string ServeurLmtpEssai::Recu(int i_LimiteSecondes) {
    if (i_Pid > 0) SuitProcessus(i_Pid, -1, "", -1, -1, i_LimiteSecondes);
    i_Pid = -1;
    return LitFichier(s_FichierRecu);
}

std::string DonneesRecues(const std::string &s_Recu, bool *pb_Terminee) {
    if (pb_Terminee != nullptr) *pb_Terminee = false;
    std::size_t p = s_Recu.find("DATA\n");
    if (p == std::string::npos) return "";
    p += 5;
    std::string s;
    while (p < s_Recu.size()) {
        std::size_t q = s_Recu.find('\n', p);
        std::size_t t_Fin = q == std::string::npos ? s_Recu.size() : q + 1;
        std::string s_Ligne = s_Recu.substr(p, t_Fin - p);
        p = t_Fin;
        if (s_Ligne == ".\n") {
            if (pb_Terminee != nullptr) *pb_Terminee = true;
            break;
        }
        if (!s_Ligne.empty() && s_Ligne[0] == '.') s_Ligne.erase(0, 1);
        s += s_Ligne;
    }
    return s;
}

Entete *ListeLignes(const std::vector<std::string> &v_Lignes) {
    Entete *pet_Tete = nullptr;
    Entete *pet_Curseur = nullptr;
    for (const std::string &s : v_Lignes) {
        ChargeLigne(&pet_Curseur, s.c_str(), 0);
        if (pet_Tete == nullptr) pet_Tete = pet_Curseur;
    }
    return pet_Tete;
}

FILE *FluxOctets(const std::string &s_Octets) {
    FILE *pf = tmpfile();
    if (pf == nullptr) return nullptr;
    fwrite(s_Octets.data(), 1, s_Octets.size(), pf);
    rewind(pf);
    return pf;
}

ResultatEnfant ExecuteEnFils(const std::function<std::string()> &f, int i_LimiteSecondes) {
    int t_Err[2], t_Ret[2];
    if (pipe(t_Err) != 0 || pipe(t_Ret) != 0) return {};
    fflush(stdout);
    fflush(stderr);
    pid_t i_Pid = fork();
    if (i_Pid == 0) {
        close(t_Err[0]);
        close(t_Ret[0]);
        dup2(t_Err[1], 1);
        dup2(t_Err[1], 2);
        close(t_Err[1]);
        signal(SIGPIPE, SIG_DFL);
        std::string s = f();
        EcritTout(t_Ret[1], s.data(), s.size());
        fflush(stderr);
        _exit(0);
    }
    close(t_Err[1]);
    close(t_Ret[1]);
    return SuitProcessus(i_Pid, -1, "", t_Ret[0], t_Err[0], i_LimiteSecondes);
}
