// motifs.cpp - compiling and matching the program's regular expressions.
//
// Every pattern of the program (the sender address check, the origin zones,
// the syntax of rule lines, the PCRE tests of rule lines) is compiled
// case-insensitively and matched against a whole text from its start, with
// no options and no captured groups.  A pattern that does not compile is
// reported at level 3 with the caller's message number and kind:
// "v1.1.0/NNNN: Erreur pcre_compile <kind>/<pattern>/ (pos=%d, err=%s). %s".
#include "rules/rules.h"

#include <cstring>

#include "report/report.h"
#include "socle.h"

// Compiles the pattern (caseless); null after a level-3 report.
pcre2_code *CompileMotif(const char *pc_Motif, int i_Numero, const char *pc_Genre) {
    int i_Erreur = 0;
    PCRE2_SIZE t_Position = 0;
    pcre2_code *pst = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pc_Motif), PCRE2_ZERO_TERMINATED,
                                    PCRE2_CASELESS, &i_Erreur, &t_Position, nullptr);
    if (pst == nullptr) {
        PCRE2_UCHAR pc_Texte[256];
        pcre2_get_error_message(i_Erreur, pc_Texte, sizeof pc_Texte);
        TraitementErreur(NIVEAU_ERREUR, "v1.1.0/%d: Erreur pcre_compile %s/%s/ (pos=%d, err=%s). %s",
                         i_Numero, pc_Genre, pc_Motif, static_cast<int>(t_Position),
                         reinterpret_cast<char *>(pc_Texte), gPc_InfoMessEnCours);
    }
    return pst;
}

// Matches the compiled pattern on the whole text; pcre2_match's result.
int CorrespondMotif(const pcre2_code *pst_Motif, const char *pc_Texte) {
    // One match block for the process: nothing is captured.
    static pcre2_match_data *spst_Donnees = pcre2_match_data_create(1, nullptr);
    if (spst_Donnees == nullptr) return PCRE2_ERROR_NOMEMORY;
    return pcre2_match(pst_Motif, reinterpret_cast<PCRE2_SPTR>(pc_Texte), strlen(pc_Texte), 0, 0,
                       spst_Donnees, nullptr);
}
