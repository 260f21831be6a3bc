// driver.h - the delivery driver: the entry operation and the run.
//
// RemiseVorane(argc, argv) is the whole process: the "-decode" test form
// (returns 1), the maintenance forms --version and --init (exit 1), then the
// delivery form: options, postmaster address, main-server list, envelope
// checks, and the delivery itself.  "--explique" followed by the delivery
// form's arguments runs the same start-up, then explains the delivery
// instead of making it (explication.cpp, exit 1).  Every other path ends the
// process.
//
// The driver is the top floor: nothing else of the program includes this
// header.  The process-wide values it sets live in the bottom unit socle.h.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "message/message.h"
#include "socle.h"

constexpr int NB_MAX_SERVEURS_PRINCIPAUX = 20;

// Values of one run that the command line sets and the later stages read.
struct OptionsRemise {
    const char *pc_ServeurLmtp = nullptr;     // -r
    const char *pc_SuffixeBoite = "";         // -c
    const char *pc_SuffixeSpam = nullptr;     // -s
    char *pc_HotesLdap = nullptr;             // -l, commas turned into spaces
    const char *pc_ServeursPrincipaux = nullptr;  // -p as given
    const char *pc_Postmaster = nullptr;      // -m
    // Main-server names split from a private copy of -p, null-terminated.
    char *tpc_ServeursPrincipaux[NB_MAX_SERVEURS_PRINCIPAUX + 1] = {};
    // LMTP delivery: recipient addresses and mailbox identifiers, each
    // gi_nbDestLcmd + 1 entries, filled by the recipient loop.
    char **tpc_AdrLmtp = nullptr;
    char **tpc_UidLmtp = nullptr;
};

// What the sender analysis found, for the header rewriting and the loop.
struct AnalyseEmetteur {
    char Pc_Adresse[TAILLE_ADRESSE] = "";  // the From address, with fall-backs
    char Pc_Nom[TAILLE_PHRASE] = "";       // display name for the new From
    const char *pc_PassagePrecedent = "";  // "\t+ from original: ..." of a former pass
    int i_mdf = 0;              // From differs from the envelope (or robot / empty)
    int i_lda = 1;              // envelope sender well formed
    int i_fdv = 0;              // envelope sender in the internal domain
    int i_Robot = 0;            // envelope sender empty or a mailer daemon
    int i_NonAuthentifie = 0;   // internal zone, outside the internal domain
    const char *pc_MarqueOrigine = "";   // in front of the display name
    const char *pc_LibelleOrigine = "";  // X-ravokOrigine and the display name
    // Once decorated: bytes of Pc_Nom before the sender's own name (the
    // origin mark) and after it (" (label, depositor)").
    std::size_t t_Marque = 0;
    std::size_t t_Decoration = 0;
};

// Reads the header, builds the working copy, captures the Message-Id,
// analyses the sender, opens the directory and finds the origin zone.
void AnalyseMessage(const OptionsRemise *pst_Options, AnalyseEmetteur *pst_Analyse);

// The three stages of AnalyseMessage, apart so that the header analysis and
// rewriting can run without a directory (the fuzz target stands in for it):
// reading, working copy, Message-Id and the From analysis up to the sender
// classes;
void AnalyseEntete(AnalyseEmetteur *pst_Analyse);
// the directory: opens gld, looks the envelope sender up, sets
// gi_EmetteurZeldor and gi_EmetteurZeldorBoite and copies the entry's cn
// into pc_Cn (TAILLE_PHRASE bytes, empty when none);
void EmetteurAnnuaire(const OptionsRemise *pst_Options, const AnalyseEmetteur *pst_Analyse,
                      char *pc_Cn);
// the display name (the cn when the sender was found and the From agrees)
// and the origin zone.
void NomEtOrigine(AnalyseEmetteur *pst_Analyse, const char *pc_Cn);

// Rewrites the working header; returns the mailbox suffix for LMTP (-c, or
// -s for a message flagged as spam).
const char *ReecritEntete(const OptionsRemise *pst_Options, AnalyseEmetteur *pst_Analyse);

// Handles every recipient and delivers the LMTP ones; ends the process.
[[noreturn]] void BoucleDestinataires(OptionsRemise *pst_Options,
                                      const AnalyseEmetteur *pst_Analyse,
                                      const char *pc_Suffixe);

// Entry operation of the process (returns only for the "-decode" form).
int RemiseVorane(int argc, char **argv);

