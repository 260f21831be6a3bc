// Fuzz target: EncodeQP over any value and charset name, into a heap buffer
// of exactly the size given; with ISO-8859-1 and room enough, DecodeQP must
// give the value back.
// Input: byte 0 the output size, byte 1 the charset-name length (names are
// taken from the input), then the name, then the value.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "codec/codec.h"

// One input; traps on any broken invariant.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pc_Donnees, std::size_t t_Taille) {
    if (t_Taille < 2) return 0;
    int i_Sortie = pc_Donnees[0];
    std::size_t t_Nom = std::min<std::size_t>(pc_Donnees[1] % 48, t_Taille - 2);
    std::string s_Charset(reinterpret_cast<const char *>(pc_Donnees + 2), t_Nom);
    s_Charset = s_Charset.c_str();
    std::string s_Valeur(reinterpret_cast<const char *>(pc_Donnees + 2 + t_Nom), t_Taille - 2 - t_Nom);
    s_Valeur = s_Valeur.c_str();

    // Bounded output, any charset name.
    if (i_Sortie > 0) {
        std::vector<char> v(static_cast<std::size_t>(i_Sortie));
        EncodeQP(s_Valeur.c_str(), s_Charset.c_str(), v.data(), i_Sortie);
        if (strnlen(v.data(), v.size()) >= v.size()) __builtin_trap();
    }

    // Round trip through Latin-1, where every byte is a character.
    if (CodageQPNecessaire(s_Valeur.c_str()) == 0) return 0;
    std::vector<char> v_Code(16 * s_Valeur.size() + 64);
    EncodeQP(s_Valeur.c_str(), "ISO-8859-1", v_Code.data(), static_cast<int>(v_Code.size()));
    std::vector<char> v_Retour(s_Valeur.size() + 2);
    DecodeQP(v_Code.data(), "ISO-8859-1", v_Retour.data(), v_Retour.size());
    if (s_Valeur != v_Retour.data()) __builtin_trap();
    return 0;
}
