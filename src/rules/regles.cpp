// regles.cpp - rule lines: delivery restrictions, automatic-reply rules and
// their directory tests (see rules.h for the operations).
//
// A line is first matched against the syntax pattern of its kind (compiled
// once per process, case-insensitive); a line that does not match is logged
// at LOG_WARNING and skipped.  Parsing then works in place on the value
// (which belongs to the recipient's directory result): the ":" after the
// type becomes the end of the type, and in reply lines the blank that
// begins each option marker becomes the end of the text before it.
//
// The address tests (JOKE, PCRE, LDAP) are tried on the lower-cased From
// address (at most 255 characters), then, when it differs from the envelope
// sender (any case), on the envelope sender.  In restriction lines, the
// first LDAP attempt uses only what follows the first ".-." of an address
// shaped "?*.-.?*@?*".
//
// Directory tests: the parameter ("[base//]template", at most 511
// characters) gives a subtree search with no attributes returned; every
// "%s" of the template becomes the tested address with the filter
// metacharacters escaped, so that a sender can neither widen nor break the
// search.  A filter that would pass its 4096-byte buffer is refused (level
// 3), never cut.  The connection's alias dereferencing is set to "always"
// for the search and restored afterwards.
//
// The explain form sets gpf_TraceRegle: each evaluator then tells it what
// it made of every line read, with the line as written (copied before the
// parsing cuts it; nothing is copied otherwise).
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <strings.h>
#include <syslog.h>

#include "directory/directory.h"
#include "message/message.h"
#include "report/report.h"
#include "rules/rules.h"
#include "socle.h"

FonctionTraceRegle gpf_TraceRegle = nullptr;

