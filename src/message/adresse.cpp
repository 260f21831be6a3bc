// adresse.cpp - FetchAddress: split the first element of an address header
// value into the bare address and the phrase (display name and comments).
//
// A hand-written scanner: double quotes, backslash escapes, parenthesised
// comments, angle brackets and the element-ending comma, nothing else (no
// group syntax).  Returns the position just after the comma that ended the
// element, or the terminating NUL.  Both outputs are always written and
// always terminated; a result that does not fit its buffer is refused:
//   871  work texts cannot be allocated (level 2)
//   958  address longer than its buffer (level 3)
//   972  phrase longer than its buffer, at a folded blank (level 3)
//   979  phrase longer than its buffer, at any other character (level 3)
//
// EcritAdresse is the other direction: it writes an address between the
// angle brackets of a header line the program composes (From, Reply-to, the
// trace header) so that a reader finds there exactly that one address.  The
// address first goes through EpureControles (control bytes become blanks).
// An ordinary address is written as it is: a local part made of atom
// characters, dots, 8-bit bytes and closed quoted parts, then "@" and a
// domain made of atom characters, dots and 8-bit bytes, or one domain
// literal; an address without "@" is ordinary when all of it is such a
// local part.  Any other address, which FetchAddress can yield from escaped
// or quoted characters ("a\>\,\ b@x", an unclosed quote), has what comes
// before its last "@" written as one quoted string, quotes and backslashes
// escaped, when what follows that "@" is an ordinary domain; otherwise the
// whole address is one quoted string.  So no "<", ">", ",", blank, comment
// or second "@" of the address is ever read outside a quoted part.  The
// output needs at most 2 x length + 3 bytes; a smaller buffer gets the
// empty text and -1.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "message/message.h"
#include "report/report.h"
#include "socle.h"

