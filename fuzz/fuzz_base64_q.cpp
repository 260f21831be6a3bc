// Fuzz target: DecodeBase64 and DecodeCodageQ over any text, into heap
// buffers of exactly the size given.  Byte 0 is the size, the rest the text.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "codec/codec.h"

// One input; traps on any broken invariant.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pc_Donnees, std::size_t t_Taille) {
    if (t_Taille < 1) return 0;
    std::size_t t_Sortie = pc_Donnees[0];
    std::string s_Texte(reinterpret_cast<const char *>(pc_Donnees + 1), t_Taille - 1);
    s_Texte = s_Texte.c_str();
    if (t_Sortie == 0) return 0;

    std::vector<char> v(t_Sortie);
    DecodeBase64(s_Texte.c_str(), v.data(), v.size());
    if (t_Sortie >= 2 && memchr(v.data(), '\0', t_Sortie - 1) == nullptr) __builtin_trap();

    std::vector<char> w(t_Sortie);
    if (DecodeCodageQ(s_Texte.c_str(), w.data(), w.size()) != w.data()) __builtin_trap();
    if (memchr(w.data(), '\0', t_Sortie) == nullptr) __builtin_trap();
    return 0;
}
