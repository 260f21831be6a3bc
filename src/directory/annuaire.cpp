// annuaire.cpp - the directory session and single-entry lookups.
//
// ldapConnect / _ldapConnect open the process's one session: the host list
// of -l becomes a list of ldap:// URIs tried in order, each with protocol
// version 3, time-outs, an explicit connect and an anonymous simple bind,
// until one takes the bind.  ChercheLdap runs one subtree search and follows the
// referrals it meets; RecupUneEntreeLdap uses it below the empty base and
// copies the values of an attribute list into a value table; the accessors
// read that table by attribute name.
//
// Referrals are followed here, not by the library: a part of the directory
// that the library could not reach was left out of the result without a
// word (an existing recipient read as unknown, refused with a notice), and
// a referral to a server that answers with something other than LDAP made
// the library abort the process.  Each server a referral names gets one
// session for the run, with the run's session's options and an anonymous
// bind; a referral's URLs are alternatives, tried in order; a part of the
// tree is asked once per search; a part that none of its URLs answers fails
// the whole search, so the message is retried rather than misjudged.
//
// Buffers: URI list TAILLE_TEXTE (1024); filters are the callers'
// (TAILLE_FILTRE, 320), built by ConstruitFiltreLdap.
// Messages: see directory.h (2542 2548 2556 2570 2576 2604 2606 2610 2612
// 2618).
#include "directory/directory.h"

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sasl/sasl.h>
#include <string>
#include <strings.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "message/message.h"
#include "report/report.h"
#include "socle.h"

LDAP *gld = nullptr;

const char *const gtpc_AttrLdapDest[NB_ATTR_LDAP_DEST + 1] = {"uid",
                                                              "cn",
                                                              "ravokVixRemise",
                                                              "ravokVixReponse",
                                                              "ravokVixServeurPrincipal",
                                                              "ravokVixRestrictions",
                                                              "ravokVixMembres",
                                                              "info",
                                                              "ravokVixmailEmission",
                                                              nullptr};
const char *const gtpc_AttrLdapEmet[NB_ATTR_LDAP_EMET + 1] = {"cn", "objectClass", nullptr};
const char *const gtpc_AttrLdapListeM[NB_ATTR_LDAP_LISTEM + 1] = {"ravokVixMembres",
                                                                  "ravokVixRemise", nullptr};

