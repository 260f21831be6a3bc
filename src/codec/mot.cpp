// mot.cpp - encoded words of header values, decoding and encoding.
//
// DecodeQP turns "=?charset?Q|B?text?=" words into the target charset and
// copies the text between them unchanged; white space between two adjacent
// words disappears.  A malformed value is reported at level 4 (2414, 2421,
// 2428; 2457 and 2467 for conversion failures) and copied unchanged; only a
// failed word-buffer allocation (2443) ends the run.  The value itself is
// never written.  EncodeQP writes a value holding bytes of 0x80 or more as Q
// words folded by "?=\n\t"; it reports nothing.  See codec.h.
#include "codec/codec.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iconv.h>
#include <strings.h>

#include "message/message.h"
#include "report/report.h"
#include "socle.h"

namespace {

constexpr const char *PC_CHARSET_DEFAUT = "ISO-8859-1";
constexpr const char *PC_BLANCS_ENTRE_MOTS = " \t\r\n";
// Headroom checked before each opening and each encoded character.
constexpr int MARGE_ENCODAGE = 16;

// Outcome of decoding one encoded word.
enum class Mot { Decode, ErreurFormat2414, ErreurFormat2421, ErreurFormat2428, EchecConversion };

// State of one DecodeQP call: the output and the room left in it.
struct Decodage {
    const char *pc_Valeur;
    const char *pc_Cible;
    char *pc_Ecrit;
    std::size_t t_Reste;
};

// Converts one word's decoded bytes into the output; false on a failure that
// calls for the unchanged copy (already reported).
bool ConvertitMot(Decodage *pst, const char *pc_Charset, char *pc_Decode) {
    iconv_t cd = iconv_open(pst->pc_Cible, pc_Charset);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/2457: Erreur iconv_open(<%s>,<%s>), errno=%d (%s). %s",
                         pst->pc_Cible, pc_Charset, i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        return false;
    }
    char *pc_Entree = pc_Decode;
    std::size_t t_Entree = strlen(pc_Decode);
    std::size_t t_Res = iconv(cd, &pc_Entree, &t_Entree, &pst->pc_Ecrit, &pst->t_Reste);
    if (t_Res == static_cast<std::size_t>(-1) && errno != E2BIG) {
        int i_Err = errno;
        iconv_close(cd);
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/2467: Erreur iconv <%s> de <%s> vers <%s>, errno=%d (%s). %s",
                         pc_Entree, pc_Charset, pst->pc_Cible, i_Err, strerror(i_Err),
                         gPc_InfoMessEnCours);
        return false;
    }
    // A stateful target returns to its initial state, room permitting.
    if (t_Res != static_cast<std::size_t>(-1))
        iconv(cd, nullptr, nullptr, &pst->pc_Ecrit, &pst->t_Reste);
    iconv_close(cd);
    return true;
}

// Decodes the encoded word at pc_Mot ("=?..."); leaves in *ppc_Suite the
// position right after its "?=".
Mot DecodeMot(Decodage *pst, const char *pc_Mot, const char **ppc_Suite) {
    // Charset, up to the first "?" after "=?", cut to 31 characters; an
    // empty name is ISO-8859-1, as everywhere else.
    const char *pc_Charset = pc_Mot + 2;
    const char *pc_Q1 = strchr(pc_Charset, '?');
    if (pc_Q1 == nullptr) return Mot::ErreurFormat2414;
    char pc_NomCharset[TAILLE_CHARSET];
    std::size_t t_Nom = std::min<std::size_t>(static_cast<std::size_t>(pc_Q1 - pc_Charset),
                                              TAILLE_CHARSET - 1);
    memcpy(pc_NomCharset, pc_Charset, t_Nom);
    pc_NomCharset[t_Nom] = '\0';
    if (t_Nom == 0) memcpy(pc_NomCharset, PC_CHARSET_DEFAUT, strlen(PC_CHARSET_DEFAUT) + 1);

    // Encoding letter, followed by "?".
    char c_Lettre = static_cast<char>(toupper(static_cast<unsigned char>(pc_Q1[1])));
    if (pc_Q1[1] == '\0' || pc_Q1[2] != '?' || (c_Lettre != 'Q' && c_Lettre != 'B'))
        return Mot::ErreurFormat2421;

    // Encoded text, up to the first "?=".
    const char *pc_Texte = pc_Q1 + 3;
    const char *pc_Fin = strstr(pc_Texte, "?=");
    if (pc_Fin == nullptr) return Mot::ErreurFormat2428;
    std::size_t t_Texte = static_cast<std::size_t>(pc_Fin - pc_Texte);

    // The encoded text alone, then its decoded bytes.
    std::size_t t_Tampon = t_Texte + 32;
    char *pc_Tampon = static_cast<char *>(malloc(2 * t_Tampon));
    if (pc_Tampon == nullptr) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/2443: Erreur malloc, errno=%d (%s). %s", i_Err,
                         strerror(i_Err), gPc_InfoMessEnCours);
        return Mot::EchecConversion;
    }
    char *pc_Code = pc_Tampon + t_Tampon;
    memcpy(pc_Code, pc_Texte, t_Texte);
    pc_Code[t_Texte] = '\0';
    if (c_Lettre == 'Q')
        DecodeCodageQ(pc_Code, pc_Tampon, t_Tampon);
    else
        DecodeBase64(pc_Code, pc_Tampon, t_Tampon);
    *ppc_Suite = pc_Fin + 2;

    bool b_Ok = ConvertitMot(pst, pc_NomCharset, pc_Tampon);
    free(pc_Tampon);
    return b_Ok ? Mot::Decode : Mot::EchecConversion;
}

