// base64.cpp - base64 (B) and Q decoding of encoded-word texts.
//
// CharToBase64, DecodeQuadruplet, DecodeBase64, DecodeCodageQ: see codec.h.
// Neither decoder reports anything; bad input gives deterministic bytes (a
// character outside the alphabet counts as -1, all bits set).
#include "codec/codec.h"

#include <cstdlib>

#include "message/message.h"

namespace {

// One character of the group being collected: blanks and line feeds before
// it are skipped; the end of the text stands for padding and is not passed.
char CarSuivant(const char *pc_Entree, int *pi_Position) {
    while (pc_Entree[*pi_Position] == ' ' || pc_Entree[*pi_Position] == '\n') (*pi_Position)++;
    char c = pc_Entree[*pi_Position];
    if (c == '\0') return '=';
    (*pi_Position)++;
    return c;
}

}  // namespace

// Value of one base64 character, or -1.
int CharToBase64(char c_Car) {
    if (c_Car >= 'A' && c_Car <= 'Z') return c_Car - 'A';
    if (c_Car >= 'a' && c_Car <= 'z') return c_Car - 'a' + 26;
    if (c_Car >= '0' && c_Car <= '9') return c_Car - '0' + 52;
    if (c_Car == '+') return 62;
    if (c_Car == '/') return 63;
    return -1;
}

// Decodes one group of four characters; returns the number of bytes written.
int DecodeQuadruplet(char *pc_Sortie, const char *pc_Entree, int *pi_Position) {
    char tc[4];
    for (char &c : tc) c = CarSuivant(pc_Entree, pi_Position);

    int k = 3;
    while (k >= 0 && tc[k] == '=') k--;
    if (k <= 0) return 0;

    int w[4] = {0, 0, 0, 0};
    for (int i = 0; i <= k; i++) w[i] = CharToBase64(tc[i]);

    // Signed values with arithmetic right shifts, kept to their low 8 bits;
    // the left shifts are done unsigned (same bits, no overflow).
    auto Octet = [](int i_Gauche, int i_Decalage, int i_Droite) {
        unsigned u = (static_cast<unsigned>(i_Gauche) << i_Decalage) + static_cast<unsigned>(i_Droite);
        return static_cast<char>(static_cast<unsigned char>(u & 0xFFu));
    };
    pc_Sortie[0] = Octet(w[0], 2, w[1] >> 4);
    if (k >= 2) pc_Sortie[1] = Octet(w[1], 4, w[2] >> 2);
    if (k >= 3) pc_Sortie[2] = Octet(w[2], 6, w[3]);
    return k;
}

// Decodes a base64 text into the buffer (see codec.h for where it stops).
void DecodeBase64(const char *pc_Entree, char *pc_Sortie, std::size_t t_Taille) {
    if (t_Taille == 0) return;
    std::size_t t_Long = 0;
    int i_Position = 0;
    int i_Dernier = 3;
    while (t_Long + 4 < t_Taille && i_Dernier == 3 && pc_Entree[i_Position] != '\0' &&
           pc_Entree[i_Position] != ' ' && pc_Entree[i_Position] != '\n') {
        i_Dernier = DecodeQuadruplet(pc_Sortie + t_Long, pc_Entree, &i_Position);
        t_Long += static_cast<std::size_t>(i_Dernier);
    }
    pc_Sortie[t_Long] = '\0';
}

// Decodes a Q text into the buffer; returns the buffer.
char *DecodeCodageQ(const char *pc_Entree, char *pc_Sortie, std::size_t t_Taille) {
    if (t_Taille == 0) return pc_Sortie;
    std::size_t r = 0, w = 0;
    while (pc_Entree[r] != '\0' && w + 1 < t_Taille) {
        if (pc_Entree[r] == '=' && pc_Entree[r + 1] != '\0' && pc_Entree[r + 2] != '\0') {
            char pc_Hexa[3];
            _strncpy(pc_Hexa, pc_Entree + r + 1, sizeof pc_Hexa);
            long l = strtol(pc_Hexa, nullptr, 16);
            pc_Sortie[w++] = static_cast<char>(static_cast<unsigned char>(l & 0xFF));
            r += 3;
            continue;
        }
        pc_Sortie[w++] = pc_Entree[r] == '_' ? ' ' : pc_Entree[r];
        r++;
    }
    pc_Sortie[w] = '\0';
    return pc_Sortie;
}
