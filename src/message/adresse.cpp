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
#include <cerrno>
#include <cstdlib>
#include <cstring>

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

}  // namespace

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
