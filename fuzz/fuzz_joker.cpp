// Fuzz target: _expjok with the input split into a pattern and a candidate
// at its first NUL byte.  Any result is fine; reading outside either text,
// or running for long, is not.
#include <cstdint>
#include <string>

#include "message/message.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pc_Donnees, std::size_t t_Taille) {
    std::string s(reinterpret_cast<const char *>(pc_Donnees), t_Taille);
    std::size_t t_Nul = s.find('\0');
    std::string s_Motif = s.substr(0, t_Nul);
    std::string s_Candidat = t_Nul == std::string::npos ? "" : s.substr(t_Nul + 1);
    s_Candidat = s_Candidat.c_str();
    int i_Res = _expjok(s_Motif.c_str(), s_Candidat.c_str());
    if (i_Res != 0 && i_Res != -1) __builtin_trap();
    // Without jokers a pattern matches exactly itself.
    if (s_Motif.find_first_of("*?[") == std::string::npos &&
        (i_Res != 0) != (s_Motif == s_Candidat))
        __builtin_trap();
    return 0;
}