namespace {

// Space, tab, carriage return, line feed.
bool EstBlanc(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// A backslash escapes the next character unless that is the NUL.
bool EstEchappement(const char *pc) { return pc[0] == '\\' && pc[1] != '\0'; }

// Decides the form: true when a "<" comes, outside quotes, before any ",".
// Comments are not tracked here.
bool EstEntreChevrons(const char *pc) {
    bool b_Guillemets = false;
    for (; *pc != '\0'; pc++) {
        if (EstEchappement(pc)) {
            pc++;
            continue;
        }
        if (*pc == '"') b_Guillemets = !b_Guillemets;
        else if (!b_Guillemets && *pc == '<') return true;
        else if (!b_Guillemets && *pc == ',') return false;
    }
    return false;
}

// The two work texts of the split, each as large as the source.
struct Travail {
    char *pc_Adresse;
    std::size_t t_Adresse;
    char *pc_Phrase;
    std::size_t t_Phrase;
};

// Splits the element into the work texts; returns where the split stopped.
const char *Decoupe(const char *pc, bool b_Chevrons, Travail *pst) {
    bool b_Guillemets = false;
    int i_Commentaire = 0;
    int i_Chevrons = 0;
    // Routes one character to the address (a blank keeps its place in the
    // phrase) or to the phrase.
    auto Route = [&](char c) {
        if ((b_Chevrons && i_Chevrons != 0) || (!b_Chevrons && i_Commentaire == 0)) {
            pst->pc_Adresse[pst->t_Adresse++] = c;
            pst->pc_Phrase[pst->t_Phrase++] = ' ';
        } else {
            pst->pc_Phrase[pst->t_Phrase++] = c;
        }
    };
    for (; *pc != '\0'; pc++) {
        switch (*pc) {
        case '(':
        case ')':
            if (!b_Guillemets) i_Commentaire += *pc == '(' ? 1 : -1;
            pst->pc_Phrase[pst->t_Phrase++] = *pc;
            break;
        case '"':
            b_Guillemets = !b_Guillemets;
            Route(*pc);
            break;
        case '<':
        case '>':
            if (b_Chevrons && i_Commentaire == 0 && !b_Guillemets)
                i_Chevrons += *pc == '<' ? 1 : -1;
            else
                pst->pc_Phrase[pst->t_Phrase++] = *pc;
            break;
        case ',':
            if (i_Commentaire == 0 && !b_Guillemets) return pc + 1;
            Route(*pc);
            break;
        default:
            Route(*pc);
            if (EstEchappement(pc)) Route(*++pc);
            break;
        }
    }
    return pc;
}

// Copies the address work text: escapes resolved, blanks outside quotes
// dropped.
void CopieAdresse(const char *pc_Source, const char *pc, char *pc_Sortie, std::size_t t_Taille) {
    bool b_Guillemets = false;
    std::size_t t_Reste = t_Taille;
    std::size_t n = 0;
    for (; *pc != '\0'; pc++) {
        char c = *pc;
        if (EstEchappement(pc)) {
            c = *++pc;
        } else if (c == '"') {
            b_Guillemets = !b_Guillemets;
        } else if (!b_Guillemets && EstBlanc(c)) {
            continue;
        }
        if (--t_Reste == 0) {
            pc_Sortie[n] = '\0';
            TraitementErreur(NIVEAU_ERREUR, "v1.1.0/958: Buffer adresse trop petit (%s). %s",
                             pc_Source, gPc_InfoMessEnCours);
            return;
        }
        pc_Sortie[n++] = c;
    }
    pc_Sortie[n] = '\0';
}

// Copies the phrase work text: leading blanks skipped, each run of blanks
// folded into one space, trailing blanks removed; escapes kept as they are.
void CopiePhrase(const char *pc_Source, const char *pc, char *pc_Sortie, std::size_t t_Taille) {
    std::size_t t_Reste = t_Taille;
    std::size_t n = 0;
    while (EstBlanc(*pc)) pc++;
    for (; *pc != '\0'; pc++) {
        bool b_Blanc = EstBlanc(*pc);
        if (b_Blanc) {
            while (EstBlanc(pc[1])) pc++;
        }
        if (--t_Reste == 0) {
            pc_Sortie[n] = '\0';
            if (b_Blanc)
                TraitementErreur(NIVEAU_ERREUR, "v1.1.0/972: Buffer phrase trop petit (%s). %s",
                                 pc_Source, gPc_InfoMessEnCours);
            else
                TraitementErreur(NIVEAU_ERREUR, "v1.1.0/979: Buffer phrase trop petit (%s). %s",
                                 pc_Source, gPc_InfoMessEnCours);
            return;
        }
        pc_Sortie[n++] = b_Blanc ? ' ' : *pc;
    }
    while (n > 0 && EstBlanc(pc_Sortie[n - 1])) n--;
    pc_Sortie[n] = '\0';
}

// A phrase that is one trailing comment, "(Name)", becomes "\"Name\"".
void CommentaireEnNom(char *pc_Phrase) {
    std::size_t t_Long = strlen(pc_Phrase);
    if (t_Long < 2 || pc_Phrase[0] != '(' || pc_Phrase[t_Long - 1] != ')') return;
    if (strchr(pc_Phrase + 1, '(') != nullptr) return;
    pc_Phrase[0] = '"';
    pc_Phrase[t_Long - 1] = '"';
}

// Atom characters of an address (RFC 5322 atext), and 8-bit bytes, which
// are kept as they are.
bool EstAtome(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c >= 0x80 || (c != '\0' && strchr("!#$%&'*+-/=?^_`{|}~", c) != nullptr);
}

// A local part that can be written as it is: not empty; atom characters and
// dots outside quotes; quoted parts closed, a backslash in them taking the
// next byte with it.
bool LocaleOrdinaire(const std::string &s) {
    if (s.empty()) return false;
    bool b_Guillemets = false;
    for (std::size_t i = 0; i < s.size(); i++) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (b_Guillemets) {
            if (c == '\\' && ++i >= s.size()) return false;
            else if (c == '"') b_Guillemets = false;
        } else if (c == '"') {
            b_Guillemets = true;
        } else if (c != '.' && !EstAtome(c)) {
            return false;
        }
    }
    return !b_Guillemets;
}

// A domain that can be written as it is: atom characters and dots, or one
// literal such as "[10.0.0.1]" or "[IPv6:2001:db8::1]" (atom characters,
// dots and colons between the brackets).
bool DomaineOrdinaire(const std::string &s) {
    bool b_Litteral = s.size() >= 2 && s.front() == '[' && s.back() == ']';
    std::string s_Corps = b_Litteral ? s.substr(1, s.size() - 2) : s;
    if (s_Corps.empty()) return false;
    for (char c : s_Corps)
        if (c != '.' && !(b_Litteral && c == ':') && !EstAtome(static_cast<unsigned char>(c)))
            return false;
    return true;
}

// Appends the text as one quoted string, quotes and backslashes escaped.
void AjouteGuillemets(std::string *ps, const std::string &s) {
    *ps += '"';
    for (char c : s) {
        if (c == '"' || c == '\\') *ps += '\\';
        *ps += c;
    }
    *ps += '"';
}

}  // namespace

