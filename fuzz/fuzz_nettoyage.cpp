// Fuzz target: Deplie, DeQuotte, conv_Iso8859_Ascii7 and conv_jc over any
// text, into heap buffers of exactly the size given.  Byte 0 is the size.
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
    Deplie(s_Texte.c_str(), v.data(), v.size());
    std::size_t t = strnlen(v.data(), v.size());
    if (t >= v.size() || memchr(v.data(), '\n', t) != nullptr) __builtin_trap();

    DeQuotte(s_Texte.c_str(), v.data(), v.size());
    t = strnlen(v.data(), v.size());
    if (t >= v.size() || memchr(v.data(), '"', t) != nullptr) __builtin_trap();

    std::string s_Copie = s_Texte;
    conv_Iso8859_Ascii7(s_Copie.data());
    for (char c : s_Copie)
        if (static_cast<unsigned char>(c) >= 0x80) __builtin_trap();

    conv_jc(s_Texte.c_str(), "UTF-8", v.data(), "ISO-8859-1", v.size());
    if (strnlen(v.data(), v.size()) >= v.size()) __builtin_trap();
    if (conv_jc2(s_Texte.c_str(), "ISO-8859-1", v.data(), "UTF-8", v.size()) != nullptr &&
        strnlen(v.data(), v.size()) >= v.size())
        __builtin_trap();
    return 0;
}