namespace {

constexpr int VERSION_PROTOCOLE_LDAP = 3;
constexpr const char *PORT_LDAP_DEFAUT = "389";
constexpr const char *SCHEMA_URI_LDAP = "ldap://";
constexpr std::size_t LONGUEUR_MAX_PORT = 5;
constexpr long PORT_MAX = 65535;
constexpr int PORT_LDAP = 389;

// Referrals followed one after the other from one search, at most (the
// library's own limit): a loop of referrals ends there.
constexpr int PROFONDEUR_MAX_RENVOIS = 5;
// Bytes of a referral URL quoted in the log.
constexpr int TAILLE_CITATION_URL = 200;

// The sessions opened to follow referrals, by URI, kept for the run: a
// directory split over several servers costs one connection and bind per
// server, not one per search.  Only bound sessions are kept.
std::vector<std::pair<std::string, LDAP *>> gv_SessionsRenvoi;

// The empty text returned by RecupValeurTableau for "no such value".
const char PC_VIDE[] = "";

// True when the character separates hosts in a host list.
bool EstSeparateurHote(char c) { return c == ' ' || c == '\t' || c == ','; }

// True when the character may appear in a host name or dotted address.
bool EstCaractereHote(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '-' || c == '_';
}

// True when the character may appear inside the brackets of an IPv6 literal.
bool EstCaractereIpv6(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || c == ':' ||
           c == '.';
}

// Splits one host entry [pc, pc + t) into its host and port parts; false when
// the entry is not a host name, a dotted address or a bracketed IPv6 literal,
// optionally followed by ":port" (1 to 65535).
bool DecoupeHote(const char *pc, std::size_t t, std::size_t *pt_Hote, const char **ppc_Port,
                 std::size_t *pt_Port) {
    std::size_t i = 0;
    if (pc[0] == '[') {
        for (i = 1; i < t && pc[i] != ']'; i++)
            if (!EstCaractereIpv6(pc[i])) return false;
        if (i >= t || i == 1) return false;
        i++;
    } else {
        while (i < t && EstCaractereHote(pc[i])) i++;
        if (i == 0) return false;
    }
    *pt_Hote = i;
    if (i == t) {
        *ppc_Port = PORT_LDAP_DEFAUT;
        *pt_Port = strlen(PORT_LDAP_DEFAUT);
        return true;
    }
    if (pc[i] != ':') return false;
    const char *pc_Port = pc + i + 1;
    std::size_t t_Port = t - i - 1;
    if (t_Port == 0 || t_Port > LONGUEUR_MAX_PORT) return false;
    long l_Port = 0;
    for (std::size_t j = 0; j < t_Port; j++) {
        if (pc_Port[j] < '0' || pc_Port[j] > '9') return false;
        l_Port = l_Port * 10 + (pc_Port[j] - '0');
    }
    if (l_Port < 1 || l_Port > PORT_MAX) return false;
    *ppc_Port = pc_Port;
    *pt_Port = t_Port;
    return true;
}

// Appends [pc, pc + t) to the buffer at *pt_Pos; false when it does not fit
// with the final NUL.
bool Ajoute(char *pc_Tampon, std::size_t t_Taille, std::size_t *pt_Pos, const char *pc,
            std::size_t t) {
    if (t >= t_Taille - *pt_Pos) return false;
    memcpy(pc_Tampon + *pt_Pos, pc, t);
    *pt_Pos += t;
    pc_Tampon[*pt_Pos] = '\0';
    return true;
}

// Releases a session without reporting anything.
void LibereSession(LDAP *ld) {
    if (ld != nullptr) ldap_unbind_ext_s(ld, nullptr, nullptr);
}

// Reports an option refused to a fresh session: level 4 (2548) with the
// value shown; true when the option was set.
bool OptionPosee(int i_Code, int i_ValeurAffichee) {
    if (i_Code == LDAP_OPT_SUCCESS) return true;
    TraitementErreur(NIVEAU_AVERTISSEMENT,
                     "v1.1.0/2548: Erreur ldap_set_option <%d>, ld_errno=%d (%s). %s",
                     i_ValeurAffichee, i_Code, ldap_err2string(i_Code), gPc_InfoMessEnCours);
    return false;
}

// Sets one option of a fresh session; level 4 (2548) on failure.
bool PoseOption(LDAP *ld, int i_Option, const void *pv_Valeur, int i_ValeurAffichee) {
    return OptionPosee(ldap_set_option(ld, i_Option, pv_Valeur), i_ValeurAffichee);
}

// The options of every session: protocol version 3 (the library starts at
// 2, which the server refuses), then the limits that keep a silent or
// unreachable host from holding the run: the connect, and every synchronous
// operation, end after gi_DelaiReseauLdap seconds; and referrals left to
// ChercheLdap.  A refused option is reported with the value asked for (3,
// the time-out, 0 for referrals).
bool PoseOptionsSession(LDAP *ld) {
    int i_Version = VERSION_PROTOCOLE_LDAP;
    timeval st_Delai{};
    st_Delai.tv_sec = gi_DelaiReseauLdap > 0 ? gi_DelaiReseauLdap : 1;
    return PoseOption(ld, LDAP_OPT_PROTOCOL_VERSION, &i_Version, i_Version) &&
           PoseOption(ld, LDAP_OPT_NETWORK_TIMEOUT, &st_Delai, gi_DelaiReseauLdap) &&
           PoseOption(ld, LDAP_OPT_TIMEOUT, &st_Delai, gi_DelaiReseauLdap) &&
           PoseOption(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF, 0);
}

// Anonymous simple bind: no DN, empty password.
int LieAnonyme(LDAP *ld) {
    berval st_Secret{0, nullptr};
    return ldap_sasl_bind_s(ld, nullptr, LDAP_SASL_SIMPLE, &st_Secret, nullptr, nullptr, nullptr);
}

// Copies the library's values into one allocation: the pointer array, then
// the strings, each NUL-terminated.  Null for no values; *pb_Echec set when
// memory runs out.
char **CopieValeurs(berval **tpst_Valeurs, bool *pb_Echec) {
    *pb_Echec = false;
    if (tpst_Valeurs == nullptr || tpst_Valeurs[0] == nullptr) return nullptr;
    std::size_t t_Nb = 0, t_Octets = 0;
    for (; tpst_Valeurs[t_Nb] != nullptr; t_Nb++) {
        std::size_t t_Long = tpst_Valeurs[t_Nb]->bv_len;
        if (t_Long >= SIZE_MAX / 2 - t_Octets) {
            *pb_Echec = true;
            return nullptr;
        }
        t_Octets += t_Long + 1;
    }
    std::size_t t_Pointeurs = (t_Nb + 1) * sizeof(char *);
    char **tpc = static_cast<char **>(malloc(t_Pointeurs + t_Octets));
    if (tpc == nullptr) {
        *pb_Echec = true;
        return nullptr;
    }
    char *pc = reinterpret_cast<char *>(tpc) + t_Pointeurs;
    for (std::size_t i = 0; i < t_Nb; i++) {
        tpc[i] = pc;
        if (tpst_Valeurs[i]->bv_len > 0)
            memcpy(pc, tpst_Valeurs[i]->bv_val, tpst_Valeurs[i]->bv_len);
        pc[tpst_Valeurs[i]->bv_len] = '\0';
        pc += tpst_Valeurs[i]->bv_len + 1;
    }
    tpc[t_Nb] = nullptr;
    return tpc;
}

// Keeps the SASL library from loading mechanism plug-ins.  The session binds
// anonymously with a simple bind and never uses SASL, yet the first session
// of a process initialises the SASL library, which by default opens every
// client mechanism plug-in installed on the host (each one a dlopen with its
// relocations and libraries): more than half the instructions of a whole
// delivery.  Before that first session the library is told to look for its
// plug-ins in /dev/null, which is no directory and can never hold one (a
// data directory could, and whatever library was put there would run in
// every delivery).  The setting stays inside this process (no environment
// variable reaches the commands the program starts) and overrides a
// SASL_PATH inherited from the caller.
void EcartePluginsSasl() {
    static bool sb_Fait = false;
    if (sb_Fait) return;
    sb_Fait = true;
    sasl_set_path(SASL_PATH_TYPE_PLUGIN, const_cast<char *>("/dev/null"));  // copied
}

// Whole seconds elapsed since the start, on the monotonic clock.
long SecondesDepuis(std::chrono::steady_clock::time_point t_Debut) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - t_Debut)
            .count());
}