// The value copied unchanged from the output's start, bounded by the room
// left (this copy is not folded to ASCII).
void CopieInchangee(Decodage *pst, char *pc_Sortie) {
    CopieBornee(pc_Sortie, pst->pc_Valeur, std::max<std::size_t>(pst->t_Reste, 1));
}

// Number of bytes that form the cut unit at the position: the byte and the
// run of bytes of 0x80 or more right after it.
int LongueurUnite(const unsigned char *p) {
    int i = 1;
    while (p[i] >= 0x80) i++;
    return i;
}

// Bytes of the character that starts at the position: in UTF-8 a lead byte
// and the continuation bytes that follow it (at most three), else one.
int LongueurCaractere(const unsigned char *p, bool b_Utf8) {
    int i = 1;
    if (b_Utf8 && *p >= 0xC0)
        while (i < 4 && p[i] >= 0x80 && p[i] <= 0xBF) i++;
    return i;
}

// True when the whole character at the position still fits once written
// from w: each of its bytes passes the headroom check, so a word is never
// closed for lack of room between the bytes of one character.
bool TientEntier(const unsigned char *p, int w, int i_Taille, bool b_Utf8) {
    return w + 3 * (LongueurCaractere(p, b_Utf8) - 1) + MARGE_ENCODAGE < i_Taille;
}

// Writes one byte of the value in Q form; returns the columns it takes.
int EncodeOctet(unsigned char c, char *pc_Ecrit, int *pi_Ecrit) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) {
        pc_Ecrit[(*pi_Ecrit)++] = static_cast<char>(c);
        return 1;
    }
    if (c == ' ') {
        pc_Ecrit[(*pi_Ecrit)++] = '_';
        return 1;
    }
    static const char pc_Hexa[] = "0123456789ABCDEF";
    pc_Ecrit[(*pi_Ecrit)++] = '=';
    pc_Ecrit[(*pi_Ecrit)++] = pc_Hexa[c >> 4];
    pc_Ecrit[(*pi_Ecrit)++] = pc_Hexa[c & 0x0F];
    return 3;
}

}  // namespace

// 1 when the value holds "=?".
int DecodageQPNecessaire(const char *pc_Valeur) {
    return pc_Valeur != nullptr && strstr(pc_Valeur, "=?") != nullptr ? 1 : 0;
}

// Decodes the encoded words of a header value into the target charset.
char *DecodeQP(const char *pc_Valeur, const char *pc_Charset, char *pc_Sortie,
               std::size_t t_Taille) {
    if (t_Taille == 0) return pc_Sortie;

    // 1. No encoded word: copied and folded to ASCII.
    if (!DecodageQPNecessaire(pc_Valeur)) {
        CopieBornee(pc_Sortie, pc_Valeur, t_Taille);
        return conv_Iso8859_Ascii7(pc_Sortie);
    }

    // 2-3. Empty output, room for all but the NUL.
    pc_Sortie[0] = '\0';
    if (t_Taille <= 1) return pc_Sortie;
    Decodage st = {pc_Valeur,
                   pc_Charset == nullptr || pc_Charset[0] == '\0' ? PC_CHARSET_DEFAUT : pc_Charset,
                   pc_Sortie, t_Taille - 1};

    // 4. Plain bytes as they are, encoded words decoded.
    const char *p = pc_Valeur;
    while (*p != '\0' && st.t_Reste != 0) {
        if (p[0] != '=' || p[1] != '?') {
            *st.pc_Ecrit++ = *p++;
            st.t_Reste--;
            continue;
        }
        const char *pc_Suite = nullptr;
        Mot e_Mot = DecodeMot(&st, p, &pc_Suite);
        if (e_Mot != Mot::Decode) {
            // 6. Format errors are reported here; conversion failures were.
            const char *pc_Format = nullptr;
            if (e_Mot == Mot::ErreurFormat2414) pc_Format = "v1.1.0/2414: Mauvais format <%s>. %s";
            if (e_Mot == Mot::ErreurFormat2421) pc_Format = "v1.1.0/2421: Mauvais format <%s>. %s";
            if (e_Mot == Mot::ErreurFormat2428) pc_Format = "v1.1.0/2428: Mauvais format <%s>. %s";
            if (pc_Format != nullptr)
                TraitementErreur(NIVEAU_AVERTISSEMENT, pc_Format, pc_Valeur, gPc_InfoMessEnCours);
            CopieInchangee(&st, pc_Sortie);
            return pc_Sortie;
        }
        // White space between two adjacent words disappears.
        const char *pc_Apres = pc_Suite + strspn(pc_Suite, PC_BLANCS_ENTRE_MOTS);
        p = pc_Apres[0] == '=' && pc_Apres[1] == '?' ? pc_Apres : pc_Suite;
    }

    // 5. Terminate.
    *st.pc_Ecrit = '\0';
    return pc_Sortie;
}

