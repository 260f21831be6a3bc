// utilitaires.cpp - joker patterns, bounded copy, case folding, text tables.
//
// _expjok(pattern, candidate): -1 on a match, 0 otherwise; "?" one byte,
//   "*" any run ("*" with more pattern after it needs at least one byte left
//   in the candidate), "[...]" classes ("^" negates, "]" always closes,
//   "a-z" ranges on unsigned bytes, an unclosed class never matches);
//   case-sensitive.  Runs in O(pattern x candidate) whatever the number of
//   stars: on a mismatch only the most recent star is moved on, which finds
//   a match whenever any choice of runs would.
// _strncpy(dest, src, size): at most size - 1 bytes, always terminated, a
//   null source gives ""; returns the length copied.
// _minu / _maju: ASCII case folding in place (bytes 128-255 untouched).
// EpureControles(text, folded): the clean-up of every text from the message
//   that the program writes into a header line of its own, in place: control
//   bytes (below 0x20, and 0x7f) become blanks, 8-bit bytes stay.  A value
//   copied with its own folding keeps each line feed followed by a blank or
//   a tab (with that blank or tab) and loses its final line end.
// NblTableau, TriTableau, TriDomSmtpTableau: null-terminated text tables,
//   counted, sorted case-insensitively by text or by "@domain" key.
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "message/message.h"

namespace {

using Octet = unsigned char;

// Outcome of matching one class against one candidate byte.
enum class Classe { Membre, NonMembre, NonFermee };

// Matches the class that starts after its "[" at pc_Classe against the byte;
// leaves in *ppc_Suite the pattern position after the closing "]".
Classe TesteClasse(const Octet *pc_Classe, Octet c, const Octet **ppc_Suite) {
    bool b_Negative = false;
    if (*pc_Classe == '^') {
        b_Negative = true;
        pc_Classe++;
    }
    const Octet *pc_Debut = pc_Classe;
    bool b_Membre = false;
    const Octet *pc = pc_Debut;
    for (; *pc != '\0' && *pc != ']'; pc++) {
        if (*pc == '-' && pc != pc_Debut && pc[1] != ']' && pc[1] != '\0') {
            if (pc[-1] <= c && c <= pc[1]) b_Membre = true;
            pc++;  // the range's upper bound is consumed with it
            continue;
        }
        if (*pc == c) b_Membre = true;
    }
    if (*pc != ']') return Classe::NonFermee;
    *ppc_Suite = pc + 1;
    return b_Membre != b_Negative ? Classe::Membre : Classe::NonMembre;
}

}  // namespace

// Joker match; see the unit's heading.
int _expjok(const char *pc_Motif, const char *pc_Candidat) {
    if (pc_Motif == nullptr || pc_Candidat == nullptr) return 0;
    const Octet *p = reinterpret_cast<const Octet *>(pc_Motif);
    const Octet *c = reinterpret_cast<const Octet *>(pc_Candidat);
    // Most recent star: the pattern after it and the candidate position its
    // run currently ends at.
    const Octet *p_Etoile = nullptr;
    const Octet *c_Etoile = nullptr;

    for (;;) {
        bool b_Avance = false;
        if (*p == '*') {
            if (p[1] == '\0') return -1;
            if (*c == '\0') return 0;
            p_Etoile = ++p;
            c_Etoile = c;
            continue;
        }
        if (*p == '\0') {
            if (*c == '\0') return -1;
        } else if (*p == '?') {
            if (*c != '\0') {
                p++;
                c++;
                b_Avance = true;
            }
        } else if (*p == '[') {
            if (*c != '\0') {
                const Octet *p_Suite = nullptr;
                Classe e = TesteClasse(p + 1, *c, &p_Suite);
                if (e == Classe::NonFermee) return 0;
                if (e == Classe::Membre) {
                    p = p_Suite;
                    c++;
                    b_Avance = true;
                }
            }
        } else if (*p == *c) {
            p++;
            c++;
            b_Avance = true;
        }
        if (b_Avance) continue;
        // Mismatch: let the most recent star's run take one more byte, as
        // long as the candidate has one to give.
        if (p_Etoile == nullptr) return 0;
        c_Etoile++;
        if (*c_Etoile == '\0') return 0;
        p = p_Etoile;
        c = c_Etoile;
    }
}