// Sleeps the whole number of seconds, even when a signal cuts a sleep short.
void Patiente(int i_Secondes) {
    unsigned int i_Reste = i_Secondes > 0 ? static_cast<unsigned int>(i_Secondes) : 0;
    while (i_Reste > 0) i_Reste = sleep(i_Reste);
}

}  // namespace

// Turns "h1 h2:port,h3" into "ldap://h1:389,ldap://h2:port,ldap://h3:389".
// The host list reaches the library only in this checked form, so that no
// text of the command line can add a path, filter or extension to a URI.
int ConstruitUrisLdap(const char *pc_Hotes, char *pc_Uris, std::size_t t_Taille) {
    if (t_Taille == 0) return -1;
    pc_Uris[0] = '\0';
    if (pc_Hotes == nullptr) return -1;
    std::size_t t_Pos = 0;
    int i_Nb = 0;
    const char *pc = pc_Hotes;
    for (;;) {
        while (*pc != '\0' && EstSeparateurHote(*pc)) pc++;
        if (*pc == '\0') break;
        const char *pc_Fin = pc;
        while (*pc_Fin != '\0' && !EstSeparateurHote(*pc_Fin)) pc_Fin++;
        std::size_t t_Hote = 0, t_Port = 0;
        const char *pc_Port = nullptr;
        if (!DecoupeHote(pc, static_cast<std::size_t>(pc_Fin - pc), &t_Hote, &pc_Port, &t_Port) ||
            (i_Nb > 0 && !Ajoute(pc_Uris, t_Taille, &t_Pos, ",", 1)) ||
            !Ajoute(pc_Uris, t_Taille, &t_Pos, SCHEMA_URI_LDAP, strlen(SCHEMA_URI_LDAP)) ||
            !Ajoute(pc_Uris, t_Taille, &t_Pos, pc, t_Hote) ||
            !Ajoute(pc_Uris, t_Taille, &t_Pos, ":", 1) ||
            !Ajoute(pc_Uris, t_Taille, &t_Pos, pc_Port, t_Port)) {
            pc_Uris[0] = '\0';
            return -1;
        }
        i_Nb++;
        pc = pc_Fin;
    }
    if (i_Nb == 0) return -1;
    return i_Nb;
}

namespace {

// A host list that cannot be opened or reached: level 4 (2542).
void RapporteOuverture(const char *pc_Hotes, int i_Errno) {
    TraitementErreur(NIVEAU_AVERTISSEMENT, "v1.1.0/2542: Erreur ldap_open <%s>, errno=%d (%s). %s",
                     pc_Hotes != nullptr ? pc_Hotes : "", i_Errno, strerror(i_Errno),
                     gPc_InfoMessEnCours);
}

// One host of the list (its ldap:// URI): session, options, connect, bind.
// The session, or null; a failure is reported (level 4) when b_Rapport,
// naming the host list as given.
LDAP *SessionHote(const char *pc_Hotes, const char *pc_Uri, bool b_Rapport) {
    LDAP *ld = nullptr;
    errno = 0;
    if (ldap_initialize(&ld, pc_Uri) != LDAP_SUCCESS || ld == nullptr) {
        if (b_Rapport) RapporteOuverture(pc_Hotes, errno != 0 ? errno : EINVAL);
        return nullptr;
    }
    if (!PoseOptionsSession(ld)) {
        LibereSession(ld);
        return nullptr;
    }

    // Connect now, so that an unreachable host is reported as such (2542)
    // and not as a refused bind.
    errno = 0;
    if (ldap_connect(ld) != LDAP_SUCCESS) {
        if (b_Rapport) RapporteOuverture(pc_Hotes, errno);
        LibereSession(ld);
        return nullptr;
    }
    int i_Code = LieAnonyme(ld);
    if (i_Code != LDAP_SUCCESS) {
        if (b_Rapport)
            TraitementErreur(NIVEAU_AVERTISSEMENT,
                             "v1.1.0/2556: Erreur ldap_simple_bind_s, ld_errno=%d (%s). %s",
                             i_Code, ldap_err2string(i_Code), gPc_InfoMessEnCours);
        LibereSession(ld);
        return nullptr;
    }
    return ld;
}

}  // namespace

