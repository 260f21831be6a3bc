// Delivery to directory lists, measured on the whole program against a
// local slapd, with a sendmail that reads and discards its input.
//
// 1. One LISTE-MU recipient whose 100 members are lists of 100 addresses
//    each (10,000 distinct addresses, 100 submission batches): wall time of
//    the program against a bare libldap loop, in the same run, that opens a
//    session and issues the same searches (the sender's two, the
//    recipient's, the 100 lists', the 10,000 members').  Goal: at most 1.2
//    times the loop.  Beside it, the part of the gap that is the submission
//    itself: the discarding command started alone as many times as the
//    program started it, with the same arguments and input.
// 2. A 20 MB message to a list and two mailboxes (one LMTP transaction to a
//    scripted store): the body is read once and held once, so the peak
//    memory of the program stays within the body size plus a few MB.
//
// Prints the medians, the ratio, the peak memory and whether each goal is
// met.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "serveurs_essai.h"
#include "journal_essai.h"
#include "directory/directory.h"
#include "message/message.h"
#include "processus.h"
#include "serveur_lmtp.h"
#include "socle.h"

extern char **environ;

namespace {

constexpr int NB_LISTES = 100;
constexpr int NB_PAR_LISTE = 100;
constexpr int NB_ESSAIS = 7;
constexpr double OBJECTIF_RAPPORT = 1.2;
constexpr std::size_t TAILLE_CORPS = 20u << 20;
constexpr long MARGE_MEMOIRE_KO = 8 * 1024;
const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;
const std::string EMETTEUR = "ext@partenaire.test";

// LDIF: 10,000 mailboxes, 100 lists of 100 of them, the list of lists, a
// small list and two mailboxes for the large message.
std::string Entrees() {
    std::string s;
    auto Boite = [&](const std::string &u) {
        s += EntreeLdif("uid=" + u, "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: " +
                                        u + "\ncn: " + u + "\nsn: " + u + "\nmail: " + u +
                                        "@vorane.example\nravokVixRemise: LMTP\n");
    };
    auto Liste = [&](const std::string &n, const std::string &k, const std::string &m) {
        s += EntreeLdif("cn=" + n, "objectClass: ravokVixListe\ncn: " + n + "\nmail: " + n +
                                       "@vorane.example\nravokVixRemise: " + k + "\n" + m);
    };
    std::string s_Toutes;
    for (int l = 0; l < NB_LISTES; l++) {
        std::string m;
        for (int i = 0; i < NB_PAR_LISTE; i++) {
            std::string u = "m" + std::to_string(l * NB_PAR_LISTE + i);
            Boite(u);
            m += "ravokVixMembres: " + u + "@vorane.example\n";
        }
        Liste("sous" + std::to_string(l), "LISTE", m);
        s_Toutes += "ravokVixMembres: sous" + std::to_string(l) + "@vorane.example\n";
    }
    Liste("toutes", "LISTE-MU", s_Toutes);
    Liste("petite", "LISTE", "ravokVixMembres: x@a.example\nravokVixMembres: y@b.example\n");
    Boite("b1");
    Boite("b2");
    return s;
}

// The searches a delivery to the list of lists makes, in order.
std::vector<std::string> Filtres() {
    std::vector<std::string> v = {"(ravokVixmailEmission=" + EMETTEUR + ")", "(mail=" + EMETTEUR + ")",
                                  "(mail=toutes@vorane.example)"};
    for (int l = 0; l < NB_LISTES; l++) v.push_back("(mail=sous" + std::to_string(l) + "@vorane.example)");
    for (int i = 0; i < NB_LISTES * NB_PAR_LISTE; i++)
        v.push_back("(mail=m" + std::to_string(i) + "@vorane.example)");
    return v;
}

// Seconds taken by f.
template <typename F>
double Duree(F f) {
    auto t = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

double Mediane(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// A session, the searches with their values fetched and released, nothing
// else.
void BoucleMinimale(const std::string &s_Hote, const std::vector<std::string> &v_Filtres) {
    LDAP *ld = ldapConnect(s_Hote.c_str());
    char *tpc_Attr[] = {const_cast<char *>("ravokVixMembres"), const_cast<char *>("ravokVixRemise"),
                        nullptr};
    for (const std::string &s_Filtre : v_Filtres) {
        LDAPMessage *res = nullptr;
        ldap_search_ext_s(ld, "", LDAP_SCOPE_SUBTREE, s_Filtre.c_str(), tpc_Attr, 0, nullptr,
                          nullptr, nullptr, LDAP_NO_LIMIT, &res);
        if (ldap_count_entries(ld, res) == 1) {
            LDAPMessage *e = ldap_first_entry(ld, res);
            for (char **pp = tpc_Attr; *pp != nullptr; pp++)
                ldap_value_free_len(ldap_get_values_len(ld, e, *pp));
        }
        ldap_msgfree(res);
    }
    ldapClose(&ld);
}

// Starts the command as the program starts a batch (posix_spawn, the input
// through a pipe) and waits for its end.
void DemarreEtAttend(const std::vector<std::string> &v_Argv, const std::string &s_Entree) {
    int t_Tube[2];
    if (pipe2(t_Tube, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t st_Actions;
    posix_spawn_file_actions_init(&st_Actions);
    posix_spawn_file_actions_adddup2(&st_Actions, t_Tube[0], 0);
    std::vector<char *> v_A;
    for (const std::string &s : v_Argv) v_A.push_back(const_cast<char *>(s.c_str()));
    v_A.push_back(nullptr);
    pid_t i_Pid = 0;
    int i_Res = posix_spawn(&i_Pid, v_A[0], &st_Actions, nullptr, v_A.data(), environ);
    posix_spawn_file_actions_destroy(&st_Actions);
    close(t_Tube[0]);
    if (i_Res == 0 && write(t_Tube[1], s_Entree.data(), s_Entree.size()) < 0) perror("write");
    close(t_Tube[1]);
    if (i_Res == 0) waitpid(i_Pid, nullptr, 0);
}

}  // namespace

int main() {
    char pc_Rep[] = "/tmp/banc-listes.XXXXXX";
    const std::string s_Rep = mkdtemp(pc_Rep);
    const std::string s_Journal = JournalPrive(s_Rep);
    printf("The program logs to %s.\n\n", s_Journal.c_str());
    AnnuaireEssai st_Annuaire;
    if (!DemarreAnnuaire(&st_Annuaire, Entrees())) {
        fprintf(stderr, "slapd: %s\n", st_Annuaire.s_Erreur.c_str());
        return 1;
    }
    _strncpy(gPc_InfoMessEnCours, "bench", TAILLE_TEXTE);
    const std::string s_Message =
        "Received: from x by y\nFrom: <" + EMETTEUR + ">\nSubject: liste\n\ncorps\n";

    // 1. The list of lists, program and loop in turn.
    std::vector<std::string> v_Filtres = Filtres();
    std::vector<double> v_Prog, v_Boucle;
    int i_Statut = 0;
    for (int i = 0; i < NB_ESSAIS; i++) {
        v_Boucle.push_back(Duree([&] { BoucleMinimale(st_Annuaire.s_Hote, v_Filtres); }));
        v_Prog.push_back(Duree([&] {
            i_Statut |= LanceProgramme({PROG, "-l", st_Annuaire.s_Hote, "-e", EMETTEUR, "-d",
                                        "toutes@vorane.example"},
                                       s_Message, 120)
                            .i_Statut;
        }));
    }
    double d_Prog = Mediane(v_Prog), d_Boucle = Mediane(v_Boucle), d_Rapport = d_Prog / d_Boucle;
    printf("LISTE-MU of %d lists of %d addresses (%zu searches), median of %d runs:\n", NB_LISTES,
           NB_PAR_LISTE, v_Filtres.size(), NB_ESSAIS);
    printf("  whole program (exit status %d):  %8.1f ms\n", i_Statut, d_Prog * 1e3);
    printf("  bare libldap loop, same searches: %8.1f ms\n", d_Boucle * 1e3);
    printf("  program / loop = %.3f (goal <= %.1f): %s\n", d_Rapport, OBJECTIF_RAPPORT,
           d_Rapport <= OBJECTIF_RAPPORT && i_Statut == 0 ? "met" : "NOT MET");

    // What no change to the program can take off: its submission batches
    // (at most 100 addresses each) are processes started and waited for in
    // turn.  One more run records them; the discarding command is then
    // started alone as often, with the same arguments and input.
    const std::string s_Appels = s_Rep + "/appels";
    mkdir(s_Appels.c_str(), 0700);
    LanceProgramme({PROG, "-l", st_Annuaire.s_Hote, "-e", EMETTEUR, "-d", "toutes@vorane.example"},
                   s_Message, 120, {"CAPTURE_REPERTOIRE=" + s_Appels});
    std::vector<std::pair<std::vector<std::string>, std::string>> v_Lots;
    for (const std::string &s : FichiersCommencantPar(s_Appels, "appel-")) {
        if (s.ends_with(".argv")) {
            const std::string s_Argv = LitFichier(s), s_Base = s.substr(0, s.size() - 5);
            std::vector<std::string> v;  // each argument ends with a NUL byte
            for (std::size_t p = 0, q; (q = s_Argv.find('\0', p)) != std::string::npos; p = q + 1)
                v.push_back(s_Argv.substr(p, q - p));
            v_Lots.emplace_back(v, LitFichier(s_Base + ".entree"));
        }
        unlink(s.c_str());
    }
    rmdir(s_Appels.c_str());
    std::vector<double> v_LotsSeuls;
    for (int i = 0; i < NB_ESSAIS; i++)
        v_LotsSeuls.push_back(Duree([&] {
            for (const auto &[v, s_Entree] : v_Lots) DemarreEtAttend(v, s_Entree);
        }));
    const double d_Lots = Mediane(v_LotsSeuls);
    printf("  the %zu sendmail batches it starts (at most 100 addresses each), the discarding\n"
           "  command started alone as often: %.1f ms; program / (loop + those) = %.3f\n",
           v_Lots.size(), d_Lots * 1e3, d_Prog / (d_Boucle + d_Lots));

    // 2. A large message to a list and two mailboxes.
    std::string s_Gros = "Received: from x by y\nFrom: <" + EMETTEUR + ">\nSubject: gros\n\n";
    while (s_Gros.size() < TAILLE_CORPS) s_Gros += std::string(99, 'x') + "\n";
    // One reply after the data for each of the two mailboxes.
    std::vector<EtapeLmtp> v_Script = {Rep("220 ok\n"), Rep("250 ok\n"), Rep("250 ok\n"),
                                       Rep("250 ok\n"), Rep("354 go\n"), Rep("250 ok\n250 ok\n"),
                                       Rep("221 bye\n")};
    ServeurLmtpEssai st_Lmtp(v_Script, true);
    ResultatProcessus r = LanceProgramme({PROG, "-r", st_Lmtp.Designation(), "-l", st_Annuaire.s_Hote,
                                          "-e", EMETTEUR, "-d", "petite@vorane.example",
                                          "b1@vorane.example", "b2@vorane.example"},
                                         s_Gros, 120);
    std::size_t t_Recu = DonneesRecues(st_Lmtp.Recu()).size();
    long l_Corps = static_cast<long>(TAILLE_CORPS / 1024);
    printf("\n%zu MB message to a list and two mailboxes (exit status %d, %zu bytes stored):\n",
           TAILLE_CORPS >> 20, r.i_Statut, t_Recu);
    printf("  peak memory %ld KiB for a %ld KiB body (goal <= body + %ld KiB): %s\n",
           r.l_MemoireMaxKo, l_Corps, MARGE_MEMOIRE_KO,
           r.i_Statut == 0 && r.l_MemoireMaxKo <= l_Corps + MARGE_MEMOIRE_KO ? "met" : "NOT MET");
    ArreteServeur(&st_Annuaire);
    RetireJournalPrive(s_Rep);
    rmdir(s_Rep.c_str());
    return 0;
}
