// Cost of one whole run: Postfix starts the program once per message, so for
// the common small message the cost of starting is the cost of delivering.
//
// In one run, against a local slapd (two entries: the sender, found by its
// ravokVixmailEmission, and a mailbox) and an LMTP peer on a Unix socket
// that answers the dialogue and drops the data, it measures for a 1 KB and a
// 50 MB message delivered to that one mailbox:
//   - instructions of the process itself, loading included (callgrind,
//     children traced, the process's own count);
//   - wall time from fork to exit, median of many runs;
//   - peak resident memory, as GNU time reports it (the highest of a few
//     runs).
// Measured: remise-vorane-essai, the program as the tests build it (same
// sources, libraries and link as the site build; its spool lies in the build
// tree, so that the delivery marker is written as on a site without touching
// /var), and plancher-lmtp, a minimal C client that makes the same directory
// session, the same two lookups and the same LMTP dialogue, loading no SASL
// plug-in: the floor for this job.
//
// Goals printed at the end: at most 6 M instructions for the 1 KB delivery,
// a wall time within 1.2x the floor's, at most 4 MB of peak memory for the
// 50 MB delivery.  VORANE_BANC_PASSES sets the number of timed runs of the
// 1 KB message (default 51; a fifth of it, at least 5, for 50 MB); with
// VORANE_BANC_GARDE set, the callgrind files are left for callgrind_annotate;
// VORANE_BANC_PROGRAMME names another build of the program to measure (an
// older one, to compare).
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <strings.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "serveurs_essai.h"
#include "journal_essai.h"
#include "processus.h"