// One connection attempt on the host list: the hosts in order, each
// initialised, given the options, connected and bound anonymously.
LDAP *_ldapConnect(const char *pc_Hotes) {
    // 1. The URI list; a host list that cannot be turned into URIs fails
    //    like a host that cannot be reached (EINVAL).
    char pc_Uris[TAILLE_TEXTE];
    EcartePluginsSasl();
    if (ConstruitUrisLdap(pc_Hotes, pc_Uris, sizeof pc_Uris) < 0) {
        RapporteOuverture(pc_Hotes, EINVAL);
        return nullptr;
    }

    // 2. Each host in turn, until one takes the bind: a host that accepts
    //    the connection and then never answers, or refuses the bind, gives
    //    way to the next one after its time-out, as one that cannot be
    //    reached does (2558 in the log).  Only the last host's failure is
    //    reported.
    for (char *pc_Uri = pc_Uris; pc_Uri != nullptr;) {
        char *pc_Suite = strchr(pc_Uri, ',');
        if (pc_Suite != nullptr) *pc_Suite++ = '\0';
        LDAP *ld = SessionHote(pc_Hotes, pc_Uri, pc_Suite == nullptr);
        if (ld != nullptr) return ld;
        if (pc_Suite != nullptr)
            syslog(LOG_WARNING, "v1.1.0/2558: Serveur LDAP <%s> injoignable, essai du suivant. %s",
                   pc_Uri, gPc_InfoMessEnCours);
        pc_Uri = pc_Suite;
    }
    return nullptr;
}

// Opens the session, retrying every gi_PasReessaiLdap seconds as long as no
// more than gi_DureeReessaiLdap seconds have passed; then gives the message
// back to Postfix (level 2).  Elapsed time is taken on the monotonic clock,
// in whole seconds, so that a change of the system clock neither cuts the
// window short nor stretches it.  The warnings of the failed attempts
// share one dump file: an outage would otherwise leave one per attempt.
// The explain form makes one attempt: it says at once that the directory
// cannot be reached.
LDAP *ldapConnect(const char *pc_Hotes) {
    const auto t_Debut = std::chrono::steady_clock::now();
    OuvreSerieAvertissements();
    for (;;) {
        LDAP *ld = _ldapConnect(pc_Hotes);
        if (ld != nullptr) {
            FermeSerieAvertissements();
            return ld;
        }
        if (gi_Explication) {
            printf("  (remise reelle : un essai toutes les %d s pendant %d s, puis :)\n",
                   gi_PasReessaiLdap, gi_DureeReessaiLdap);
            break;
        }
        if (SecondesDepuis(t_Debut) > gi_DureeReessaiLdap) break;
        syslog(LOG_WARNING, "v1.1.0/2570: Tentative de connexion impossible sur <%s>. %s",
               pc_Hotes != nullptr ? pc_Hotes : "", gPc_InfoMessEnCours);
        Patiente(gi_PasReessaiLdap);
    }
    FermeSerieAvertissements();
    TraitementErreur(
        NIVEAU_CRITIQUE,
        "v1.1.0/2576: Erreur connection LDAP sur <%s>. %s. Possibilite de depots repetes",
        pc_Hotes != nullptr ? pc_Hotes : "", gPc_InfoMessEnCours);
    return nullptr;
}

// Unbinds an open session, and the sessions kept to follow referrals; the
// handle is null afterwards in every case.
void ldapClose(LDAP **ppld) {
    for (auto &[s, ld] : gv_SessionsRenvoi) LibereSession(ld);
    gv_SessionsRenvoi.clear();
    if (ppld == nullptr) return;
    LibereSession(*ppld);
    *ppld = nullptr;
}

RechercheLdap::~RechercheLdap() {
    for (auto &[ld, pst_Resultat] : v_Resultats) ldap_msgfree(pst_Resultat);
}