namespace {

constexpr std::size_t TAILLE_PARAMETRE_LDAP = 512;
constexpr std::size_t TAILLE_FILTRE_REGLE = 4096;
constexpr const char *PC_SEPARATEUR_BASE = "//";
constexpr const char *PC_JOKER_REDUCTION = "?*.-.?*@?*";
constexpr const char *PC_REDUCTION = ".-.";
constexpr const char *PC_JOKER_LIGNE_REPONSE = "[0-9a-z][0-9a-z]~ *";
constexpr int DATE_DEBUT_DEFAUT = 0;
constexpr int DATE_FIN_DEFAUT = 99999999;

// Test types, in the order their keywords are compared.
enum class TypeTest { Tout, Rain, Raex, Vixa, Zeld, Zelx, Joke, Ldap, Pcre, Inconnu };
struct MotCleTest {
    const char *pc_Nom;
    TypeTest e_Type;
};
const MotCleTest st_Types[] = {
    {"TOUT", TypeTest::Tout}, {"RAIN", TypeTest::Rain}, {"RAEX", TypeTest::Raex},
    {"VIXA", TypeTest::Vixa}, {"ZELD", TypeTest::Zeld}, {"ZELX", TypeTest::Zelx},
    {"JOKE", TypeTest::Joke}, {"LDAP", TypeTest::Ldap}, {"PCRE", TypeTest::Pcre},
};

// What tells the two kinds of lines apart.
struct GenreLignes {
    const char *pc_Syntaxe;     // syntax pattern
    int i_MsgSyntaxe;           // its compile failure (level 3)
    int i_MsgFormat;            // a malformed line (LOG_WARNING)
    const char *pc_NomFormat;   // the words of that warning
    int i_MsgPcre;              // a PCRE parameter that does not compile (level 3)
    bool b_ReductionLdap;       // first LDAP attempt on the ".-." reduced address
};
const GenreLignes st_Restrictions = {
    "^[0-9a-z]{2}[\\-\\+] (LDAP|TOUT|JOKE|PCRE|ZELD|VIXA|ZELX):.+", 3005, 3026,
    "restriction de remise", 3097, true};
const GenreLignes st_Reponses = {
    "^[0-9a-z]{2}~ (LDAP|TOUT|JOKE|PCRE|ZELD|VIXA|ZELX|RAIN|RAEX):.+", 3161, 3192,
    "de reponse auto", 3281, false};

// The compiled syntax pattern of restriction lines, once per process.
const pcre2_code *MotifRestrictions() {
    static pcre2_code *sppcre_Empreinte = nullptr;
    if (sppcre_Empreinte == nullptr)
        sppcre_Empreinte = CompileMotif(st_Restrictions.pc_Syntaxe, st_Restrictions.i_MsgSyntaxe);
    return sppcre_Empreinte;
}

// The compiled syntax pattern of reply lines, once per process.
const pcre2_code *MotifReponses() {
    static pcre2_code *sppcre_Empreinte = nullptr;
    if (sppcre_Empreinte == nullptr)
        sppcre_Empreinte = CompileMotif(st_Reponses.pc_Syntaxe, st_Reponses.i_MsgSyntaxe);
    return sppcre_Empreinte;
}

// The addresses a line's tests are tried on.
struct Adresses {
    char Pc_Emetteur[TAILLE_ADRESSE];  // the From address, lower-cased, cut at 255
    bool b_Differe;                    // it differs from the envelope sender
};

// Prepares the addresses (the differs flag is noted on the address as given).
void PrepareAdresses(const char *pc_Emetteur, Adresses *pst) {
    _strncpy(pst->Pc_Emetteur, pc_Emetteur, sizeof pst->Pc_Emetteur);
    _minu(pst->Pc_Emetteur);
    pst->b_Differe = strcasecmp(pc_Emetteur, gpc_MailFrom != nullptr ? gpc_MailFrom : "") != 0;
}

// One parsed line; the texts point into the value.
struct LigneRegle {
    char c_Signe;
    TypeTest e_Type;
    char *pc_Parametre;
};

// Checks and parses one line in place; the syntax match result, negative
// for a malformed line (logged).
int AnalyseLigne(char *pc_Ligne, const pcre2_code *pst_Syntaxe, const GenreLignes &st_Genre,
                 LigneRegle *pst) {
    int i_Res = pst_Syntaxe != nullptr ? CorrespondMotif(pst_Syntaxe, pc_Ligne) : -1;
    if (i_Res < 0) {
        syslog(LOG_WARNING, "v1.1.0/%d: anomalie de format %s <%s>, cr=%d. %s",
               st_Genre.i_MsgFormat, st_Genre.pc_NomFormat, pc_Ligne, i_Res, gPc_InfoMessEnCours);
        return i_Res;
    }
    // The syntax guarantees the blank, the colon and the sign.
    char *pc_Type = strchr(pc_Ligne, ' ') + 1;
    char *pc_DeuxPoints = strchr(pc_Type, ':');
    *pc_DeuxPoints = '\0';
    pst->pc_Parametre = pc_DeuxPoints + 1;
    const char *pc_Signe = strpbrk(pc_Ligne, "+-");
    pst->c_Signe = pc_Signe != nullptr ? *pc_Signe : '~';
    pst->e_Type = TypeTest::Inconnu;
    for (const MotCleTest &st : st_Types)
        if (strcasecmp(pc_Type, st.pc_Nom) == 0) {
            pst->e_Type = st.e_Type;
            break;
        }
    return i_Res;
}

// The PCRE test on one address.
bool CorrespondPcre(const pcre2_code *pst_Motif, const char *pc_Adresse) {
    return CorrespondMotif(pst_Motif, pc_Adresse) >= 0;
}

// Attempts of an address test: 0 false, 1 true on the first address (the
// From address), 2 true only on the envelope sender, which is tried only
// when the first attempt failed and the two addresses differ (a directory
// test makes one search per attempt).
template <typename FTest>
int Tentatives(const char *pc_Premiere, bool b_Differe, FTest f_Test) {
    if (f_Test(pc_Premiere)) return 1;
    return b_Differe && f_Test(gpc_MailFrom) ? 2 : 0;
}

// Evaluates the test of a parsed line: 0 when false, else the attempt that
// made it true (see Tentatives).
int EvalueTest(const LigneRegle &st_Ligne, const Adresses &st_Adr, const GenreLignes &st_Genre) {
    const char *pc_Adresse = st_Adr.Pc_Emetteur;
    switch (st_Ligne.e_Type) {
    case TypeTest::Tout: return 1;
    case TypeTest::Rain:
    case TypeTest::Zeld: return gi_EmetteurZeldor != 0;
    case TypeTest::Raex: return gi_EmetteurZeldor == 0;
    case TypeTest::Vixa: return gi_EmetteurZeldorBoite != 0;
    case TypeTest::Zelx: return gi_EmetteurZeldor != 0 && gi_EmetteurZeldorBoite == 0;
    case TypeTest::Joke:
        _minu(st_Ligne.pc_Parametre);
        return Tentatives(pc_Adresse, st_Adr.b_Differe, [&](const char *pc) {
            return _expjok(st_Ligne.pc_Parametre, pc) != 0;
        });
    case TypeTest::Pcre: {
        pcre2_code *pst_Motif =
            CompileMotif(st_Ligne.pc_Parametre, st_Genre.i_MsgPcre, "restriction de remise ");
        if (pst_Motif == nullptr) return 0;
        int i = Tentatives(pc_Adresse, st_Adr.b_Differe,
                           [&](const char *pc) { return CorrespondPcre(pst_Motif, pc); });
        pcre2_code_free(pst_Motif);
        return i;
    }
    case TypeTest::Ldap: {
        const char *pc_Premiere = pc_Adresse;
        if (st_Genre.b_ReductionLdap && _expjok(PC_JOKER_REDUCTION, pc_Adresse))
            pc_Premiere = strstr(pc_Adresse, PC_REDUCTION) + strlen(PC_REDUCTION);
        return Tentatives(pc_Premiere, st_Adr.b_Differe, [&](const char *pc) {
            return TestRestrLDAP(st_Ligne.pc_Parametre, pc) > 0;
        });
    }
    case TypeTest::Inconnu: break;
    }
    return 0;
}

// Reads an option's number: blanks and a sign, digits up to the first
// other character, 0 without digits; kept within an int.
int NombreOption(const char *pc) {
    long l = strtol(pc, nullptr, 10);
    if (l > 2147483647L) return 2147483647;
    if (l < -2147483647L - 1) return -2147483647 - 1;
    return static_cast<int>(l);
}

// Reply options of one line.
struct OptionsReponse {
    int i_Debut = DATE_DEBUT_DEFAUT;
    int i_Fin = DATE_FIN_DEFAUT;
    int i_Suivant = 0;
};

// Reads the options of a reply line's parameter, storing FREQ and TEXTE
// into the outputs, then cuts every marker found (its blank becomes the
// end of what precedes it).
void LitOptions(char *pc_Parametre, OptionsReponse *pst, char **ppc_Texte, int *pi_Freq) {
    enum { DDEB, DFIN, DSVT, FREQ, TEXTE, NB };
    static const char *const tpc_Marques[NB] = {" DDEB:", " DFIN:", " DSVT:", " FREQ:", " TEXTE:"};
    char *tpc_Trouve[NB];
    for (int i = 0; i < NB; i++) {
        tpc_Trouve[i] = strstr(pc_Parametre, tpc_Marques[i]);
        if (tpc_Trouve[i] == nullptr) continue;
        char *pc_Valeur = tpc_Trouve[i] + strlen(tpc_Marques[i]);
        switch (i) {
        case DDEB: pst->i_Debut = NombreOption(pc_Valeur); break;
        case DFIN: pst->i_Fin = NombreOption(pc_Valeur); break;
        case DSVT: pst->i_Suivant = NombreOption(pc_Valeur); break;
        case FREQ: *pi_Freq = NombreOption(pc_Valeur); if (*pi_Freq < 1) *pi_Freq = 1; break;
        case TEXTE:
            while (*pc_Valeur == ' ' || *pc_Valeur == '\t') pc_Valeur++;
            *ppc_Texte = pc_Valeur;
            break;
        }
    }
    for (char *pc : tpc_Trouve)
        if (pc != nullptr) *pc = '\0';
}

// Today's local date as the integer YYYYMMDD.
int DateDuJour() {
    time_t t = time(nullptr);
    struct tm st;
    if (localtime_r(&t, &st) == nullptr) return 0;
    return (st.tm_year + 1900) * 10000 + (st.tm_mon + 1) * 100 + st.tm_mday;
}

// The empty text the reply text starts from.
char sPc_Vide[] = "";

// What an evaluator made of one line, for the explain form: the line as
// written is kept before the parsing cuts it, and only when traced.
struct TemoinLigne {
    std::string s_Ligne;
    TraceRegle st{};
    TemoinLigne(const char *pc_Ligne, bool b_Reponse) {
        if (gpf_TraceRegle == nullptr) return;
        s_Ligne = pc_Ligne;
        st.b_Reponse = b_Reponse;
        st.c_Signe = b_Reponse ? '~' : ' ';
    }
    // Hands the verdict to the trace.
    void Dit(VerdictLigne e_Verdict) {
        if (gpf_TraceRegle == nullptr) return;
        st.pc_Ligne = s_Ligne.c_str();
        st.e_Verdict = e_Verdict;
        gpf_TraceRegle(&st);
    }
};

}  // namespace

