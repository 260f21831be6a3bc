// Fuzz target: FetchAddress over any bytes, walking the whole list the way
// the sender analysis does.  The buffers are as large as the input, so no
// refusal ends the process; the sanitizers catch any access outside them.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "message/message.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pc_Donnees, std::size_t t_Taille) {
    std::string s_Source(reinterpret_cast<const char *>(pc_Donnees), t_Taille);
    s_Source = s_Source.c_str();  // a header value ends at its first NUL
    std::vector<char> v_Adresse(s_Source.size() + 1), v_Phrase(s_Source.size() + 1);
    const char *pc = s_Source.c_str();
    const char *pc_Fin = pc + s_Source.size();
    do {
        const char *pc_Suite = FetchAddress(pc, v_Adresse.data(), v_Adresse.size(),
                                            v_Phrase.data(), v_Phrase.size());
        if (pc_Suite <= pc && *pc != '\0') __builtin_trap();  // must advance
        if (pc_Suite > pc_Fin) __builtin_trap();
        if (strlen(v_Adresse.data()) >= v_Adresse.size()) __builtin_trap();
        pc = pc_Suite;
    } while (*pc != '\0');
    return 0;
}