namespace {

int Cherche(LDAP *ld, const char *pc_Base, const char *pc_Filtre, char **tpc_Attr,
            RechercheLdap *pst, int i_Profondeur);

// The URI of the server a referral URL names: ldap only (a TLS handshake
// is not bounded by the sessions' time-outs, and a server that never
// answered it would hold the process), no critical extension the program
// does not know, a host name or address (never a list or a path: the URL
// is the directory's text), or no host: the server the referral came from.
// False for a URL that names no usable server.
bool UriRenvoi(LDAP *ld_Origine, const LDAPURLDesc *pst_Url, std::string *ps_Uri) {
    if (pst_Url->lud_scheme == nullptr || strcasecmp(pst_Url->lud_scheme, "ldap") != 0 ||
        pst_Url->lud_crit_exts > 0)
        return false;
    const char *pc_Hote = pst_Url->lud_host != nullptr ? pst_Url->lud_host : "";
    if (pc_Hote[0] == '\0') {
        char *pc_Origine = nullptr;
        bool b_Ok = ldap_get_option(ld_Origine, LDAP_OPT_URI, &pc_Origine) == LDAP_OPT_SUCCESS &&
                    pc_Origine != nullptr && strchr(pc_Origine, ',') == nullptr;
        if (b_Ok) *ps_Uri = pc_Origine;
        ldap_memfree(pc_Origine);
        return b_Ok;
    }
    bool b_Ipv6 = strchr(pc_Hote, ':') != nullptr;
    for (const char *pc = pc_Hote; *pc != '\0'; pc++)
        if (b_Ipv6 ? !EstCaractereIpv6(*pc) : !EstCaractereHote(*pc)) return false;
    int i_Port = pst_Url->lud_port > 0 && pst_Url->lud_port <= PORT_MAX ? pst_Url->lud_port
                                                                          : PORT_LDAP;
    *ps_Uri = std::string(SCHEMA_URI_LDAP) + (b_Ipv6 ? "[" : "") + pc_Hote + (b_Ipv6 ? "]" : "") +
              ":" + std::to_string(i_Port);
    return true;
}

// Drops the kept session of the URI (its connection was lost).
void OublieSessionRenvoi(const std::string &s_Uri) {
    for (auto it = gv_SessionsRenvoi.begin(); it != gv_SessionsRenvoi.end(); ++it) {
        if (it->first != s_Uri) continue;
        LibereSession(it->second);
        gv_SessionsRenvoi.erase(it);
        return;
    }
}

// A bound session on the URI, with the options of every session: the one
// kept for it (*pb_Gardee), or a new one, bound anonymously and kept.  The
// alias dereferencing of the session the referral came from is set on it
// for this search.  LDAP_SUCCESS, or the failure's code.
int SessionRenvoi(LDAP *ld_Origine, const std::string &s_Uri, LDAP **pld, bool *pb_Gardee) {
    *pld = nullptr;
    for (const auto &[s, ld] : gv_SessionsRenvoi)
        if (s == s_Uri) *pld = ld;
    *pb_Gardee = *pld != nullptr;
    if (*pld == nullptr) {
        LDAP *ld = nullptr;
        if (ldap_initialize(&ld, s_Uri.c_str()) != LDAP_SUCCESS || ld == nullptr)
            return LDAP_REFERRAL;
        int i_Code = PoseOptionsSession(ld) ? LieAnonyme(ld) : LDAP_LOCAL_ERROR;
        if (i_Code != LDAP_SUCCESS) {
            LibereSession(ld);
            return i_Code;
        }
        gv_SessionsRenvoi.emplace_back(s_Uri, ld);
        *pld = ld;
    }
    int i_Deref = LDAP_DEREF_NEVER;
    ldap_get_option(ld_Origine, LDAP_OPT_DEREF, &i_Deref);
    return PoseOption(*pld, LDAP_OPT_DEREF, &i_Deref, i_Deref) ? LDAP_SUCCESS : LDAP_LOCAL_ERROR;
}

// Asks one part of the tree (a referral URL's server and DN) on the kept
// session of its server, or a new one; a kept session whose connection was
// lost (the server restarted, an idle connection cut) gives way once to a
// new session.  What a failed attempt added to the results is dropped.
int DemandePartie(LDAP *ld, const std::string &s_Uri, const std::string &s_Dn,
                  const char *pc_Filtre, char **tpc_Attr, RechercheLdap *pst, int i_Profondeur) {
    int i_Code = LDAP_REFERRAL;
    for (int i_Essai = 0; i_Essai < 2; i_Essai++) {
        const std::size_t t_Resultats = pst->v_Resultats.size(), t_Parties = pst->v_Parties.size();
        LDAP *ld_Renvoi = nullptr;
        bool b_Gardee = false;
        i_Code = SessionRenvoi(ld, s_Uri, &ld_Renvoi, &b_Gardee);
        if (i_Code == LDAP_SUCCESS)
            i_Code = Cherche(ld_Renvoi, s_Dn.c_str(), pc_Filtre, tpc_Attr, pst, i_Profondeur + 1);
        if (i_Code == LDAP_SUCCESS) return LDAP_SUCCESS;
        while (pst->v_Resultats.size() > t_Resultats) {
            ldap_msgfree(pst->v_Resultats.back().second);
            pst->v_Resultats.pop_back();
        }
        pst->v_Parties.resize(t_Parties);
        if (!b_Gardee || (i_Code != LDAP_SERVER_DOWN && i_Code != LDAP_CONNECT_ERROR)) break;
        OublieSessionRenvoi(s_Uri);
    }
    return i_Code;
}

// Follows one referral: its URLs name the same part of the directory on
// other servers and are tried in order until one answers the search (below
// the URL's DN, or below the same base when it names none).  A part this
// search has had answered is not asked again (two references to one part):
// its entries would count twice.  A part it is still asking, met again
// through a referral that leads back to it, is a loop: that URL fails
// (LDAP_LOOP_DETECT), never a part read as empty.  What a URL that failed
// had added is dropped before the next is tried.
int SuitRenvoi(LDAP *ld, char **tpc_Urls, const char *pc_Base, const char *pc_Filtre,
               char **tpc_Attr, RechercheLdap *pst, int i_Profondeur) {
    int i_Code = i_Profondeur < PROFONDEUR_MAX_RENVOIS ? LDAP_REFERRAL : LDAP_REFERRAL_LIMIT_EXCEEDED;
    for (int i = 0; i_Profondeur < PROFONDEUR_MAX_RENVOIS && tpc_Urls != nullptr &&
                    tpc_Urls[i] != nullptr;
         i++) {
        LDAPURLDesc *pst_Url = nullptr;
        std::string s_Uri;
        i_Code = LDAP_REFERRAL;
        if (ldap_url_parse(tpc_Urls[i], &pst_Url) == LDAP_URL_SUCCESS &&
            UriRenvoi(ld, pst_Url, &s_Uri)) {
            std::string s_Dn = pst_Url->lud_dn != nullptr && pst_Url->lud_dn[0] != '\0'
                                   ? pst_Url->lud_dn
                                   : pc_Base;
            std::string s_Partie = s_Uri + "/" + s_Dn;
            for (char &c : s_Partie) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
            auto it = pst->v_Parties.begin();
            while (it != pst->v_Parties.end() && it->first != s_Partie) ++it;
            if (it != pst->v_Parties.end()) {
                i_Code = it->second ? LDAP_SUCCESS : LDAP_LOOP_DETECT;
            } else {
                pst->v_Parties.emplace_back(s_Partie, false);
                const std::size_t t_Rang = pst->v_Parties.size() - 1;
                i_Code = DemandePartie(ld, s_Uri, s_Dn, pc_Filtre, tpc_Attr, pst, i_Profondeur);
                if (i_Code == LDAP_SUCCESS) pst->v_Parties[t_Rang].second = true;
                else pst->v_Parties.resize(t_Rang);
            }
        }
        ldap_free_urldesc(pst_Url);
        if (i_Code == LDAP_SUCCESS) return LDAP_SUCCESS;
        syslog(LOG_WARNING, "v1.1.0/2606: Renvoi de l'annuaire non suivi <%.*s>, ld_errno=%d (%s). %s",
               TAILLE_CITATION_URL, tpc_Urls[i], i_Code, ldap_err2string(i_Code),
               gPc_InfoMessEnCours);
    }
    return i_Code;
}

// One subtree search on one session, then the referrals it returned: a
// referral in place of the result sends the whole search elsewhere; a
// reference among the entries adds the part of the tree it names.
int Cherche(LDAP *ld, const char *pc_Base, const char *pc_Filtre, char **tpc_Attr,
            RechercheLdap *pst, int i_Profondeur) {
    LDAPMessage *pst_Resultat = nullptr;
    int i_Code = ldap_search_ext_s(ld, pc_Base, LDAP_SCOPE_SUBTREE, pc_Filtre, tpc_Attr, 0, nullptr,
                                   nullptr, nullptr, LDAP_NO_LIMIT, &pst_Resultat);
    if (i_Code == LDAP_REFERRAL) {
        char **tpc_Urls = nullptr;
        int i_Resultat = LDAP_SUCCESS;
        if (pst_Resultat == nullptr ||
            ldap_parse_result(ld, pst_Resultat, &i_Resultat, nullptr, nullptr, &tpc_Urls, nullptr,
                              0) != LDAP_SUCCESS)
            tpc_Urls = nullptr;
        ldap_msgfree(pst_Resultat);
        i_Code = SuitRenvoi(ld, tpc_Urls, pc_Base, pc_Filtre, tpc_Attr, pst, i_Profondeur);
        ldap_memvfree(reinterpret_cast<void **>(tpc_Urls));
        return i_Code;
    }
    if (i_Code != LDAP_SUCCESS) {
        ldap_msgfree(pst_Resultat);
        return i_Code;
    }
    pst->v_Resultats.emplace_back(ld, pst_Resultat);
    for (LDAPMessage *pst_Renvoi = ldap_first_reference(ld, pst_Resultat); pst_Renvoi != nullptr;
         pst_Renvoi = ldap_next_reference(ld, pst_Renvoi)) {
        char **tpc_Urls = nullptr;
        if (ldap_parse_reference(ld, pst_Renvoi, &tpc_Urls, nullptr, 0) != LDAP_SUCCESS)
            tpc_Urls = nullptr;
        i_Code = SuitRenvoi(ld, tpc_Urls, pc_Base, pc_Filtre, tpc_Attr, pst, i_Profondeur);
        ldap_memvfree(reinterpret_cast<void **>(tpc_Urls));
        if (i_Code != LDAP_SUCCESS) return i_Code;
    }
    return LDAP_SUCCESS;
}

}  // namespace

