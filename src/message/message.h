// message.h - message model and addresses.
//
// The header line lists and the reader of the message on standard input,
// header lookups, address extraction, the joker-pattern matcher, bounded
// copies and case folding, text tables, and the time, file and alarm helpers.
//
// The buffer sizes used throughout the program (TAILLE_ADRESSE 256,
// TAILLE_PHRASE 512, TAILLE_TEXTE 1024, TAILLE_FILTRE 320, TAILLE_LECTURE
// 1024: one read of the message is at most 1023 bytes), the Entete node and
// the two header lists of the message in progress are in socle.h.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "socle.h"

// ---------------------------------------------------------------------------
// Header line lists and the message reader (entete.cpp).
// ---------------------------------------------------------------------------

// Minimum size that makes ChargeLigne adopt the text instead of copying it.
constexpr std::size_t ADOPTE_TEXTE = static_cast<std::size_t>(-1);

// Inserts a node after the cursor's node, copying the text into at least
// t_TailleMin bytes (or adopting it with ADOPTE_TEXTE); returns the new node,
// also left in the cursor.
Entete *ChargeLigne(Entete **ppet_Curseur, const char *pc_Texte, std::size_t t_TailleMin);
// Reads the header from standard input into the list whose head is given
// (empty on entry), up to and including the empty line.
void LitEntete(Entete **ppet_Tete);
// Appends the rest of the input stream to the list, piece by piece.
void LitMessage(Entete *pet_Liste, FILE *pf_Entree);
// Bytes of a node as it is to be written (a body piece may hold NUL bytes).
std::size_t LongueurLigne(const Entete *pet);
// 0 when the text is not an empty line; 1 null, 2 empty, 3 "\n...", 4 "\r\n".
int LigneEnteteVide(const char *pc_Texte);
// The body lines that follow the header's empty line, taken off the list
// (null when there are none), so that lookups see the header alone; they
// go back with RattacheCorps.
Entete *DetacheCorps(Entete *pet_Liste);
void RattacheCorps(Entete *pet_Liste, Entete *pet_Corps);
// Cuts the text after the first of two consecutive line feeds.
char *VerifLigneEOL(char *pc_Texte);
// First node, from the one given, whose line begins with the name (any case).
Entete *RecupEntete(Entete *pet_Liste, const char *pc_Nom);
Entete *RecupLigneEntete(Entete *pet_Liste, const char *pc_Nom);
// Value of the first matching header, or the shared read-only "\n".
const char *RecupValeurEntete(Entete *pet_Liste, const char *pc_Nom);
// Copies the part of the text between the opening and closing delimiters.
int RecupValeur(const char *pc_Texte, const char *pc_Ouvrants, const char *pc_Fermants,
                char *pc_Sortie, std::size_t t_Taille);

// ---------------------------------------------------------------------------
// Address extraction (adresse.cpp).
// ---------------------------------------------------------------------------

// Splits the first element of an address header value into the bare address
// and the phrase; returns the position after the element's comma, or the NUL.
const char *FetchAddress(const char *pc_Source, char *pc_Adresse, std::size_t t_TailleAdresse,
                         char *pc_Phrase, std::size_t t_TaillePhrase);
// Writes an address for the angle brackets of a header line the program
// composes: cleaned of control bytes, as it is when ordinary, otherwise with
// its local part (or all of it) as a quoted string.  Needs 2 x length + 3
// bytes; returns the length written, or -1 (empty output) when it does not fit.
int EcritAdresse(const char *pc_Adresse, char *pc_Sortie, std::size_t t_Taille);

// ---------------------------------------------------------------------------
// Joker patterns and small utilities (utilitaires.cpp).
// ---------------------------------------------------------------------------

// -1 when the candidate matches the pattern ("?", "*", "[...]"), else 0.
int _expjok(const char *pc_Motif, const char *pc_Candidat);
// Copies at most i_Taille - 1 characters, always terminated; returns the length.
int _strncpy(char *pc_Dest, const char *pc_Source, std::uint32_t i_Taille);
// The same for a size_t buffer size (sizes beyond 32 bits are capped).
inline int CopieBornee(char *pc_Dest, const char *pc_Source, std::size_t t_Taille) {
    return _strncpy(pc_Dest, pc_Source, t_Taille > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(t_Taille));
}
// Case folding of ASCII letters, in place.
void _minu(char *pc_Texte);
void _maju(char *pc_Texte);
// Clean-up of a text from the message that goes into a header line the
// program writes: control bytes become blanks, 8-bit bytes stay; with
// i_Pliage, a value's own folding stays and its final line end is removed.
// In place; returns the text.
char *EpureControles(char *pc_Texte, int i_Pliage);
// Number of entries before the null entry of a text table (0 for null).
int NblTableau(char *const *tpc_Tableau);
// Sorts a text table in place, case-insensitively by text / by mail domain.
void TriTableau(char **tpc_Tableau);
int i_tab_cmp(const void *pv_A, const void *pv_B);
void TriDomSmtpTableau(char **tpc_Tableau);
int i_tab_cmpDomSMTP(const void *pv_A, const void *pv_B);

// ---------------------------------------------------------------------------
// Time, file and alarm helpers (temps.cpp).
// ---------------------------------------------------------------------------

constexpr time_t DATE_MAX = 2114409600;  // 1 January 2037, 08:00:00 UTC

// "dd/mm/yyyy hh:mm:ss" (local time) into at least 20 bytes; -1 out of range.
int _dattifc(time_t t_Date, char *pc_Sortie);
// RFC 822 date into the buffer; length written, 0 when too small, -1 out of range.
int _dattirfc822(time_t t_Date, char *pc_Sortie, std::size_t t_Taille);
// The current local date, into the caller's buffer / into a static buffer.
char *_pc_datcfc(char *pc_Sortie);
char *_pcs_datcfc();
// File modification time, or -1.
time_t _ltimefic(const char *pc_Chemin);
// Sets access and modification times; 0 or -1.
int _mtimefic(const char *pc_Chemin, time_t t_Date);
// Touches the file, creating it empty when missing; failures are ignored.
void _touchfic(const char *pc_Chemin);
// 1 when the path names a directory.
int _exidir(const char *pc_Chemin);

using GestionnaireSignal = void (*)(int);
// Installs a handler with an empty mask and no flags (no restart).
GestionnaireSignal _Signal(int i_Signal, GestionnaireSignal p_Gestionnaire);
// SIGALRM handler of the guard: re-arms for 1 s and flags the time-out.
void _timeout(int i_Signal);
// Starts a guard of the given limit (at least 1 s).
void _debatt(int i_Limite);
// Ends the guard: 0, or ETIMEDOUT when the alarm fired (errno EINTR becomes
// ETIMEDOUT).
int _finatt();
