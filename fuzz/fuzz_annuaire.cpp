// Outside text that reaches the directory: an address put into a search
// filter, and the host list of the command line turned into URIs.
//
// Filter: either refused (-1, empty buffer) or "(mail=...)" within the
// buffer, holding no unescaped metacharacter, and decoding back to the input.
// Hosts: either refused or a list of plain ldap://host:port URIs, as many
// as hosts counted, each parsed by the library without a DN, attributes,
// filter or extensions.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <ldap.h>

#include "directory/directory.h"
#include "message/message.h"

namespace {

// Value of a hexadecimal digit, or -1.
int Hexa(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

void VerifieFiltre(const std::string &s_Valeur) {
    char pc[TAILLE_FILTRE];
    memset(pc, 'Z', sizeof pc);
    if (ConstruitFiltreLdap(pc, sizeof pc, "mail", s_Valeur.c_str()) != 0) {
        if (pc[0] != '\0') abort();
        return;
    }
    std::size_t t = strnlen(pc, sizeof pc);
    if (t >= sizeof pc || t < 7 || strncmp(pc, "(mail=", 6) != 0 || pc[t - 1] != ')') abort();
    std::string s_Decode;
    for (std::size_t i = 6; i < t - 1; i++) {
        char c = pc[i];
        if (c == '(' || c == ')' || c == '*') abort();
        if (c == '\\') {
            if (i + 2 >= t - 1 || Hexa(pc[i + 1]) < 0 || Hexa(pc[i + 2]) < 0) abort();
            c = static_cast<char>(Hexa(pc[i + 1]) * 16 + Hexa(pc[i + 2]));
            i += 2;
        }
        s_Decode += c;
    }
    if (s_Decode != s_Valeur.c_str()) abort();
}

void VerifieHotes(const std::string &s_Hotes) {
    char pc[TAILLE_TEXTE];
    int n = ConstruitUrisLdap(s_Hotes.c_str(), pc, sizeof pc);
    if (n < 0) {
        if (pc[0] != '\0') abort();
        return;
    }
    int i_Compte = 0;
    for (char *pc_Uri = strtok(pc, ","); pc_Uri != nullptr; pc_Uri = strtok(nullptr, ",")) {
        LDAPURLDesc *lud = nullptr;
        if (ldap_url_parse(pc_Uri, &lud) != LDAP_URL_SUCCESS) abort();
        if (strcmp(lud->lud_scheme, "ldap") != 0 || lud->lud_host == nullptr ||
            lud->lud_host[0] == '\0' || lud->lud_port < 1 || lud->lud_port > 65535 ||
            (lud->lud_dn != nullptr && lud->lud_dn[0] != '\0') || lud->lud_attrs != nullptr ||
            lud->lud_filter != nullptr || lud->lud_exts != nullptr)
            abort();
        ldap_free_urldesc(lud);
        i_Compte++;
    }
    if (i_Compte != n) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string s(reinterpret_cast<const char *>(data), size);
    VerifieFiltre(s);
    VerifieHotes(s);
    return 0;
}