// Searches the tree below the base for the filter, referrals followed; see
// the unit's heading.  The search waits at most gi_DelaiReseauLdap seconds
// on each server (the sessions' operation time-out).
int ChercheLdap(LDAP *ld, const char *pc_Base, const char *pc_Filtre, char **tpc_Attr,
                RechercheLdap *pst) {
    if (ld == nullptr || pc_Filtre == nullptr) return LDAP_PARAM_ERROR;
    return Cherche(ld, pc_Base, pc_Filtre, tpc_Attr, pst, 0);
}

// Entries received by a search, over every server it reached.
int NbEntreesLdap(const RechercheLdap *pst) {
    int i_Nb = 0;
    for (const auto &[ld, pst_Resultat] : pst->v_Resultats) {
        int i = ldap_count_entries(ld, pst_Resultat);
        if (i > 0) i_Nb += i;
    }
    return i_Nb;
}

// Searches the whole tree for the filter and fills the value table when
// exactly one entry is found.  The search waits at most gi_DelaiReseauLdap
// seconds (the session's operation time-out); a time-out is a search error.
int RecupUneEntreeLdap(LDAP *ld, const char *pc_Filtre, const char *const *tpc_Attr,
                       char ***ttpc_Valeurs) {
    // 1. Search; the attribute list is only read by the library.  A closed
    //    session or a missing filter is refused, as the library would refuse
    //    it, rather than handed to the library's assertions.
    RechercheLdap st_Recherche;
    int i_Code = ChercheLdap(ld, "", pc_Filtre, const_cast<char **>(tpc_Attr), &st_Recherche);
    if (i_Code != LDAP_SUCCESS) {
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/2604: Erreur ldap_search_s, filtre=<%s> ld_errno=%d (%s). %s. "
                         "Possibilite de depots repetes",
                         pc_Filtre != nullptr ? pc_Filtre : "", i_Code, ldap_err2string(i_Code),
                         gPc_InfoMessEnCours);
        return -1;
    }

    // 2. Count.
    int i_Nb = NbEntreesLdap(&st_Recherche);
    if (i_Nb == 0) {
        for (int i = 0; tpc_Attr[i] != nullptr; i++) ttpc_Valeurs[i] = nullptr;
        return 0;
    }
    if (i_Nb != 1) {
        TraitementErreur(
            NIVEAU_ERREUR,
            "v1.1.0/2618: Incoherence annuaire, %d entree(s) trouvee(s), filtre=<%s>. %s", i_Nb,
            pc_Filtre, gPc_InfoMessEnCours);
        return i_Nb;
    }

    // 3. One entry, from the server that sent it: copy the values of every
    //    name of the list.  The values are copies, so the results are
    //    released as soon as they are made.
    LDAPMessage *pst_Entree = nullptr;
    for (const auto &[ld_Source, pst_Resultat] : st_Recherche.v_Resultats) {
        if (ldap_count_entries(ld_Source, pst_Resultat) <= 0) continue;
        ld = ld_Source;
        pst_Entree = ldap_first_entry(ld, pst_Resultat);
        break;
    }
    if (pst_Entree == nullptr) {
        int i_Errno = errno;
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/2610: Erreur ldap_first_entry, retour NULL, errno=%d (%s). %s. "
                         "Possibilite de depots repetes",
                         i_Errno, strerror(i_Errno), gPc_InfoMessEnCours);
        return -1;
    }
    for (int i = 0; tpc_Attr[i] != nullptr; i++) {
        berval **tpst = ldap_get_values_len(ld, pst_Entree, tpc_Attr[i]);
        bool b_Echec = false;
        ttpc_Valeurs[i] = CopieValeurs(tpst, &b_Echec);
        ldap_value_free_len(tpst);
        if (b_Echec) {
            int i_Errno = errno;
            TraitementErreur(NIVEAU_CRITIQUE,
                             "v1.1.0/2612: Erreur malloc des valeurs de <%s>, errno=%d (%s). %s. "
                             "Possibilite de depots repetes",
                             tpc_Attr[i], i_Errno, strerror(i_Errno), gPc_InfoMessEnCours);
            return -1;
        }
    }
    return 1;
}

