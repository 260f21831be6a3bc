// rules.h - rules and automatic messages.
//
// Regular expressions (motifs.cpp)
//   CompileMotif(pattern, number, kind)  compiles case-insensitively; a
//       pattern that does not compile is reported at level 3 with the number
//       given ("v1.1.0/NNNN: Erreur pcre_compile <kind>/pattern/ ...").
//   CorrespondMotif(compiled, text)  pcre2_match on the whole text: 0 or more
//       on a match, PCRE2_ERROR_NOMATCH, or another negative error code.
//
// Rule lines (regles.cpp): the values of ravokVixRestrictions and
// ravokVixReponse.  A line is "KKs TYPE:parameter": a two-character key
// (lines are evaluated in key order, any case), the sign ("-" refuses, "+"
// admits; "~" in reply lines), one blank, the test type and its parameter.
// Types: TOUT always; ZELD sender found in the directory; VIXA its entry is
// a mailbox; ZELX found but not a mailbox; RAIN / RAEX (reply lines only)
// found / not found; JOKE a joker pattern, PCRE a regular expression and
// LDAP a directory search, each tried on the From address (lower-cased)
// and, when it differs, on the envelope sender.  Malformed lines are logged
// (3026, 3192 at LOG_WARNING) and skipped.
//   RestrictionDeRemise(sender, lines)  1 when delivery is refused: the first
//       true line decides by its sign; with no true line, refused when a
//       well-formed "+" line was seen.
//   DetReponseAuto(sender, lines, &text, &freq)  1 when an automatic reply
//       is due; text points into the lines, freq in minutes (720 by default).
//       Reply options " DDEB:", " DFIN:", " DSVT:", " FREQ:", " TEXTE:".
//       A single value that is not a rule line is a plain reply text for
//       senders found in the directory.
//   TestRestrLDAP(parameter, address)  entries found by "[base//]template",
//       every "%s" of the template replaced by the address escaped for filter
//       syntax; 0 when the search fails (warning 2968).
// Both evaluators sort and change the lines in place.  When gpf_TraceRegle
// is set (the explain form), both call it once for every line they read,
// in the order read, with the line as written and what they made of it.
// Level 3: 3005 3161 (syntax patterns), 3097 3281 (PCRE parameters),
// 2944 2951 (directory filter longer than its 4096-byte buffer).
//
// Replies and notices (reponse.cpp)
//   EnvoiReponse(header, envelope sender, From text, body, label, charset,
//       Message-Id prefix)  composes a reply to the envelope sender of the
//       message in progress and submits it through sendmail; 1 when it was
//       handed over, 0 when a guard suppressed it (2699 2711 2716 2725 2735
//       2751 2773 2793 at LOG_WARNING; an empty body silently).  Level 3:
//       2816 (the header has no Delivered-To, Received or X-Loop line).
//   GardeReponse(header, body, &detail)  the guards alone, asked without
//       sending or logging: GARDE_AUCUNE, the number of the line a
//       suppressed reply logs, or GARDE_CORPS_VIDE (suppressed silently);
//       detail: the no-reply sender entry (2711 2716) or the Precedence
//       word (2751).  The header is taken alone (detach its body first).
//   EnteteRepondable(header)  true when it holds a Delivered-To, Received or
//       X-Loop line, without which composing a reply is refused (2816).
//   pc_MiseEnFormeMess(text)  the text with its first "%h" replaced by the
//       incoming header (10240-byte buffer, valid until the next call);
//       level 2: 2653.
//   JetonLibelle(label, token)  the label as a token of ASCII letters and
//       "_" (at most 63 characters; token buffer TAILLE_JETON).
//
// Origin zone (origine.cpp): where a message entered the organisation's
// mail system, from the relay address literals and webmail clauses found in
// its Received lines.
//   ZoneOrigine(header)   the index of the first zone (table order) whose
//       pattern matches one of the header's Received lines, NB_ZONES - 1
//       when none does.  The patterns are site data (socle.h), compiled
//       case-insensitively, unanchored, once per process.
//   VerifPassageZone(header, pattern)  1 when a line beginning "received:"
//       (any case) matches the compiled pattern, else 0.
//   gtpc_LibelleZone / gtpc_MarqueZone: the label written into X-ravokOrigine
//       and the From display name, and the mark put in front of that name.
// Messages: 3357 pattern does not compile, 3335 matching error (level 3).
#pragma once

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "message/message.h"

// Regular expressions.
pcre2_code *CompileMotif(const char *pc_Motif, int i_Numero, const char *pc_Genre = "");
int CorrespondMotif(const pcre2_code *pst_Motif, const char *pc_Texte);

// Rule lines.
int RestrictionDeRemise(const char *pc_Emetteur, char **tpc_Lignes);
int DetReponseAuto(const char *pc_Emetteur, char **tpc_Lignes, char **ppc_Texte, int *pi_Freq);
int TestRestrLDAP(const char *pc_Parametre, const char *pc_Adresse);
constexpr int FREQ_REPONSE_DEFAUT = 720;  // minutes

// What an evaluator made of one line.
enum class VerdictLigne {
    Malformee,    // not of the line syntax: skipped (i_Code: the match result)
    Desactivee,   // a reply line beginning with "#": skipped
    Fausse,       // its test is false: the next line is read
    Vraie,        // its test is true (and, for a reply line, today is within its dates): it decides
    HorsDates,    // reply line: true, but today is outside its dates (i_Suivant: go on)
    TexteSimple,  // the single plain reply value, for senders found in the directory
};
struct TraceRegle {
    const char *pc_Ligne;   // the line as written
    bool b_Reponse;         // a reply line (else a restriction line)
    VerdictLigne e_Verdict;
    char c_Signe;           // "+", "-" or "~"
    int i_Code;             // Malformee: the syntax match result
    int i_Tentative;        // a true test: 1 on the From address (or a flag), 2 on the envelope sender
    int i_Debut, i_Fin, i_Suivant, i_Jour;  // reply lines: DDEB, DFIN, DSVT, today (once tested)
};
using FonctionTraceRegle = void (*)(const TraceRegle *);
extern FonctionTraceRegle gpf_TraceRegle;  // null outside the explain form

// Replies and notices.
constexpr std::size_t TAILLE_JETON = 64;
int EnvoiReponse(Entete *pet_Entete, const char *pc_EmetteurEnv, const char *pc_From,
                 const char *pc_Corps, const char *pc_Libelle, const char *pc_Charset,
                 const char *pc_PrefixeMsgId);
char *pc_MiseEnFormeMess(char *pc_Texte);
constexpr int GARDE_AUCUNE = 0;
constexpr int GARDE_CORPS_VIDE = -1;
int GardeReponse(Entete *pet_Entete, const char *pc_Corps, const char **ppc_Detail);
bool EnteteRepondable(Entete *pet_Entete);
void JetonLibelle(const char *pc_Libelle, char *pc_Jeton);

// Origin zone.
constexpr int NB_ZONES = 18;  // rows 0-16 and the "no zone" row
constexpr int ZONE_AUCUNE = NB_ZONES - 1;
extern const char *const gtpc_LibelleZone[NB_ZONES];
extern const char *const gtpc_MarqueZone[NB_ZONES];

int ZoneOrigine(Entete *pet_Entete);
int VerifPassageZone(Entete *pet_Entete, const pcre2_code *pst_Motif);
