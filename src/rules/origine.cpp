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
    if (sppcre_Zones[i_Zone] == nullptr)
        sppcre_Zones[i_Zone] = CompileMotif(gtpc_MotifsZone[i_Zone], 3357);
    return sppcre_Zones[i_Zone];
}

}  // namespace

// 1 when one of the header's Received lines matches the pattern.
int VerifPassageZone(Entete *pet_Entete, const pcre2_code *pst_Motif) {
    for (Entete *pet = pet_Entete; pet != nullptr; pet = pet->pet_Suivant) {
        if (strncasecmp(pet->pc_Ligne, PC_RECEIVED, strlen(PC_RECEIVED)) != 0) continue;
        int i_Res = CorrespondMotif(pst_Motif, pet->pc_Ligne);
        if (i_Res == PCRE2_ERROR_NOMATCH) continue;
        if (i_Res >= 0) return 1;
        TraitementErreur(NIVEAU_ERREUR, "v1.1.0/3335: Erreur pcre_exec (cr=%d). %s", i_Res,
                         gPc_InfoMessEnCours);
        return 0;
    }
    return 0;
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