// Number of entries the directory test finds for the address; 0 when the
// search fails.
int TestRestrLDAP(const char *pc_Parametre, const char *pc_Adresse) {
    // 1-2. Base and template.
    char pc_Copie[TAILLE_PARAMETRE_LDAP];
    _strncpy(pc_Copie, pc_Parametre, sizeof pc_Copie);
    const char *pc_Base = "";
    const char *pc_Modele = pc_Copie;
    if (char *pc_Sep = strstr(pc_Copie, PC_SEPARATEUR_BASE); pc_Sep != nullptr) {
        *pc_Sep = '\0';
        pc_Base = pc_Copie;
        pc_Modele = pc_Sep + strlen(PC_SEPARATEUR_BASE);
    }

    // 3. The filter, every "%s" replaced by the escaped address.
    char pc_Echappee[TAILLE_FILTRE_REGLE];
    int i_Echappee = EchappeValeurLdap(pc_Adresse, pc_Echappee, sizeof pc_Echappee);
    std::size_t t_Echappee = i_Echappee >= 0 ? static_cast<std::size_t>(i_Echappee)
                                             : TAILLE_FILTRE_REGLE;
    char pc_Filtre[TAILLE_FILTRE_REGLE];
    std::size_t t_Filtre = 0;
    const char *pc;
    while ((pc = strstr(pc_Modele, "%s")) != nullptr) {
        std::size_t t_Piece = static_cast<std::size_t>(pc - pc_Modele);
        if (t_Filtre + t_Piece + t_Echappee + 2 > TAILLE_FILTRE_REGLE - 1) {
            TraitementErreur(NIVEAU_ERREUR, "v1.1.0/2944: erreur buffer trop petit, restr=<%s>, param=<%s>. %s",
                             pc_Parametre, pc_Adresse, gPc_InfoMessEnCours);
            return 0;
        }
        memcpy(pc_Filtre + t_Filtre, pc_Modele, t_Piece);
        memcpy(pc_Filtre + t_Filtre + t_Piece, pc_Echappee, t_Echappee);
        t_Filtre += t_Piece + t_Echappee;
        pc_Modele = pc + 2;
    }
    std::size_t t_Reste = strlen(pc_Modele);
    if (t_Filtre + t_Reste + 2 > TAILLE_FILTRE_REGLE - 1) {
        TraitementErreur(NIVEAU_ERREUR, "v1.1.0/2951: erreur buffer trop petit, restr=<%s>, param=<%s>. %s",
                         pc_Parametre, pc_Adresse, gPc_InfoMessEnCours);
        return 0;
    }
    memcpy(pc_Filtre + t_Filtre, pc_Modele, t_Reste + 1);

    // 4. The search, aliases dereferenced, no attributes returned.
    char pc_AucunAttribut[] = "1.1";
    char *tpc_Attributs[] = {pc_AucunAttribut, nullptr};
    RechercheLdap st_Recherche;
    int i_Code = LDAP_PARAM_ERROR;
    if (gld != nullptr) {
        int i_Deref = LDAP_DEREF_NEVER;
        ldap_get_option(gld, LDAP_OPT_DEREF, &i_Deref);
        int i_Toujours = LDAP_DEREF_ALWAYS;
        ldap_set_option(gld, LDAP_OPT_DEREF, &i_Toujours);
        i_Code = ChercheLdap(gld, pc_Base, pc_Filtre, tpc_Attributs, &st_Recherche);
        ldap_set_option(gld, LDAP_OPT_DEREF, &i_Deref);
    }

    // 5. A failed search is a false test.
    if (i_Code != LDAP_SUCCESS) {
        syslog(LOG_WARNING,
               "v1.1.0/2968: erreur requete LDAP restriction de remise ldap_search_s, filtre=<%s>, "
               "base=<%s>, ld_errno=%d (%s), restr=<%s>, param=<%s>. %s",
               pc_Filtre, pc_Base, i_Code, ldap_err2string(i_Code), pc_Parametre, pc_Adresse,
               gPc_InfoMessEnCours);
        return 0;
    }
    return NbEntreesLdap(&st_Recherche);
}

