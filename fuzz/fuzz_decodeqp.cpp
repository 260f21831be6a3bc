// Fuzz target: DecodeQP over any header value, into a heap buffer of exactly
// the size given (so any write past it is caught), for several targets.
// Input: byte 0 picks the target charset, byte 1 the output size, the rest
// is the value (up to its first NUL).
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "codec/codec.h"

namespace {
const char *const tpc_Cibles[] = {"UTF-8", "ISO-8859-1", "", nullptr, "ISO-8859-15", "UTF-16",
                                  "ISO-2022-JP", "X-INCONNU"};
}

// One input; traps on any broken invariant.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pc_Donnees, std::size_t t_Taille) {
    if (t_Taille < 2) return 0;
    const char *pc_Cible = tpc_Cibles[pc_Donnees[0] % (sizeof tpc_Cibles / sizeof *tpc_Cibles)];
    std::size_t t_Sortie = pc_Donnees[1] < 250 ? pc_Donnees[1] : 512;
    std::string s_Valeur(reinterpret_cast<const char *>(pc_Donnees + 2), t_Taille - 2);
    s_Valeur = s_Valeur.c_str();
    std::string s_Avant = s_Valeur;

    std::vector<char> v_Sortie(t_Sortie);
    char *pc_Sortie = t_Sortie > 0 ? v_Sortie.data() : nullptr;
    if (pc_Sortie == nullptr) return 0;
    DecodeQP(s_Valeur.c_str(), pc_Cible, pc_Sortie, t_Sortie);
    // Terminated inside the buffer (UTF-16 output may hold zero bytes, so
    // only the terminator's presence is checked), and the value untouched.
    if (memchr(pc_Sortie, '\0', t_Sortie) == nullptr) __builtin_trap();
    if (s_Valeur != s_Avant) __builtin_trap();
    return 0;
}
