// charset.cpp - character-set conversion and header text clean-up.
//
// conv_jc / conv_jc2 convert with one iconv call into a caller's buffer
// (room: size - 1); a full output keeps what fitted, cut after the last whole
// character.  On failure conv_jc copies the source unchanged (2194, 2202),
// conv_jc2 returns null (2231, 2238); all at level 4.  The descriptor is
// closed on every path; ASCII text between two ASCII-compatible character
// sets (UTF-8, ISO-8859-1, ISO-8859-15, US-ASCII) is copied without iconv.
// conv_Iso8859_Ascii7 folds in place with a fixed seven-row table; Deplie
// and DeQuotte copy at most size - 1 bytes.
// See codec.h for the contracts.
#include "codec/codec.h"

#include <cerrno>
#include <cstring>
#include <iconv.h>
#include <strings.h>

#include "message/message.h"
#include "report/report.h"
#include "socle.h"

namespace {

constexpr const char *PC_CHARSET_DEFAUT = "ISO-8859-1";

// Message numbers of one conversion variant.
struct MessagesConversion {
    const char *pc_Ouverture;  // iconv_open failed
    const char *pc_Conversion; // invalid or incomplete sequence
    bool b_CopieSiEchec;       // copy the source (conv_jc) or return null (conv_jc2)
};
const MessagesConversion st_ConvJc = {
    "v1.1.0/2194: Erreur iconv_open(<%s>,<%s>), errno=%d (%s). %s",
    "v1.1.0/2202: Erreur iconv <%s> de <%s> vers <%s>, errno=%d (%s). %s", true};
const MessagesConversion st_ConvJc2 = {
    "v1.1.0/2231: Erreur iconv_open(<%s>,<%s>), errno=%d (%s). %s",
    "v1.1.0/2238: Erreur iconv <%s> de <%s> vers <%s>, errno=%d (%s). %s", false};

// A null or empty charset name stands for ISO-8859-1.
const char *CharsetOuDefaut(const char *pc_Charset) {
    return pc_Charset == nullptr || pc_Charset[0] == '\0' ? PC_CHARSET_DEFAUT : pc_Charset;
}

// Character sets in which every ASCII byte is the same one-byte character.
const char *const tpc_SurensemblesAscii[] = {"UTF-8", "ISO-8859-1", "ISO-8859-15", "US-ASCII"};

// True when the name is one of those character sets (any case).
bool SurensembleAscii(const char *pc_Charset) {
    for (const char *pc : tpc_SurensemblesAscii)
        if (strcasecmp(pc_Charset, pc) == 0) return true;
    return false;
}

// True when the text holds only ASCII bytes.
bool TexteAscii(const char *pc_Texte) {
    for (const unsigned char *pu = reinterpret_cast<const unsigned char *>(pc_Texte); *pu != '\0';
         pu++)
        if (*pu >= 0x80) return false;
    return true;
}

// The conversion shared by conv_jc and conv_jc2.
char *Convertit(const char *pc_Source, const char *pc_CsSource, char *pc_Sortie,
                const char *pc_CsCible, std::size_t t_Taille, const MessagesConversion &st) {
    if (t_Taille == 0) return pc_Sortie;
    pc_Sortie[0] = '\0';
    if (pc_Source == nullptr || t_Taille <= 1) return pc_Sortie;
    pc_CsSource = CharsetOuDefaut(pc_CsSource);
    pc_CsCible = CharsetOuDefaut(pc_CsCible);

    // ASCII text between two of those character sets is copied as iconv
    // would write it (cut at size - 1 bytes), without opening a converter:
    // the first iconv_open of a process maps the converter cache and loads a
    // module of the C library, which costs more than the whole header
    // rewriting of a message whose display name is plain ASCII.
    if (TexteAscii(pc_Source) && SurensembleAscii(pc_CsSource) && SurensembleAscii(pc_CsCible)) {
        CopieBornee(pc_Sortie, pc_Source, t_Taille);
        return pc_Sortie;
    }

    iconv_t cd = iconv_open(pc_CsCible, pc_CsSource);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_AVERTISSEMENT, st.pc_Ouverture, pc_CsSource, pc_CsCible, i_Err,
                         strerror(i_Err), gPc_InfoMessEnCours);
        if (!st.b_CopieSiEchec) return nullptr;
        CopieBornee(pc_Sortie, pc_Source, t_Taille);
        return pc_Sortie;
    }

    char *pc_Entree = const_cast<char *>(pc_Source);  // iconv does not write the input
    std::size_t t_Entree = strlen(pc_Source);
    char *pc_Ecrit = pc_Sortie;
    std::size_t t_Place = t_Taille - 1;
    std::size_t t_Res = iconv(cd, &pc_Entree, &t_Entree, &pc_Ecrit, &t_Place);
    if (t_Res == static_cast<std::size_t>(-1) && errno != E2BIG) {
        int i_Err = errno;
        iconv_close(cd);
        TraitementErreur(NIVEAU_AVERTISSEMENT, st.pc_Conversion, pc_Source, pc_CsSource,
                         pc_CsCible, i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        if (!st.b_CopieSiEchec) return nullptr;
        CopieBornee(pc_Sortie, pc_Source, t_Taille);
        return pc_Sortie;
    }
    // A stateful target (ISO-2022-*) returns to its initial state, room
    // permitting.
    if (t_Res != static_cast<std::size_t>(-1)) iconv(cd, nullptr, nullptr, &pc_Ecrit, &t_Place);
    *pc_Ecrit = '\0';
    iconv_close(cd);
    return pc_Sortie;
}