// 1 when a restriction line refuses the delivery; see rules.h.
int RestrictionDeRemise(const char *pc_Emetteur, char **tpc_Lignes) {
    Adresses st_Adr;
    PrepareAdresses(pc_Emetteur, &st_Adr);
    if (tpc_Lignes == nullptr) return 0;
    TriTableau(tpc_Lignes);
    const pcre2_code *pst_Syntaxe = MotifRestrictions();

    int i_Defaut = 0;
    for (int i = 0; tpc_Lignes[i] != nullptr; i++) {
        TemoinLigne st_Temoin(tpc_Lignes[i], false);
        LigneRegle st_Ligne;
        st_Temoin.st.i_Code = AnalyseLigne(tpc_Lignes[i], pst_Syntaxe, st_Restrictions, &st_Ligne);
        if (st_Temoin.st.i_Code < 0) {
            st_Temoin.Dit(VerdictLigne::Malformee);
            continue;
        }
        st_Temoin.st.c_Signe = st_Ligne.c_Signe;
        st_Temoin.st.i_Tentative = EvalueTest(st_Ligne, st_Adr, st_Restrictions);
        if (st_Temoin.st.i_Tentative != 0) {
            st_Temoin.Dit(VerdictLigne::Vraie);
            return st_Ligne.c_Signe == '-' ? 1 : 0;
        }
        st_Temoin.Dit(VerdictLigne::Fausse);
        if (st_Ligne.c_Signe == '+') i_Defaut = 1;
    }
    return i_Defaut;
}

