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
//   CAPTURE_BAVARD      before reading and again after it, write this many
//                       bytes of warnings ("capture: bavard\n" repeated) to
//                       standard error, and one such line to standard output.
// Its exit status is the number in the file <dir>/statut-<k>, else 0; a
// negative number -n ends the program by signal n instead.
// A file-size limit inherited from the program under test (a test that
// fills its "file system" that way) is lifted: the records must be written.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

// Writes CAPTURE_BAVARD's warnings, if asked; false when it cannot.
static bool Bavarde() {
    const char *pc_Bavard = getenv("CAPTURE_BAVARD");
    if (pc_Bavard == nullptr) return true;
    static const char PC_LIGNE[] = "capture: bavard\n";
    if (write(1, PC_LIGNE, sizeof PC_LIGNE - 1) < 0) return false;
    for (long long ll = atoll(pc_Bavard); ll > 0; ll -= static_cast<long long>(sizeof PC_LIGNE - 1))
        if (write(2, PC_LIGNE, sizeof PC_LIGNE - 1) < 0) return false;
    return true;
}

int main(int argc, char **argv) {
    struct rlimit st_Limite;
    if (getrlimit(RLIMIT_FSIZE, &st_Limite) == 0) {
        st_Limite.rlim_cur = st_Limite.rlim_max;
        setrlimit(RLIMIT_FSIZE, &st_Limite);
    }
    const char *pc_Rep = getenv("CAPTURE_REPERTOIRE");
    const char *pc_Limite = getenv("CAPTURE_LIMITE");
    const long long ll_Limite = pc_Limite != nullptr ? atoll(pc_Limite) : -1;

    // Claim the first free call number (O_EXCL: concurrent calls never share one).
    FILE *pf_Entree = nullptr;
    int k = 0;
    std::string s_Base;
    if (pc_Rep != nullptr) {
        int i_Fd = -1;
        while (i_Fd < 0 && ++k < 100000) {
            s_Base = std::string(pc_Rep) + "/appel-" + std::to_string(k);
            i_Fd = open((s_Base + ".entree").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
            if (i_Fd < 0 && errno != EEXIST) return 70;
        }
        if (i_Fd < 0) return 70;
        FILE *pf_Argv = fopen((s_Base + ".argv").c_str(), "w");
        if (pf_Argv == nullptr) return 70;
        for (int i = 0; i < argc; i++) fwrite(argv[i], 1, strlen(argv[i]) + 1, pf_Argv);
        if (fclose(pf_Argv) != 0 || (pf_Entree = fdopen(i_Fd, "w")) == nullptr) return 70;
    }

    if (!Bavarde()) return 71;

    // Standard input, up to its end or the limit.
    char pc[65536];
    long long ll_Total = 0;
    ssize_t n = -1;
    while (ll_Limite < 0 || ll_Total < ll_Limite) {
        long long ll_Voulu = sizeof pc;
        if (ll_Limite >= 0) ll_Voulu = std::min(ll_Voulu, ll_Limite - ll_Total);
        n = read(0, pc, static_cast<std::size_t>(ll_Voulu));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        ll_Total += n;
        std::size_t t_Lu = static_cast<std::size_t>(n);
        if (pf_Entree != nullptr && fwrite(pc, 1, t_Lu, pf_Entree) != t_Lu) return 70;
    }
    close(0);
    if (!Bavarde()) return 71;
    if (pf_Entree != nullptr) {
        if (fclose(pf_Entree) != 0) return 70;
        FILE *pf_Fin = n == 0 ? fopen((s_Base + ".fin").c_str(), "w") : nullptr;
        if (pf_Fin != nullptr) {
            fprintf(pf_Fin, "%lld\n", ll_Total);
            fclose(pf_Fin);
        }
    }

    // Exit status.
    int i_Statut = 0;
    FILE *pf = pc_Rep != nullptr ? fopen((std::string(pc_Rep) + "/statut-" + std::to_string(k)).c_str(), "r")
                                 : nullptr;
    if (pf != nullptr) {
        if (fscanf(pf, "%d", &i_Statut) != 1) i_Statut = 0;
        fclose(pf);
    }
    if (i_Statut < 0) {
        signal(-i_Statut, SIG_DFL);
        raise(-i_Statut);
    }
    return i_Statut;
}