namespace {

constexpr double OBJECTIF_INSTRUCTIONS = 6e6;
constexpr double OBJECTIF_RAPPORT_TEMPS = 1.2;
constexpr long OBJECTIF_PIC_KO = 4096;
constexpr int NB_PASSES_MEMOIRE = 3;
constexpr std::size_t TAILLE_PETIT = 1024;
constexpr std::size_t TAILLE_GRAND = 50u << 20;

const char *const PC_EMETTEUR = "jean.externe@partenaire.test";
const char *const PC_DESTINATAIRE = "alice@vorane.example";

std::string s_Rep;         // temporary directory of the run
std::string s_Socket;      // the peer's socket
std::string s_VideSasl;    // empty directory: the floor's SASL plug-in path
std::string s_Programme = CHEMIN_REMISE_VORANE_ESSAI;  // or VORANE_BANC_PROGRAMME
AnnuaireEssai st_Annuaire;

struct Mesure {
    double d_Secondes = 0;
    long l_PicKo = 0;
    int i_Statut = -1;
};

struct Resultats {
    double d_Instructions = 0;
    double d_Mediane = 0;
    long l_PicKo = 0;
    bool b_Ok = true;
};

// Writes the bytes whole.
bool EcritTout(int i_Fd, const char *pc, std::size_t t) {
    while (t > 0) {
        ssize_t n = write(i_Fd, pc, t);
        if (n <= 0) return false;
        pc += n;
        t -= static_cast<std::size_t>(n);
    }
    return true;
}

// A message of about the size: Postfix's Return-Path, two Received lines, the
// usual fields, then text lines (one in ten beginning with a dot).
std::string CreeMessage(const std::string &s_Nom, std::size_t t_Octets) {
    std::string s_Tete =
        "Return-Path: <jean.externe@partenaire.test>\n"
        "Received: from relais.vorane.example (relais.vorane.example [10.0.9.4])\n"
        "\tby mx1.vorane.example (Postfix) with ESMTP id 4F1A22C0\n"
        "\tfor <alice@vorane.example>; Tue, 4 Jun 2024 10:12:31 +0200 (CEST)\n"
        "Received: from mail.partenaire.test (mail.partenaire.test [192.0.2.25])\n"
        "\tby relais.vorane.example (Postfix) with ESMTPS id 9B3C1E01\n"
        "\tfor <alice@vorane.example>; Tue, 4 Jun 2024 10:12:30 +0200 (CEST)\n"
        "Message-ID: <banc-demarrage@partenaire.test>\n"
        "Date: Tue, 4 Jun 2024 10:12:29 +0200\n"
        "From: Jean Externe <jean.externe@partenaire.test>\n"
        "To: Alice Martin <alice@vorane.example>\n"
        "Subject: point sur le dossier\n"
        "MIME-Version: 1.0\n"
        "Content-Type: text/plain; charset=utf-8\n"
        "\n";
    std::string s_Bloc;
    for (int i = 0; s_Bloc.size() < std::min<std::size_t>(t_Octets, 1 << 20); i++)
        s_Bloc += (i % 10 == 9 ? ".ligne " : "ligne ") + std::to_string(i) +
                  " du corps du message, assez longue pour ressembler a du texte\n";
    std::string s_Chemin = s_Rep + "/" + s_Nom;
    int i_Fd = open(s_Chemin.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    EcritTout(i_Fd, s_Tete.data(), s_Tete.size());
    for (std::size_t t = s_Tete.size(); t < t_Octets;) {
        std::size_t n = std::min(s_Bloc.size(), t_Octets - t);
        // Whole lines only: the last piece ends at a line feed.
        while (n < s_Bloc.size() && n > 0 && s_Bloc[n - 1] != '\n') n--;
        if (n == 0) break;
        EcritTout(i_Fd, s_Bloc.data(), n);
        t += n;
    }
    close(i_Fd);
    return s_Chemin;
}

// The LMTP peer: one connection after the other, each answered as a mail
// store would (220, 250 to every command, 354 to DATA, 250 after the data,
// 221 to QUIT), the data read and dropped.  The client waits for the reply
// after "\n.\n", so the terminator is the end of some read: only the last
// three bytes of each read are looked at.
[[noreturn]] void Pair(int i_Ecoute) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    static char pc[1 << 16];
    for (;;) {
        int i_Fd = accept(i_Ecoute, nullptr, nullptr);
        if (i_Fd < 0) continue;
        auto f_Rep = [&](const char *pc_R) { EcritTout(i_Fd, pc_R, strlen(pc_R)); };
        f_Rep("220 pair LMTP pret\r\n");
        bool b_Donnees = false;
        char t_Fin[3] = {'x', 'x', '\n'};
        ssize_t n;
        while ((n = read(i_Fd, pc, sizeof pc)) > 0) {
            if (b_Donnees) {
                for (ssize_t k = n > 3 ? n - 3 : 0; k < n; k++) {
                    t_Fin[0] = t_Fin[1];
                    t_Fin[1] = t_Fin[2];
                    t_Fin[2] = pc[k];
                }
                if (memcmp(t_Fin, "\n.\n", 3) == 0) {
                    b_Donnees = false;
                    f_Rep("250 2.1.5 ok\r\n");
                }
            } else if (strncasecmp(pc, "DATA", 4) == 0) {
                b_Donnees = true;
                t_Fin[0] = t_Fin[1] = 'x';
                t_Fin[2] = '\n';
                f_Rep("354 go ahead\r\n");
            } else if (strncasecmp(pc, "QUIT", 4) == 0) {
                f_Rep("221 2.0.0 bye\r\n");
                break;
            } else {
                f_Rep("250 2.1.0 ok\r\n");
            }
        }
        close(i_Fd);
    }
}

// Starts the peer; its process id.
pid_t DemarrePair() {
    s_Socket = s_Rep + "/lmtp";
    int i_Ecoute = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un st = {};
    st.sun_family = AF_UNIX;
    strncpy(st.sun_path, s_Socket.c_str(), sizeof st.sun_path - 1);
    if (bind(i_Ecoute, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0 || listen(i_Ecoute, 8) != 0)
        return -1;
    pid_t i_Pid = fork();
    if (i_Pid == 0) Pair(i_Ecoute);
    close(i_Ecoute);
    return i_Pid;
}

// The command of one delivery by the program or by the floor client.
std::vector<std::string> Commande(bool b_Programme) {
    if (b_Programme)
        return {s_Programme, "-r", s_Socket, "-l", st_Annuaire.s_Hote,
                "-e", PC_EMETTEUR, "-d", PC_DESTINATAIRE};
    return {CHEMIN_PLANCHER_LMTP, st_Annuaire.s_Hote, s_Socket, PC_EMETTEUR, PC_DESTINATAIRE};
}

// The environment Postfix's pipe gives the command; the floor's SASL library
// is pointed at an empty directory.
std::vector<std::string> Environnement(bool b_Programme) {
    std::vector<std::string> v = {"PATH=/usr/bin:/bin", "LANG=C"};
    if (!b_Programme) v.push_back("SASL_PATH=" + s_VideSasl);
    return v;
}

// Starts the command with the message on standard input, standard output
// and error appended to a file of the run; its process id.
pid_t Demarre(const std::vector<std::string> &v_Argv, const std::vector<std::string> &v_Env,
              const std::string &s_Message) {
    std::vector<char *> v_A, v_E;
    for (const std::string &s : v_Argv) v_A.push_back(const_cast<char *>(s.c_str()));
    for (const std::string &s : v_Env) v_E.push_back(const_cast<char *>(s.c_str()));
    v_A.push_back(nullptr);
    v_E.push_back(nullptr);
    std::string s_Sortie = s_Rep + "/sortie";
    pid_t i_Pid = fork();
    if (i_Pid == 0) {
        int i_Entree = open(s_Message.c_str(), O_RDONLY);
        int i_Journal = open(s_Sortie.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(i_Entree, 0);
        dup2(i_Journal, 1);
        dup2(i_Journal, 2);
        close(i_Entree);
        close(i_Journal);
        execvpe(v_A[0], v_A.data(), v_E.data());
        _exit(127);
    }
    return i_Pid;
}

// Exit status of the child, -1 when it did not exit.
int Attend(pid_t i_Pid) {
    int i_Etat = 0;
    while (waitpid(i_Pid, &i_Etat, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(i_Etat) ? WEXITSTATUS(i_Etat) : -1;
}

// Wall time of one run, from fork to the end of the wait.
Mesure Chronometre(bool b_Programme, const std::string &s_Message) {
    Mesure m;
    auto t_Debut = std::chrono::steady_clock::now();
    m.i_Statut = Attend(Demarre(Commande(b_Programme), Environnement(b_Programme), s_Message));
    m.d_Secondes = std::chrono::duration<double>(std::chrono::steady_clock::now() - t_Debut).count();
    return m;
}

// Peak memory of one run, read by GNU time.  A process that execs keeps the
// high-water mark of what it was before, so the run is started by time (a
// small process) and not by a fork of this one, whose pages would count.
Mesure Pic(bool b_Programme, const std::string &s_Message) {
    std::string s_Fichier = s_Rep + "/pic";
    std::vector<std::string> v = {"/usr/bin/time", "-f", "%M %x", "-o", s_Fichier};
    std::vector<std::string> v_Cmd = Commande(b_Programme);
    v.insert(v.end(), v_Cmd.begin(), v_Cmd.end());
    Mesure m;
    if (Attend(Demarre(v, Environnement(b_Programme), s_Message)) == 0 &&
        sscanf(LitFichier(s_Fichier).c_str(), "%ld %d", &m.l_PicKo, &m.i_Statut) != 2)
        m.i_Statut = -1;
    return m;
}

// Instructions of the command's own process under callgrind (loading
// included; children get files of their own, not counted); 0 on failure.
double Instructions(bool b_Programme, const std::string &s_Message, const std::string &s_Nom) {
    std::string s_Prefixe = s_Rep + "/callgrind." + s_Nom;
    std::vector<std::string> v = {"valgrind", "--tool=callgrind", "--trace-children=yes",
                                  "--callgrind-out-file=" + s_Prefixe + ".%p",
                                  "--log-file=" + s_Prefixe + ".journal.%p"};
    std::vector<std::string> v_Cmd = Commande(b_Programme);
    v.insert(v.end(), v_Cmd.begin(), v_Cmd.end());
    pid_t i_Pid = Demarre(v, Environnement(b_Programme), s_Message);
    if (Attend(i_Pid) != 0) return 0;
    // Valgrind runs the tool in the process it was started as: the file of
    // that process id is the command's own.
    std::string s_Fichier = LitFichier(s_Prefixe + "." + std::to_string(i_Pid));
    std::size_t p = s_Fichier.find("\nsummary: ");
    if (p == std::string::npos) return 0;
    return strtod(s_Fichier.c_str() + p + 10, nullptr);
}

// Median of the values.
double Mediane(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    std::size_t n = v.size();
    return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Instructions once, then timed runs of the program and the floor in turn
// (the same conditions for both), then peak memory (the highest of a few
// runs).
void MesureMessage(const std::string &s_Message, const std::string &s_Nom, int i_Passes,
                   Resultats *pst_Prog, Resultats *pst_Plancher) {
    pst_Prog->d_Instructions = Instructions(true, s_Message, s_Nom + ".programme");
    pst_Plancher->d_Instructions = Instructions(false, s_Message, s_Nom + ".plancher");
    std::vector<double> v_Prog, v_Plancher;
    for (int i = 0; i < i_Passes; i++) {
        for (bool b_Programme : {true, false}) {
            Mesure m = Chronometre(b_Programme, s_Message);
            (b_Programme ? v_Prog : v_Plancher).push_back(m.d_Secondes);
            if (m.i_Statut != 0) (b_Programme ? pst_Prog : pst_Plancher)->b_Ok = false;
        }
    }
    for (int i = 0; i < NB_PASSES_MEMOIRE; i++) {
        for (bool b_Programme : {true, false}) {
            Mesure m = Pic(b_Programme, s_Message);
            Resultats *pst = b_Programme ? pst_Prog : pst_Plancher;
            pst->l_PicKo = std::max(pst->l_PicKo, m.l_PicKo);
            if (m.i_Statut != 0) pst->b_Ok = false;
        }
    }
    pst_Prog->d_Mediane = Mediane(v_Prog);
    pst_Plancher->d_Mediane = Mediane(v_Plancher);
    if (pst_Prog->d_Instructions == 0) pst_Prog->b_Ok = false;
    if (pst_Plancher->d_Instructions == 0) pst_Plancher->b_Ok = false;
}

// One line of the table.
void Ligne(const char *pc_Nom, const Resultats &r) {
    printf("  %-22s %9.2f M instr %9.2f ms %8ld KB%s\n", pc_Nom, r.d_Instructions / 1e6,
           r.d_Mediane * 1e3, r.l_PicKo, r.b_Ok ? "" : "   (FAILED: see the run's files)");
}

// "met" or "NOT MET".
const char *Atteint(bool b) { return b ? "met" : "NOT MET"; }

}  // namespace

int main() {
    int i_Passes = 51;
    if (const char *pc = getenv("VORANE_BANC_PASSES")) i_Passes = std::max(1, atoi(pc));
    if (const char *pc = getenv("VORANE_BANC_PROGRAMME")) s_Programme = pc;
    char pc_Modele[] = "/tmp/banc-demarrage.XXXXXX";
    if (mkdtemp(pc_Modele) == nullptr) return 1;
    s_Rep = pc_Modele;
    s_VideSasl = s_Rep + "/sasl-vide";
    mkdir(s_VideSasl.c_str(), 0700);

    const std::string s_Entrees =
        EntreeLdif("uid=jean", "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\n"
                               "uid: jean\ncn: Jean Externe\nsn: Externe\n"
                               "mail: jean@vorane.example\nravokVixRemise: LMTP\n"
                               "ravokVixmailEmission: jean.externe@partenaire.test\n") +
        EntreeLdif("uid=alice", "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\n"
                                "uid: alice\ncn: Alice Martin\nsn: Martin\n"
                                "mail: alice@vorane.example\nravokVixRemise: LMTP\n");
    if (!DemarreAnnuaire(&st_Annuaire, s_Entrees)) {
        fprintf(stderr, "slapd: %s\n", st_Annuaire.s_Erreur.c_str());
        ArreteServeur(&st_Annuaire);
        rmdir(s_VideSasl.c_str());
        rmdir(s_Rep.c_str());
        return 1;
    }
    const std::string s_Journal = JournalPrive(s_Rep);
    pid_t i_Pair = DemarrePair();
    std::string s_Petit = CreeMessage("message-1k", TAILLE_PETIT);
    std::string s_Grand = CreeMessage("message-50m", TAILLE_GRAND);
    Chronometre(true, s_Grand);  // warms the page cache

    Resultats r_Prog, r_Plancher, r_ProgGrand, r_PlancherGrand;
    MesureMessage(s_Petit, "1k", i_Passes, &r_Prog, &r_Plancher);
    MesureMessage(s_Grand, "50m", std::max(5, i_Passes / 5), &r_ProgGrand, &r_PlancherGrand);

    printf("One message to one mailbox: local slapd (anonymous bind, sender and recipient\n"
           "lookups), LMTP peer on a Unix socket that drops the data.  Instructions: the\n"
           "process's own, loading included (callgrind); time: median wall time from fork\n"
           "to exit; memory: peak resident set.  Log lines go to %s.\n"
           "  program: %s\n  floor:   %s (libldap alone, no SASL plug-in)\n\n",
           s_Journal.c_str(), s_Programme.c_str(), CHEMIN_PLANCHER_LMTP);
    printf("1 KB message (%d runs each):\n", i_Passes);
    Ligne("program", r_Prog);
    Ligne("floor", r_Plancher);
    printf("50 MB message (%d runs each):\n", std::max(5, i_Passes / 5));
    Ligne("program", r_ProgGrand);
    Ligne("floor", r_PlancherGrand);

    double d_Rapport = r_Prog.d_Mediane / r_Plancher.d_Mediane;
    bool b_Ok = r_Prog.b_Ok && r_Plancher.b_Ok && r_ProgGrand.b_Ok && r_PlancherGrand.b_Ok;
    printf("\nGoals:\n");
    printf("  instructions, 1 KB: %.2f M against a budget of %.0f M (floor: %.2f M, %.2fx): %s\n",
           r_Prog.d_Instructions / 1e6, OBJECTIF_INSTRUCTIONS / 1e6,
           r_Plancher.d_Instructions / 1e6, r_Prog.d_Instructions / r_Plancher.d_Instructions,
           Atteint(r_Prog.d_Instructions > 0 && r_Prog.d_Instructions <= OBJECTIF_INSTRUCTIONS));
    printf("  wall time, 1 KB: %.2f ms against the floor's %.2f ms: %.2fx (goal <= %.1fx): %s\n",
           r_Prog.d_Mediane * 1e3, r_Plancher.d_Mediane * 1e3, d_Rapport, OBJECTIF_RAPPORT_TEMPS,
           Atteint(d_Rapport <= OBJECTIF_RAPPORT_TEMPS));
    printf("  peak memory, 50 MB: %ld KB against a budget of %ld KB (floor: %ld KB): %s\n",
           r_ProgGrand.l_PicKo, OBJECTIF_PIC_KO, r_PlancherGrand.l_PicKo,
           Atteint(r_ProgGrand.l_PicKo <= OBJECTIF_PIC_KO));
    printf("  every run delivered (status 0): %s\n", b_Ok ? "yes" : "NO");

    kill(i_Pair, SIGKILL);
    waitpid(i_Pair, nullptr, 0);
    ArreteServeur(&st_Annuaire);
    RetireJournalPrive(s_Rep);
    if (b_Ok && getenv("VORANE_BANC_GARDE") == nullptr) {
        for (const std::string &s : FichiersCommencantPar(s_Rep, "")) unlink(s.c_str());
        rmdir(s_VideSasl.c_str());
        rmdir(s_Rep.c_str());
    } else {
        printf("  files of the run (callgrind.*: callgrind_annotate) left in %s\n", s_Rep.c_str());
    }
    return 0;
}
