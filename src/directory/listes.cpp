// listes.cpp - expansion of directory lists and removal of duplicates.
//
// ExploseMembres walks a list's member addresses breadth-first: every member
// is looked up by mail; a member whose delivery kind begins with "LISTE" is
// a nested list, whose members are appended to the array and whose own slot
// becomes the placeholder "".  At most NB_MAX_LISTES_IMBRIQUEES nested lists
// are expanded (a list that contains itself ends there, level 3, 3395).
// Addresses are never copied: the array points into the member values and
// into the value lists of the nested lists, which stay allocated.
// UniciteMembres sorts such an array ignoring case and keeps one entry of
// every address.
//
// Buffers: one filter of TAILLE_FILTRE (320) bytes per lookup.
// Messages: 3381 malloc (2), 3388 member too long for a filter (4),
// 3395 too many nested lists (3), 3402 realloc (2); lookups add 2604, 2610,
// 2612 (2) and 2618 (3).
#include "directory/directory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "message/message.h"
#include "report/report.h"
#include "socle.h"

namespace {

constexpr const char *PC_ATTR_MAIL = "mail";
constexpr const char *PC_PREFIXE_LISTE = "LISTE";

// The placeholder left in the slot of an expanded list.
char sPc_Vide[] = "";

// True when the member's entry is a list: its delivery kind begins with LISTE.
bool EstListe(char **const *ttpc_Valeurs) {
    const char *pc_Remise = pc_ValeurLdap(gtpc_AttrLdapListeM, ttpc_Valeurs, "ravokVixRemise", 0);
    return pc_Remise != nullptr &&
           strncasecmp(pc_Remise, PC_PREFIXE_LISTE, strlen(PC_PREFIXE_LISTE)) == 0;
}

// Releases every value list of a member's table.
void LibereTable(char ***ttpc_Valeurs) {
    for (int i = 0; i < NB_ATTR_LDAP_LISTEM; i++) {
        LibereValeursLdap(ttpc_Valeurs[i]);
        ttpc_Valeurs[i] = nullptr;
    }
}

}  // namespace

// Expands the nested lists of a member list; see the unit's heading.
char **ExploseMembres(char **tpc_Membres) {
    // 1. Copy of the member pointers.
    int i_Budget = NB_MAX_LISTES_IMBRIQUEES;
    std::size_t t_Nb = static_cast<std::size_t>(NblTableau(tpc_Membres));
    char **tpc_Liste = static_cast<char **>(malloc((t_Nb + 1) * sizeof(char *)));
    if (tpc_Liste == nullptr) {
        int i_Errno = errno;
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/3381: Erreur malloc, errno=%d (%s). %s", i_Errno,
                         strerror(i_Errno), gPc_InfoMessEnCours);
        return nullptr;
    }
    if (t_Nb > 0) memcpy(tpc_Liste, tpc_Membres, t_Nb * sizeof(char *));
    tpc_Liste[t_Nb] = nullptr;

    // 2. Walk the array as it grows.  Empty entries (placeholders, or an
    //    empty member value) name nobody and are not looked up.
    for (std::size_t i = 0; tpc_Liste[i] != nullptr; i++) {
        if (tpc_Liste[i][0] == '\0') continue;

        // 2.1 Lookup by mail.  An address too long for a filter cannot be
        //     a directory entry: it stays, as an outside address does.
        char pc_Filtre[TAILLE_FILTRE];
        if (ConstruitFiltreLdap(pc_Filtre, sizeof pc_Filtre, PC_ATTR_MAIL, tpc_Liste[i]) != 0) {
            TraitementErreur(NIVEAU_AVERTISSEMENT,
                             "v1.1.0/3388: Adresse de membre trop longue pour l'annuaire, gardee "
                             "telle quelle <%.64s...>. %s",
                             tpc_Liste[i], gPc_InfoMessEnCours);
            continue;
        }
        char **ttpc_Valeurs[NB_ATTR_LDAP_LISTEM] = {};
        if (RecupUneEntreeLdap(gld, pc_Filtre, gtpc_AttrLdapListeM, ttpc_Valeurs) != 1) continue;

        // 2.2 A member that is not a list stays.
        if (!EstListe(ttpc_Valeurs)) {
            LibereTable(ttpc_Valeurs);
            continue;
        }

        // 2.3 A nested list: counted against the budget even when empty.
        if (--i_Budget < 0) {
            LibereTable(ttpc_Valeurs);
            free(tpc_Liste);
            TraitementErreur(NIVEAU_ERREUR, "v1.1.0/3395: Trop de listes dans des listes (>%d). %s",
                             NB_MAX_LISTES_IMBRIQUEES, gPc_InfoMessEnCours);
            return nullptr;
        }
        char **tpc_Imbriques =
            tpc_ValeursLdap(gtpc_AttrLdapListeM, ttpc_Valeurs, "ravokVixMembres");
        std::size_t t_NbImbriques = static_cast<std::size_t>(NblTableau(tpc_Imbriques));
        if (t_NbImbriques == 0) {
            LibereTable(ttpc_Valeurs);
            continue;
        }

        // 2.4 Its members go to the end; its slot becomes the placeholder.
        //     The member values stay allocated: the array points into them.
        char **tpc_Nouvelle =
            static_cast<char **>(realloc(tpc_Liste, (t_Nb + t_NbImbriques + 1) * sizeof(char *)));
        if (tpc_Nouvelle == nullptr) {
            int i_Errno = errno;
            TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/3402: Erreur realloc, errno=%d (%s). %s",
                             i_Errno, strerror(i_Errno), gPc_InfoMessEnCours);
            return nullptr;
        }
        tpc_Liste = tpc_Nouvelle;
        memcpy(tpc_Liste + t_Nb, tpc_Imbriques, t_NbImbriques * sizeof(char *));
        t_Nb += t_NbImbriques;
        tpc_Liste[t_Nb] = nullptr;
        tpc_Liste[i] = sPc_Vide;
        LibereValeursLdap(ttpc_Valeurs[i_IndiceAttr(gtpc_AttrLdapListeM, "ravokVixRemise")]);
    }
    return tpc_Liste;
}

// Sorts the list ignoring case, then keeps the first entry of every run of
// equal addresses.
void UniciteMembres(char **tpc_Liste) {
    if (tpc_Liste == nullptr || tpc_Liste[0] == nullptr) return;
    TriTableau(tpc_Liste);
    std::size_t t_Garde = 0;
    for (std::size_t i = 1; tpc_Liste[i] != nullptr; i++)
        if (strcasecmp(tpc_Liste[i], tpc_Liste[t_Garde]) != 0) tpc_Liste[++t_Garde] = tpc_Liste[i];
    tpc_Liste[t_Garde + 1] = nullptr;
}