// The first byte of 0x80 or more as a negative value, or 0.
int CodageQPNecessaire(const char *pc_Valeur) {
    if (pc_Valeur == nullptr) return 0;
    for (const char *p = pc_Valeur; *p != '\0'; p++)
        if (static_cast<unsigned char>(*p) >= 0x80) return static_cast<signed char>(*p);
    return 0;
}

// 1 when the current word must be closed before the position.
int yfautcouper(const char *pc_Position, int i_Compteur) {
    const unsigned char *p = reinterpret_cast<const unsigned char *>(pc_Position);
    if (*p == '\0') return 0;
    if (i_Compteur + LongueurUnite(p) <= COLONNES_MOT_ENCODE) return 0;
    return *p < 0x80 ? 1 : 0;
}

// Encodes a value as folded Q words in the named charset.
//
// Two bounds beyond the cut rule: a word always takes at least its first
// unit, whatever the counter (otherwise a unit longer than a line, such as
// a blank followed by thirty Cyrillic letters, would yield nothing but empty
// words until the output is full); and an opening is written only when it
// fits with its closing and the NUL, so a charset name longer than 7
// characters can never make the output pass its size: near the limit the
// last word is left out instead.
char *EncodeQP(const char *pc_Valeur, const char *pc_Charset, char *pc_Sortie, int i_Taille) {
    if (i_Taille <= 0) return pc_Sortie;

    // 1. Nothing to encode.
    if (!CodageQPNecessaire(pc_Valeur)) {
        _strncpy(pc_Sortie, pc_Valeur, static_cast<std::uint32_t>(i_Taille));
        return conv_Iso8859_Ascii7(pc_Sortie);
    }

    // 2. Default charset.
    if (pc_Charset == nullptr || pc_Charset[0] == '\0') pc_Charset = PC_CHARSET_DEFAUT;
    std::size_t t_Charset = strlen(pc_Charset);
    int i_Ouverture = t_Charset < static_cast<std::size_t>(i_Taille)
                          ? static_cast<int>(t_Charset) + 5
                          : i_Taille;  // cannot fit

    // 3. Words while room is left.  In UTF-8 the room is counted in whole
    // characters: the bytes of the character that does not fit are dropped
    // with it, never its lead byte alone (a word holding part of a character
    // does not decode).
    const bool b_Utf8 = strcasecmp(pc_Charset, "UTF-8") == 0 || strcasecmp(pc_Charset, "UTF8") == 0;
    const unsigned char *p = reinterpret_cast<const unsigned char *>(pc_Valeur);
    int w = 0;
    bool b_Plein = false;
    pc_Sortie[0] = '\0';
    while (*p != '\0' && !b_Plein && w + MARGE_ENCODAGE < i_Taille &&
           w + i_Ouverture + 5 <= i_Taille && TientEntier(p, w + i_Ouverture, i_Taille, b_Utf8)) {
        // Opening "=?charset?Q?".
        pc_Sortie[w++] = '=';
        pc_Sortie[w++] = '?';
        memcpy(pc_Sortie + w, pc_Charset, t_Charset);
        w += static_cast<int>(t_Charset);
        memcpy(pc_Sortie + w, "?Q?", 3);
        w += 3;
        int i_Compteur = i_Ouverture + 5;

        // Characters up to the cut or the end of the room.
        bool b_Premier = true;
        while (*p != '\0' &&
               (b_Premier || !yfautcouper(reinterpret_cast<const char *>(p), i_Compteur))) {
            if (!TientEntier(p, w, i_Taille, b_Utf8)) {
                b_Plein = true;
                break;
            }
            for (int i = LongueurCaractere(p, b_Utf8); i > 0; i--, p++)
                i_Compteur += EncodeOctet(*p, pc_Sortie, &w);
            b_Premier = false;
        }

        // Closing, with a continuation line when bytes are left.
        const char *pc_Fermeture = *p != '\0' ? "?=\n\t" : "?=";
        std::size_t t_Fermeture = strlen(pc_Fermeture);
        memcpy(pc_Sortie + w, pc_Fermeture, t_Fermeture + 1);
        w += static_cast<int>(t_Fermeture);
    }
    return pc_Sortie;
}