// Bounded copy; see the unit's heading.
int _strncpy(char *pc_Dest, const char *pc_Source, std::uint32_t i_Taille) {
    if (pc_Source == nullptr) {
        pc_Dest[0] = '\0';
        return 0;
    }
    std::uint32_t i = 0;
    while (i + 1 < i_Taille && pc_Source[i] != '\0') {
        pc_Dest[i] = pc_Source[i];
        i++;
    }
    pc_Dest[i] = '\0';
    return static_cast<int>(i);
}

// Lower-cases ASCII letters in place.
void _minu(char *pc_Texte) {
    for (char *pc = pc_Texte; *pc != '\0'; pc++)
        if (*pc >= 'A' && *pc <= 'Z') *pc = static_cast<char>(*pc - 'A' + 'a');
}

// Upper-cases ASCII letters in place.
void _maju(char *pc_Texte) {
    for (char *pc = pc_Texte; *pc != '\0'; pc++)
        if (*pc >= 'a' && *pc <= 'z') *pc = static_cast<char>(*pc - 'a' + 'A');
}

// Clean-up of a text from the message before the program writes it into a
// header line of its own: every control byte (below 0x20, and 0x7f) becomes
// a blank, so that no line feed, carriage return or other control character
// of the message reaches such a line; 8-bit bytes stay as they are.  With
// i_Pliage the text is a header value copied as it came: its own folding (a
// line feed followed by a blank or a tab, with that blank or tab) stays, and
// its final line end (the line feeds and carriage returns that close it) is
// removed, so that the caller ends the line with exactly one line feed of its
// own.  In place; a null text is left alone.  Returns the text.
char *EpureControles(char *pc_Texte, int i_Pliage) {
    if (pc_Texte == nullptr) return nullptr;
    std::size_t t_Long = strlen(pc_Texte);
    if (i_Pliage)
        while (t_Long > 0 && (pc_Texte[t_Long - 1] == '\n' || pc_Texte[t_Long - 1] == '\r'))
            pc_Texte[--t_Long] = '\0';
    Octet *p = reinterpret_cast<Octet *>(pc_Texte);
    for (std::size_t i = 0; i < t_Long; i++) {
        if (i_Pliage && p[i] == '\n' && (p[i + 1] == ' ' || p[i + 1] == '\t')) {
            i++;  // the folding and its blank or tab
            continue;
        }
        if (p[i] < 0x20 || p[i] == 0x7f) p[i] = ' ';
    }
    return pc_Texte;
}

// Number of entries before the null entry.
int NblTableau(char *const *tpc_Tableau) {
    int i = 0;
    if (tpc_Tableau == nullptr) return 0;
    while (tpc_Tableau[i] != nullptr) i++;
    return i;
}

// Case-insensitive comparison of two table entries.
int i_tab_cmp(const void *pv_A, const void *pv_B) {
    return strcasecmp(*static_cast<char *const *>(pv_A), *static_cast<char *const *>(pv_B));
}

// Sorts a text table in place by text.
void TriTableau(char **tpc_Tableau) {
    qsort(tpc_Tableau, static_cast<std::size_t>(NblTableau(tpc_Tableau)), sizeof(char *),
          i_tab_cmp);
}

// Sort key of an address: from its last "@" on, or the whole text.
static const char *CleDomaine(const char *pc_Adresse) {
    const char *pc = strrchr(pc_Adresse, '@');
    return pc != nullptr ? pc : pc_Adresse;
}

// Case-insensitive comparison of two addresses by domain.
int i_tab_cmpDomSMTP(const void *pv_A, const void *pv_B) {
    return strcasecmp(CleDomaine(*static_cast<char *const *>(pv_A)),
                      CleDomaine(*static_cast<char *const *>(pv_B)));
}

// Sorts a table of addresses in place by domain.
void TriDomSmtpTableau(char **tpc_Tableau) {
    qsort(tpc_Tableau, static_cast<std::size_t>(NblTableau(tpc_Tableau)), sizeof(char *),
          i_tab_cmpDomSMTP);
}
