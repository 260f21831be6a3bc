// directory.h - the LDAP directory: connection, single-entry lookups, value
// access, list expansion.
//
// One directory session per process, gld, opened once after the header is
// read and closed after the last recipient.  Lookups are synchronous subtree
// searches below the empty base (the server's default search base) that must
// find at most one entry; the values of a fixed attribute list are copied into
// a value table parallel to that list.
//
// Operations
//   ldapConnect(hosts)        bound session; retries every gi_PasReessaiLdap s
//                             for gi_DureeReessaiLdap s, then level 2 (2576);
//                             one attempt in the explain form.  Never
//                             returns null.
//   _ldapConnect(hosts)       one attempt: session or null (levels 4 below).
//   ldapClose(&ld)            unbinds a non-null session; ld becomes null.
//   RecupUneEntreeLdap(ld, filter, attributes, table)
//                             number of entries: 0 (every slot null) or 1
//                             (slots filled); otherwise the run ends (a
//                             closed session is a search error, 2604).
//   i_IndiceAttr, tpc_ValeursLdap, pc_ValeurLdap
//                             slot of a name, its value list, one value.
//   RecupValeurTableau(values, prefix)
//                             rest of the first value that begins with the
//                             prefix (any case), blanks skipped; "" if none.
//   LibereValeursLdap(values) releases one value list (one free).
//   EchappeValeurLdap(value, buf, size)
//                             the value with "*", "(", ")", "\\" written as
//                             \XX escapes; its length, or -1 when it does not
//                             fit (never truncated).
//   ConstruitFiltreLdap(buf, size, attribute, value)
//                             "(attribute=value)" with the value escaped for
//                             filter syntax; -1, buffer emptied, when it does
//                             not fit (never truncated).  Filters of the
//                             program use TAILLE_FILTRE (320) bytes; the
//                             attribute is the program's own, put as is.
//   ConstruitUrisLdap(hosts, buf, size)
//                             "host host:port,..." into "ldap://host:389,...";
//                             number of hosts, or -1 (empty, bad host, too long).
//   ExploseMembres(members)   new address list, nested lists expanded
//                             breadth-first (placeholder ""), at most 300.
//                             The caller may free the array; the nested
//                             lists' values it points into are left to the
//                             end of the process.
//   UniciteMembres(list)      sorts (any case) and drops duplicates in place.
//
// Value lists are null-terminated arrays of NUL-terminated strings in one
// allocation each; release them with LibereValeursLdap (never free the
// strings one by one).  A value holding a NUL byte ends at that byte.
//
// Messages
//   level 4  2542 ldap_open, 2548 ldap_set_option, 2556 bind (one attempt)
//   syslog   2570 retry line, 2558 a host of the list passed over, 2606 a
//            referral URL not followed (LOG_WARNING)
//   level 2  2576 no connection in the retry window, 2604 search error or
//            time-out, 2610 counted entry missing, 2612 values not copied,
//            3381 malloc, 3402 realloc
//   level 3  2618 more than one entry, 3395 more than 300 nested lists
//   level 4  3388 member address too long for a filter (kept as it is)
//
// Limits: network and operation time-out gi_DelaiReseauLdap (10 s) per
// attempt and per search, on each server a referral leads to; at most 5
// referrals one after the other (2606 for each URL not followed).
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <ldap.h>

// The session of the run; null while closed.
extern LDAP *gld;

// Attribute lists: recipient, sender, list member; null-terminated.
constexpr int NB_ATTR_LDAP_DEST = 9;
constexpr int NB_ATTR_LDAP_EMET = 2;
constexpr int NB_ATTR_LDAP_LISTEM = 2;
extern const char *const gtpc_AttrLdapDest[NB_ATTR_LDAP_DEST + 1];
extern const char *const gtpc_AttrLdapEmet[NB_ATTR_LDAP_EMET + 1];
extern const char *const gtpc_AttrLdapListeM[NB_ATTR_LDAP_LISTEM + 1];

// Maximum number of nested lists expanded for one list.
constexpr int NB_MAX_LISTES_IMBRIQUEES = 300;

// Opens a bound session on the first reachable host, retrying; never null.
LDAP *ldapConnect(const char *pc_Hotes);
// One connection attempt: bound session, or null after a level-4 report.
LDAP *_ldapConnect(const char *pc_Hotes);
// Unbinds the session if open and sets the handle to null.
void ldapClose(LDAP **ppld);

// One search over the whole directory, referrals included: every result
// received, with the session it came from (the run's, or one kept to follow
// referrals), released with the record; and the parts of the tree asked
// through referrals ("ldap://host:port/dn", lower case), true once answered.
struct RechercheLdap {
    std::vector<std::pair<LDAP *, LDAPMessage *>> v_Resultats;
    std::vector<std::pair<std::string, bool>> v_Parties;
    RechercheLdap() = default;
    RechercheLdap(const RechercheLdap &) = delete;
    RechercheLdap &operator=(const RechercheLdap &) = delete;
    ~RechercheLdap();
};
// Subtree search below the base, referrals followed; LDAP_SUCCESS when every
// part of the tree answered, otherwise the failing code.
int ChercheLdap(LDAP *ld, const char *pc_Base, const char *pc_Filtre, char **tpc_Attr,
                RechercheLdap *pst);
// Entries received by a search.
int NbEntreesLdap(const RechercheLdap *pst);

// Looks up the one entry matching the filter; see the unit's heading.
int RecupUneEntreeLdap(LDAP *ld, const char *pc_Filtre, const char *const *tpc_Attr,
                       char ***ttpc_Valeurs);

// Index of the name in the list, or the number of names when absent.
int i_IndiceAttr(const char *const *tpc_Attr, const char *pc_Nom);
// Value list of the named attribute, or null.
char **tpc_ValeursLdap(const char *const *tpc_Attr, char **const *ttpc_Valeurs, const char *pc_Nom);
// Value i_Indice of the named attribute, or null when it has no values.
char *pc_ValeurLdap(const char *const *tpc_Attr, char **const *ttpc_Valeurs, const char *pc_Nom,
                    int i_Indice);
// Rest of the first value beginning with the prefix, or ""; never null.
const char *RecupValeurTableau(char *const *tpc_Valeurs, const char *pc_Prefixe);
// Releases a value list (null is accepted).
void LibereValeursLdap(char **tpc_Valeurs);

// Escapes a value for a filter ("*", "(", ")", "\\" as \XX); its length, or
// -1 when it does not fit.
int EchappeValeurLdap(const char *pc_Valeur, char *pc_Sortie, std::size_t t_Taille);
// Builds an equality filter with the value escaped; 0, or -1 when too long.
int ConstruitFiltreLdap(char *pc_Filtre, std::size_t t_Taille, const char *pc_Attr,
                        const char *pc_Valeur);
// Turns the host list into a comma-separated ldap:// URI list; host count or -1.
int ConstruitUrisLdap(const char *pc_Hotes, char *pc_Uris, std::size_t t_Taille);

// Expands nested lists of a member list into a new array (caller owns it).
char **ExploseMembres(char **tpc_Membres);
// Sorts the list ignoring case and keeps one entry of each address.
void UniciteMembres(char **tpc_Liste);
