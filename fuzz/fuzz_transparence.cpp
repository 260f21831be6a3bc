// Fuzz target: the dot-stuffing of the LMTP data and the reply and
// designation parsers.  The first byte picks where the data is cut into
// three pieces; stuffing the pieces in turn must give the bytes of stuffing
// the whole, stay within twice the input, never hold a lone "." line before
// the terminator, and un-stuff back to the input.  The same bytes are read
// as an LMTP reply and as a server designation (any result, no fault), and
// assembled into replies: given in the three pieces or whole, they must
// give the same replies, each kept within the dialogue buffer.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "transport/transport.h"

namespace {

// Stuffs the text cut at the two positions.
std::string Stuffe(const std::string &s, std::size_t i, std::size_t j) {
    std::vector<char> v(2 * s.size() + 1);
    Transparence st;
    std::size_t n = AppliqueTransparence(&st, s.data(), i, v.data());
    n += AppliqueTransparence(&st, s.data() + i, j - i, v.data() + n);
    n += AppliqueTransparence(&st, s.data() + j, s.size() - j, v.data() + n);
    if (n > 2 * s.size()) __builtin_trap();
    return std::string(v.data(), n);
}

// The replies assembled from the text given in the pieces cut at i and j,
// the incomplete one at the end last.
std::vector<std::string> Reponses(const std::string &s, std::size_t i, std::size_t j) {
    std::vector<std::string> v;
    AssemblageReponse st;
    const std::size_t t_Bornes[] = {0, i, j, s.size()};
    for (int k = 0; k < 3; k++) {
        std::size_t p = t_Bornes[k];
        while (p < t_Bornes[k + 1]) {
            std::size_t t_Reste = t_Bornes[k + 1] - p;
            std::size_t n = AssembleReponseLmtp(&st, s.data() + p, t_Reste);
            if (n > t_Reste || (n == 0 && !st.b_Complete)) __builtin_trap();
            if (st.t_Long >= sizeof st.Pc_Texte || st.Pc_Texte[st.t_Long] != '\0') __builtin_trap();
            p += n;
            if (!st.b_Complete) continue;
            v.emplace_back(st.Pc_Texte, st.t_Long);
            st = AssemblageReponse{};
        }
    }
    v.emplace_back(st.Pc_Texte, st.t_Long);
    return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pc_Donnees, std::size_t t_Taille) {
    if (t_Taille == 0) return 0;
    std::string s(reinterpret_cast<const char *>(pc_Donnees) + 1, t_Taille - 1);
    std::size_t i = s.empty() ? 0 : pc_Donnees[0] % (s.size() + 1);
    std::size_t j = i + (s.size() - i) / 2;

    std::string s_Pieces = Stuffe(s, i, j);
    if (s_Pieces != Stuffe(s, 0, 0)) __builtin_trap();

    // As the server reads it: the data begins a line, and the client ends
    // it with "\n.\n"; the first "." line must be that terminator.
    std::string s_Fil = s_Pieces + "\n.\n";
    std::string s_Rendu;
    std::size_t p = 0;
    bool b_Fin = false;
    while (p < s_Fil.size()) {
        std::size_t q = s_Fil.find('\n', p);
        std::string s_Ligne = s_Fil.substr(p, q - p + 1);
        p = q + 1;
        if (s_Ligne == ".\n") {
            b_Fin = true;
            break;
        }
        if (s_Ligne[0] == '.') {
            if (s_Ligne.size() < 2 || s_Ligne[1] != '.') __builtin_trap();  // unstuffed dot
            s_Ligne.erase(0, 1);
        }
        s_Rendu += s_Ligne;
    }
    if (!b_Fin || p != s_Fil.size()) __builtin_trap();
    if (s_Rendu != s + "\n") __builtin_trap();

    if (Reponses(s, i, j) != Reponses(s, 0, 0)) __builtin_trap();

    std::string s_Texte = s.c_str();
    (void)ClasseReponseLmtp(s_Texte.c_str());
    ServeurLmtp st;
    if (AnalyseServeurLmtp(s_Texte.c_str(), &st) == 0) {
        if (strlen(st.Pc_Chemin) >= sizeof st.Pc_Chemin) __builtin_trap();
        if (!st.b_Unix && st.i_Port == 0) __builtin_trap();
    }
    return 0;
}