// Index of the first name equal to the given one (exact bytes), or the
// number of names.
int i_IndiceAttr(const char *const *tpc_Attr, const char *pc_Nom) {
    int i = 0;
    while (tpc_Attr[i] != nullptr && strcmp(tpc_Attr[i], pc_Nom) != 0) i++;
    return i;
}

// Value list of the named attribute; a name the list does not hold has no
// values (its index is the terminator's, which has no slot to read).
char **tpc_ValeursLdap(const char *const *tpc_Attr, char **const *ttpc_Valeurs,
                       const char *pc_Nom) {
    int i = i_IndiceAttr(tpc_Attr, pc_Nom);
    if (tpc_Attr[i] == nullptr) return nullptr;
    return ttpc_Valeurs[i];
}

// One value of the named attribute; the index is the caller's to keep in range.
char *pc_ValeurLdap(const char *const *tpc_Attr, char **const *ttpc_Valeurs, const char *pc_Nom,
                    int i_Indice) {
    char **tpc = tpc_ValeursLdap(tpc_Attr, ttpc_Valeurs, pc_Nom);
    if (tpc == nullptr) return nullptr;
    return tpc[i_Indice];
}

// First value that begins with the prefix (any ASCII case): what follows
// the prefix and its blanks and tabs, pointing into the list; "" otherwise.
const char *RecupValeurTableau(char *const *tpc_Valeurs, const char *pc_Prefixe) {
    if (tpc_Valeurs == nullptr) return PC_VIDE;
    std::size_t t_Long = strlen(pc_Prefixe);
    for (int i = 0; tpc_Valeurs[i] != nullptr; i++) {
        if (strncasecmp(tpc_Valeurs[i], pc_Prefixe, t_Long) != 0) continue;
        const char *pc = tpc_Valeurs[i] + t_Long;
        while (*pc == ' ' || *pc == '\t') pc++;
        return pc;
    }
    return PC_VIDE;
}