// Writes an address for the angle brackets of a composed line; see the
// unit's heading.
int EcritAdresse(const char *pc_Adresse, char *pc_Sortie, std::size_t t_Taille) {
    if (t_Taille == 0) return -1;
    pc_Sortie[0] = '\0';
    std::string s_Adresse = pc_Adresse != nullptr ? pc_Adresse : "";
    EpureControles(s_Adresse.data(), 0);

    std::string s;
    std::size_t t_Arobase = s_Adresse.rfind('@');
    std::string s_Locale = s_Adresse.substr(0, t_Arobase);
    std::string s_Domaine =
        t_Arobase != std::string::npos ? s_Adresse.substr(t_Arobase + 1) : std::string();
    bool b_Domaine = t_Arobase != std::string::npos && DomaineOrdinaire(s_Domaine);
    if (s_Adresse.empty() || (LocaleOrdinaire(s_Locale) &&
                              (t_Arobase == std::string::npos || b_Domaine))) {
        s = s_Adresse;
    } else if (b_Domaine) {
        AjouteGuillemets(&s, s_Locale);
        s += '@';
        s += s_Domaine;
    } else {
        AjouteGuillemets(&s, s_Adresse);
    }

    if (s.size() >= t_Taille) return -1;
    memcpy(pc_Sortie, s.c_str(), s.size() + 1);
    return static_cast<int>(s.size());
}

// Splits the first element of the value; see the unit's heading.
const char *FetchAddress(const char *pc_Source, char *pc_Adresse, std::size_t t_TailleAdresse,
                         char *pc_Phrase, std::size_t t_TaillePhrase) {
    pc_Adresse[0] = '\0';
    pc_Phrase[0] = '\0';
    std::size_t t_Long = strlen(pc_Source);
    Travail st = {static_cast<char *>(malloc(t_Long + 1)), 0,
                  static_cast<char *>(malloc(t_Long + 1)), 0};
    if (st.pc_Adresse == nullptr || st.pc_Phrase == nullptr) {
        int i_Err = errno;
        free(st.pc_Adresse);
        free(st.pc_Phrase);
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/871: Erreur Malloc fetch_address, errno=%d (%s). %s",
                         i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        return pc_Source + t_Long;
    }

    // 1-2. Decide the form, then split into the work texts.
    const char *pc_Suite = Decoupe(pc_Source, EstEntreChevrons(pc_Source), &st);
    st.pc_Adresse[st.t_Adresse] = '\0';
    st.pc_Phrase[st.t_Phrase] = '\0';

    // 3-5. Address, phrase, and a lone comment taken as the display name.
    CopieAdresse(pc_Source, st.pc_Adresse, pc_Adresse, t_TailleAdresse);
    CopiePhrase(pc_Source, st.pc_Phrase, pc_Phrase, t_TaillePhrase);
    CommentaireEnNom(pc_Phrase);

    free(st.pc_Adresse);
    free(st.pc_Phrase);
    return pc_Suite;
}
