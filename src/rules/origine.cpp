// origine.cpp - origin zone of a message (see rules.h).
//
// Each zone's pattern is compiled on first use and kept for the rest of the
// process: the patterns are build constants, so compiling them for every
// message would only cost time.  A pattern that does not compile is a fault
// of the build's site data and refuses the message at level 3 (3357); a
// matching error other than "no match" likewise (3335).
#include <cstring>
#include <strings.h>

#include "report/report.h"
#include "rules/rules.h"
#include "socle.h"

// Labels and marks of the zones, in row order; the last row is "no zone".
const char *const gtpc_LibelleZone[NB_ZONES] = {
    "par Internet",          "saisi depuis Internet", "par Olmar",
    "",                      "par mobile",            "par Trobine1",
    "par centre serveur C1", "par centre serveur C2", "par centre serveur C3",
    "par serveurs Kesta",    "par centre serveur C4", "par centre serveur C5",
    "par centre serveur C6", "par centre serveur C7", "par Brindol",
    "par serveur local interne", "par Intranet",      "",
};
const char *const gtpc_MarqueZone[NB_ZONES] = {
    "> ", "! ", "", "", "! ", "", "", "", "", "", "", "", "", "", "", "~", "", "",
};

namespace {

constexpr const char *PC_RECEIVED = "received:";

// Compiled patterns of the zones, built on first use.
pcre2_code *sppcre_Zones[NB_MOTIFS_ZONE] = {};

// The compiled pattern of a zone; refuses the message when it does not compile.
const pcre2_code *MotifZone(int i_Zone) {
    if (sppcre_Zones[i_Zone] != nullptr) return sppcre_Zones[i_Zone];
    const char *pc_Motif = gtpc_MotifsZone[i_Zone];
    int i_Erreur = 0;
    PCRE2_SIZE t_Position = 0;
    sppcre_Zones[i_Zone] =
        pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pc_Motif), PCRE2_ZERO_TERMINATED,
                      PCRE2_CASELESS, &i_Erreur, &t_Position, nullptr);
    if (sppcre_Zones[i_Zone] == nullptr) {
        PCRE2_UCHAR pc_Texte[256];
        pcre2_get_error_message(i_Erreur, pc_Texte, sizeof pc_Texte);
        TraitementErreur(NIVEAU_ERREUR, "v1.1.0/3357: Erreur pcre_compile /%s/ (pos=%d, err=%s). %s",
                         pc_Motif, static_cast<int>(t_Position),
                         reinterpret_cast<char *>(pc_Texte), gPc_InfoMessEnCours);
    }
    return sppcre_Zones[i_Zone];
}

}  // namespace

// 1 when one of the header's Received lines matches the pattern.
int VerifPassageZone(Entete *pet_Entete, const pcre2_code *pst_Motif) {
    pcre2_match_data *pst_Donnees = pcre2_match_data_create(1, nullptr);
    int i_Trouve = 0;
    for (Entete *pet = pet_Entete; pet != nullptr && !i_Trouve; pet = pet->pet_Suivant) {
        if (strncasecmp(pet->pc_Ligne, PC_RECEIVED, strlen(PC_RECEIVED)) != 0) continue;
        int i_Res = pcre2_match(pst_Motif, reinterpret_cast<PCRE2_SPTR>(pet->pc_Ligne),
                                strlen(pet->pc_Ligne), 0, 0, pst_Donnees, nullptr);
        if (i_Res == PCRE2_ERROR_NOMATCH) continue;
        if (i_Res >= 0) {
            i_Trouve = 1;
            continue;
        }
        pcre2_match_data_free(pst_Donnees);
        TraitementErreur(NIVEAU_ERREUR, "v1.1.0/3335: Erreur pcre_exec (cr=%d). %s", i_Res,
                         gPc_InfoMessEnCours);
        return 0;
    }
    pcre2_match_data_free(pst_Donnees);
    return i_Trouve;
}

// Index of the first zone whose pattern matches a Received line.
int ZoneOrigine(Entete *pet_Entete) {
    int i = 0;
    for (; i < NB_MOTIFS_ZONE && gtpc_MotifsZone[i] != nullptr; i++) {
        // A site that has no use for a row leaves its pattern empty: the row
        // then never matches (an empty expression would match every line).
        if (gtpc_MotifsZone[i][0] == '\0') continue;
        if (VerifPassageZone(pet_Entete, MotifZone(i))) break;
    }
    return i;
}