// 1 when an automatic reply is due; see rules.h.
int DetReponseAuto(const char *pc_Emetteur, char **tpc_Lignes, char **ppc_Texte, int *pi_Freq) {
    Adresses st_Adr;
    PrepareAdresses(pc_Emetteur, &st_Adr);
    if (tpc_Lignes == nullptr) return 0;
    *pi_Freq = FREQ_REPONSE_DEFAUT;
    *ppc_Texte = sPc_Vide;

    // A single value that is not a rule line is the reply text itself, for
    // senders known to the directory; "#" disables it.
    if (tpc_Lignes[0] != nullptr && !_expjok(PC_JOKER_LIGNE_REPONSE, tpc_Lignes[0]) &&
        tpc_Lignes[1] == nullptr) {
        TemoinLigne st_Temoin(tpc_Lignes[0], true);
        if (tpc_Lignes[0][0] == '#') {
            st_Temoin.Dit(VerdictLigne::Desactivee);
            return 0;
        }
        st_Temoin.Dit(VerdictLigne::TexteSimple);
        if (gi_EmetteurZeldor) *ppc_Texte = tpc_Lignes[0];
        return (*ppc_Texte)[0] != '\0' ? 1 : 0;
    }

    TriTableau(tpc_Lignes);
    const pcre2_code *pst_Syntaxe = MotifReponses();
    int i_Resultat = 0;
    for (int i = 0; tpc_Lignes[i] != nullptr; i++) {
        TemoinLigne st_Temoin(tpc_Lignes[i], true);
        if (tpc_Lignes[i][0] == '#') {
            st_Temoin.Dit(VerdictLigne::Desactivee);
            continue;
        }
        OptionsReponse st_Options;
        LigneRegle st_Ligne;
        st_Temoin.st.i_Code = AnalyseLigne(tpc_Lignes[i], pst_Syntaxe, st_Reponses, &st_Ligne);
        if (st_Temoin.st.i_Code < 0) {
            st_Temoin.Dit(VerdictLigne::Malformee);
            continue;
        }
        LitOptions(st_Ligne.pc_Parametre, &st_Options, ppc_Texte, pi_Freq);
        st_Temoin.st.i_Debut = st_Options.i_Debut;
        st_Temoin.st.i_Fin = st_Options.i_Fin;
        st_Temoin.st.i_Suivant = st_Options.i_Suivant;
        st_Temoin.st.i_Tentative = EvalueTest(st_Ligne, st_Adr, st_Reponses);
        if (st_Temoin.st.i_Tentative == 0) {
            st_Temoin.Dit(VerdictLigne::Fausse);
            continue;
        }
        // The test is true: the line decides within its dates; outside them
        // it stops the search unless it lets the next lines try.
        int i_Jour = DateDuJour();
        st_Temoin.st.i_Jour = i_Jour;
        if (i_Jour < st_Options.i_Debut || i_Jour > st_Options.i_Fin) {
            st_Temoin.Dit(VerdictLigne::HorsDates);
            if (st_Options.i_Suivant == 0) break;
            continue;
        }
        st_Temoin.Dit(VerdictLigne::Vraie);
        i_Resultat = 1;
        break;
    }
    if ((*ppc_Texte)[0] == '\0') return 0;
    return i_Resultat;
}