// Releases a value list made by RecupUneEntreeLdap.
void LibereValeursLdap(char **tpc_Valeurs) { free(tpc_Valeurs); }

// The value with the filter metacharacters "*", "(", ")" and "\\" written as
// \XX escapes, so that an address inserted into a filter can neither widen
// nor break it; the length written, or -1 (output emptied) when it does not
// fit: a cut value would look up another address.
int EchappeValeurLdap(const char *pc_Valeur, char *pc_Sortie, std::size_t t_Taille) {
    static const char pc_Hexa[] = "0123456789abcdef";
    if (t_Taille == 0) return -1;
    std::size_t t_Pos = 0;
    pc_Sortie[0] = '\0';
    bool b_Ok = true;
    for (const char *pc = pc_Valeur != nullptr ? pc_Valeur : ""; b_Ok && *pc != '\0'; pc++) {
        unsigned char c = static_cast<unsigned char>(*pc);
        if (c == '*' || c == '(' || c == ')' || c == '\\') {
            char pc_Echappe[3] = {'\\', pc_Hexa[c >> 4], pc_Hexa[c & 0x0f]};
            b_Ok = Ajoute(pc_Sortie, t_Taille, &t_Pos, pc_Echappe, sizeof pc_Echappe);
        } else {
            b_Ok = Ajoute(pc_Sortie, t_Taille, &t_Pos, pc, 1);
        }
    }
    if (!b_Ok) {
        pc_Sortie[0] = '\0';
        return -1;
    }
    return static_cast<int>(t_Pos);
}

// "(attribute=value)" with the value escaped; refused (-1, buffer emptied)
// when it does not fit.
int ConstruitFiltreLdap(char *pc_Filtre, std::size_t t_Taille, const char *pc_Attr,
                        const char *pc_Valeur) {
    if (t_Taille == 0) return -1;
    std::size_t t_Pos = 0;
    bool b_Ok = Ajoute(pc_Filtre, t_Taille, &t_Pos, "(", 1) &&
                Ajoute(pc_Filtre, t_Taille, &t_Pos, pc_Attr, strlen(pc_Attr)) &&
                Ajoute(pc_Filtre, t_Taille, &t_Pos, "=", 1);
    if (b_Ok) {
        int i_Long = EchappeValeurLdap(pc_Valeur, pc_Filtre + t_Pos, t_Taille - t_Pos);
        b_Ok = i_Long >= 0;
        if (b_Ok) t_Pos += static_cast<std::size_t>(i_Long);
    }
    if (b_Ok) b_Ok = Ajoute(pc_Filtre, t_Taille, &t_Pos, ")", 1);
    if (!b_Ok) {
        pc_Filtre[0] = '\0';
        return -1;
    }
    return 0;
}