// Parses the delivery form's options into the run's values and the
// process-wide values; reports usage errors (level 2) and stops at "-d".
void AnalyseOptions(int argc, char **argv, OptionsRemise *pst_Options);

// Rewrites the description of the message in progress; i_Rang 0 gives the
// "(-/n)" form.
void MajInfoMessEnCours(const char *pc_MessageId, int i_Rang);

// Arms the time budget of the run (gi_BudgetExecution seconds): when it is
// spent, the command in progress is killed and the process ends with 75
// (with 0 once gi_IssueAcquise says the message is delivered).
void ArmeBudgetExecution();

// Delivery kinds (ravokVixRemise, any case); Refuse: a restriction refused
// the recipient, nothing is delivered.
enum class TypeRemise {
    Lmtp, Liste, ListeMu, ListeInconnue, Sympa, SympaBounce, Null, Attente, Inconnu, Refuse
};
// The kind named by a value: LMTP... (first four characters), LISTE,
// LISTE-BR, LISTE-MU, other LISTE..., SYMPA, SYMPA-BOUNCE, NULL, ATTENTE.
TypeRemise TypeDeRemise(const char *pc_Valeur);
// Looks the recipient in hand (gpc_RcptTo) up into the value table
// (NB_ATTR_LDAP_DEST + 1 null slots) and updates the main-server flag; the
// delivery kind's value, or null when the recipient cannot be delivered
// (level -3 reported: 4196 filter, 4198 not found, 4205 no kind).
const char *LitDestinataire(const OptionsRemise *pst_Options, char ***ttpc_Valeurs);
// The uid of an LMTP recipient, or null after the level -3 report 4475.
const char *UidLmtp(char **const *ttpc_Valeurs);
// Reports an unsupported kind at level -3 (4422 list kind, 4499 other).
void SignaleRemiseNonSupportee(TypeRemise e_Type, const char *pc_Remise);
// A list entry's bounce address (envelope sender when none) and reply
// address (empty when none), pointing into its values.
void AdressesListe(char **const *ttpc_Valeurs, const char **ppc_Bounce, const char **ppc_Reponse);
// The members a list's delivery starts from: ravokVixMembres, for a list
// sent as stored without the list's own address (gpc_RcptTo, any case;
// *pi_Retires counts those), null-ended; empty when the entry has no member.
std::vector<char *> MembresListe(TypeRemise e_Type, char **const *ttpc_Valeurs, int *pi_Retires);
// The list's reply address as the working header's Reply-To.
void PoseReplyTo(const char *pc_Reponse);
// The first address of the working header's To, empty without one.
std::string AdresseTo();

// Restriction and automatic reply for one recipient whose entry was read
// (values of gtpc_AttrLdapDest); 1 when a restriction refuses it.
int RestrictionsEtReponse(const AnalyseEmetteur *pst_Analyse, char **const *ttpc_Valeurs);
// The store's refusal report as a "Non remis (incident)" notice.
void AvisRefusLmtp(const char *pc_Rapport);
// Path of the frequency file of a recipient's uid and a sender, both parts
// escaped; 0, or -1 when the name would be too long.
int CheminFrequence(const char *pc_Uid, const char *pc_Emetteur, char *pc_Chemin,
                    std::size_t t_Taille);
// Where the automatic reply's frequency stands for a recipient and the
// sender of the message in progress.
struct EtatFrequence {
    char Pc_Chemin[TAILLE_TEXTE];  // the frequency file
    time_t t_Derniere;             // its modification time, -1 without one
    bool b_Permise;                // a reply may go now
};
// Reads it for a frequency in minutes; 0, or -1 after warning 4360 (name
// too long: no reply).
int LitFrequence(const char *pc_Uid, int i_Freq, EtatFrequence *pst);
// The automatic reply's From text: the recipient's cn and sending address.
std::string FromReponse(const char *pc_Cn, const char *pc_Emission);
// The restriction notice's text (ISO-8859-1) for the recipient in hand.
void TexteRestriction(const char *pc_Cn, char *pc_Texte, std::size_t t_Taille);

// The explain form, once the command line is read: what a delivery of the
// message would do for every recipient, on standard output; exit 1.
[[noreturn]] void Explique(OptionsRemise *pst_Options);

// 1 when the main-server value names one of the listed servers (any case).
int EstServeurPrincipal(char *const *tpc_Serveurs, const char *pc_Valeur);