// One row of the fold table: the bytes that become its letter.
struct LigneTranslitteration {
    char c_Lettre;
    const char *pc_Octets;
};
const LigneTranslitteration st_Translitteration[] = {
    {'a', "\xE0\xE2\xE4\xC0\xC1\xC2"},
    {'e', "\xE9\xE8\xEA\xEB\x80\xC9\xC8\xCA\xCB"},
    {'y', "\xFD"},
    {'u', "\xFB\xFC\xF9\xD9\xDA\xDB"},
    {'i', "\xEE\xEF"},
    {'o', "\xF4\xD6\xD4"},
    {'c', "\xE7\xC7"},
};

// The copy shared by Deplie and DeQuotte.
char *CopieNettoyee(const char *pc_Source, char *pc_Sortie, std::size_t t_Taille, bool b_Guillemets) {
    if (t_Taille == 0) return pc_Sortie;
    std::size_t w = 0;
    const char *p = pc_Source != nullptr ? pc_Source : "";
    while (*p != '\0' && w + 1 < t_Taille) {
        if (*p == '\n') {
            // The line break and what precedes the continuation's blank go.
            while (*p != '\0' && *p != ' ' && *p != '\t') p++;
            if (*p == '\0') break;
            pc_Sortie[w++] = *p++;
            continue;
        }
        if (b_Guillemets && *p == '"') {
            p++;
            continue;
        }
        if (b_Guillemets && *p == '\\') {
            p++;
            if (*p != '\0') p++;
            continue;
        }
        pc_Sortie[w++] = *p++;
    }
    pc_Sortie[w] = '\0';
    return pc_Sortie;
}

}  // namespace

// Converts, or copies the source unchanged on failure.
char *conv_jc(const char *pc_Source, const char *pc_CharsetSource, char *pc_Sortie,
              const char *pc_CharsetCible, std::size_t t_Taille) {
    return Convertit(pc_Source, pc_CharsetSource, pc_Sortie, pc_CharsetCible, t_Taille, st_ConvJc);
}

// Converts, or returns null on failure (the buffer is then not to be used).
char *conv_jc2(const char *pc_Source, const char *pc_CharsetSource, char *pc_Sortie,
               const char *pc_CharsetCible, std::size_t t_Taille) {
    return Convertit(pc_Source, pc_CharsetSource, pc_Sortie, pc_CharsetCible, t_Taille,
                     st_ConvJc2);
}

// Folds ISO-8859-1 text to 7-bit ASCII in place.
char *conv_Iso8859_Ascii7(char *pc_Texte) {
    if (pc_Texte == nullptr) return nullptr;
    for (char *p = pc_Texte; *p != '\0'; p++) {
        if (static_cast<unsigned char>(*p) < 0x80) continue;
        char c_Remplace = '?';
        for (const LigneTranslitteration &st : st_Translitteration)
            if (strchr(st.pc_Octets, *p) != nullptr) {
                c_Remplace = st.c_Lettre;
                break;
            }
        *p = c_Remplace;
    }
    return pc_Texte;
}

// Unfolds a header value onto one line.
char *Deplie(const char *pc_Source, char *pc_Sortie, std::size_t t_Taille) {
    return CopieNettoyee(pc_Source, pc_Sortie, t_Taille, false);
}

// Unfolds and removes double quotes and quoted pairs.
char *DeQuotte(const char *pc_Source, char *pc_Sortie, std::size_t t_Taille) {
    return CopieNettoyee(pc_Source, pc_Sortie, t_Taille, true);
}
