// capture-commande - stands in for sendmail and the Sympa queue programs in
// the test copy of the program: records how it was run and what it read,
// executes nothing, and exits with a chosen status.
//
// Environment:
//   CAPTURE_REPERTOIRE  directory of the records; without it the program
//                       only reads its input and exits.  Call k (1, 2, ...:
//                       the first number whose files do not exist yet) writes
//                       appel-<k>.entree (standard input, byte for byte) and
//                       appel-<k>.argv (every argument, argv[0] included,
//                       each followed by a NUL byte), and, once standard
//                       input has reached its end, appel-<k>.fin (the
//                       number of bytes read): a command killed before the
//                       end of its input leaves no .fin file.
//   CAPTURE_LIMITE      read at most this many bytes, then close standard
//                       input and exit (a command that stops reading early).
//   CAPTURE_STATUT      exit status; otherwise the number in the file
//                       <dir>/statut-<k>, else in <dir>/statut, else 0.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

// Writes the bytes whole; false on failure.
bool EcritTout(int i_Fd, const char *pc, std::size_t t_Long) {
    while (t_Long > 0) {
        ssize_t n = write(i_Fd, pc, t_Long);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        pc += n;
        t_Long -= static_cast<std::size_t>(n);
    }
    return true;
}

// The status number held in a file, or -1 when there is none.
int StatutFichier(const std::string &s_Chemin) {
    FILE *pf = fopen(s_Chemin.c_str(), "r");
    if (pf == nullptr) return -1;
    int i = -1;
    if (fscanf(pf, "%d", &i) != 1) i = -1;
    fclose(pf);
    return i;
}

}  // namespace

int main(int argc, char **argv) {
    const char *pc_Rep = getenv("CAPTURE_REPERTOIRE");
    const char *pc_Limite = getenv("CAPTURE_LIMITE");
    long long ll_Limite = pc_Limite != nullptr ? atoll(pc_Limite) : -1;

    // Claim the first free call number.
    int i_Fd = -1;
    int k = 0;
    std::string s_Base;
    if (pc_Rep != nullptr) {
        for (k = 1; k < 100000; k++) {
            s_Base = std::string(pc_Rep) + "/appel-" + std::to_string(k);
            i_Fd = open((s_Base + ".entree").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
            if (i_Fd >= 0 || errno != EEXIST) break;
        }
        if (i_Fd < 0) return 70;
        int i_Argv = open((s_Base + ".argv").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (i_Argv < 0) return 70;
        for (int i = 0; i < argc; i++)
            if (!EcritTout(i_Argv, argv[i], strlen(argv[i]) + 1)) return 70;
        close(i_Argv);
    }

    // Standard input, up to its end or the limit.
    char pc[65536];
    long long ll_Total = 0;
    bool b_FinEntree = false;
    for (;;) {
        std::size_t t_Voulu = sizeof pc;
        if (ll_Limite >= 0) {
            if (ll_Total >= ll_Limite) break;
            if (static_cast<long long>(t_Voulu) > ll_Limite - ll_Total)
                t_Voulu = static_cast<std::size_t>(ll_Limite - ll_Total);
        }
        ssize_t n = read(0, pc, t_Voulu);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            b_FinEntree = n == 0;
            break;
        }
        ll_Total += n;
        if (i_Fd >= 0 && !EcritTout(i_Fd, pc, static_cast<std::size_t>(n))) return 70;
    }
    close(0);
    if (i_Fd >= 0) close(i_Fd);
    if (i_Fd >= 0 && b_FinEntree) {
        int i_Fin = open((s_Base + ".fin").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::string s_Total = std::to_string(ll_Total) + "\n";
        if (i_Fin >= 0) {
            EcritTout(i_Fin, s_Total.data(), s_Total.size());
            close(i_Fin);
        }
    }

    // Exit status.
    const char *pc_Statut = getenv("CAPTURE_STATUT");
    if (pc_Statut != nullptr) return atoi(pc_Statut);
    if (pc_Rep != nullptr) {
        int i = StatutFichier(std::string(pc_Rep) + "/statut-" + std::to_string(k));
        if (i < 0) i = StatutFichier(std::string(pc_Rep) + "/statut");
        if (i >= 0) return i;
    }
    return 0;
}
