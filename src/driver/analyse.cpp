// analyse.cpp - message intake and sender analysis.
//
// AnalyseMessage reads the header from standard input into the incoming
// header, builds the working header, captures the Message-Id, writes
// "remise-vorane[pid]: description" on standard error, and works out who
// sent the message: the From address and display name with their
// fall-backs, an earlier pass through this program (its trace header), the
// sender classes (from-differs, well-formed, internal domain, daemon,
// unauthenticated), the sender's directory entry, and the origin zone.
// It runs as three stages (driver.h): AnalyseEntete, EmetteurAnnuaire,
// NomEtOrigine; the fuzz target of the header rewriting runs the first and
// the last around a directory of its own making.
//
// The working header holds one node for each whole line: a line longer than
// one read arrives as several pieces, which the incoming header keeps as
// nodes of their own and the working header joins into one text, so that
// every lookup sees only the start of a line and a rewritten line replaces
// all of it.  A line read in one piece keeps sharing the incoming text.
//
// The earlier-pass line "\t+ from original: phrase <address>,\n" goes into
// the new trace header: its phrase goes through EpureControles and its
// address is written by EcritAdresse, like every text from the message that
// the header rewriting puts into a line of its own.
//
// Oddities of the From are warnings (level 4: 3681, 3688, 3700, 3733,
// 3780); 3725 and 3738 are information lines; 3728 and allocation failures
// are level 2; a broken address pattern is level 3 (3836); a matching error
// is logged (3839).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include "codec/codec.h"
#include "directory/directory.h"
#include "driver/driver.h"
#include "message/message.h"
#include "report/report.h"
#include "rules/rules.h"

namespace {

constexpr const char *PC_NOM_PLUSIEURS_FROM = "Adresse emetteur illisible - Plusieurs from";
constexpr const char *PC_NOM_ADRESSE_VIDE = "Adresse emetteur illisible - Adresse vide";
constexpr const char *PC_NOM_ILLISIBLE = "Adresse emetteur illisible";
constexpr const char *PC_MARQUE_PASSAGE = "+ from original: ";
constexpr const char *PC_LIBELLE_NON_AUTHENTIFIE = "emetteur non authentifie";
constexpr const char *PC_MARQUE_NON_AUTHENTIFIE = "~ ";
constexpr const char *PC_MOTIF_ADRESSE_SMTP =
    "^[a-z0-9\\-\\.'_]+@[a-z0-9\\-\\.]+\\.[a-z0-9\\-\\.]+$";

// Envelope sender that replaces an empty one for the rest of the run.
char sPc_EmetteurVide[TAILLE_ADRESSE];

// True when the node ends a whole line: its text ends with a line feed, or
// nothing follows it.
bool FinDeLigne(const Entete *pet) {
    std::size_t t_Long = strlen(pet->pc_Ligne);
    return pet->pet_Suivant == nullptr || (t_Long > 0 && pet->pc_Ligne[t_Long - 1] == '\n');
}

// Reads the header and builds the working copy, one node for each whole
// line: the pieces of a line longer than one read are joined into one text.
void LitEntetes() {
    LitEntete(&gpet_EnteteMessOrigine);
    if (gpet_EnteteMessOrigine == nullptr) {
        Entete *pet = nullptr;
        gpet_EnteteMessOrigine = ChargeLigne(&pet, "\n", 0);
    }
    Entete *pet_Curseur = nullptr;
    for (Entete *pet = gpet_EnteteMessOrigine; pet != nullptr; pet = pet->pet_Suivant) {
        Entete *pet_Nouveau = nullptr;
        if (FinDeLigne(pet)) {
            pet_Nouveau = ChargeLigne(&pet_Curseur, pet->pc_Ligne, ADOPTE_TEXTE);
        } else {
            std::size_t t_Total = strlen(pet->pc_Ligne);
            for (Entete *pet_Piece = pet; !FinDeLigne(pet_Piece);)
                t_Total += strlen((pet_Piece = pet_Piece->pet_Suivant)->pc_Ligne);
            pet_Nouveau = ChargeLigne(&pet_Curseur, pet->pc_Ligne, t_Total + 1);
            char *pc_Fin = pet_Nouveau->pc_Ligne + strlen(pet->pc_Ligne);
            while (!FinDeLigne(pet)) {
                pet = pet->pet_Suivant;
                std::size_t t_Piece = strlen(pet->pc_Ligne);
                memcpy(pc_Fin, pet->pc_Ligne, t_Piece + 1);
                pc_Fin += t_Piece;
            }
        }
        if (gpet_EnteteMess == nullptr) gpet_EnteteMess = pet_Nouveau;
    }
}

// The From address and display name, with their warnings (steps 5 to 7).
void AnalyseFrom(AnalyseEmetteur *pst) {
    const char *pc_From = RecupValeurEntete(gpet_EnteteMess, "from:");
    pst->Pc_Adresse[0] = '\0';
    pst->Pc_Nom[0] = '\0';
    if (!LigneEnteteVide(pc_From)) {
        const char *pc_Reste = FetchAddress(pc_From, pst->Pc_Adresse, sizeof pst->Pc_Adresse,
                                            pst->Pc_Nom, sizeof pst->Pc_Nom);
        if (*pc_Reste != '\0') {
            TraitementErreur(NIVEAU_AVERTISSEMENT,
                             "v1.1.0/3681: Analyse du From, pb : Plusieurs adresses <%s>/<%s> ?. %s",
                             pc_From, pc_Reste, gPc_InfoMessEnCours);
            _strncpy(pst->Pc_Nom, PC_NOM_PLUSIEURS_FROM, sizeof pst->Pc_Nom);
        }
    }
    if (pst->Pc_Adresse[0] != '\0') {
        if (strcasecmp(pst->Pc_Adresse, gpc_PostmasterRelais) == 0)
            _strncpy(pst->Pc_Adresse, gpc_PostmasterDefaut, sizeof pst->Pc_Adresse);
        pst->i_mdf = strcasecmp(pst->Pc_Adresse, gpc_MailFrom) != 0;
        if (!_expjok("?*@?*.?*", pst->Pc_Adresse))
            TraitementErreur(NIVEAU_AVERTISSEMENT,
                             "v1.1.0/3700: Analyse du From, mauvais format adresse ! <%s> ?. %s",
                             pc_From, gPc_InfoMessEnCours);
    } else {
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/3688: Analyse du From, partie adresse vide ! <%s> ?. %s", pc_From,
                         gPc_InfoMessEnCours);
        _strncpy(pst->Pc_Adresse, gpc_MailFrom, sizeof pst->Pc_Adresse);
    }
}

// An earlier pass through this program: takes back the display name it
// recorded for the same address (step 8).
void AnalysePassagePrecedent(AnalyseEmetteur *pst) {
    const char *pc_Trace = RecupValeurEntete(gpet_EnteteMess, "X-Remise-Vorane: ");
    if (LigneEnteteVide(pc_Trace)) return;
    const char *pc = strstr(pc_Trace, PC_MARQUE_PASSAGE);
    if (pc == nullptr) {
        syslog(LOG_INFO,
               "v1.1.0/3738: Message deja traite par remise-vorane, mais sans + from original: . %s",
               gPc_InfoMessEnCours);
        return;
    }
    char pc_Adresse[TAILLE_ADRESSE];
    char pc_Phrase[TAILLE_PHRASE];
    FetchAddress(pc + strlen(PC_MARQUE_PASSAGE), pc_Adresse, sizeof pc_Adresse, pc_Phrase,
                 sizeof pc_Phrase);
    if (strcasecmp(pc_Adresse, pst->Pc_Adresse) != 0) {
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/3733: Message deja traite par remise-vorane, pas de reprise from "
                         "Original cou/ori = %s <%s> / %s <%s>. %s",
                         pst->Pc_Nom, pst->Pc_Adresse, pc_Phrase, pc_Adresse, gPc_InfoMessEnCours);
        return;
    }
    syslog(LOG_INFO,
           "v1.1.0/3725: Message deja traite par remise-vorane, reprise nom from Original, "
           "cou/ori = %s / %s. %s",
           pst->Pc_Nom, pc_Phrase, gPc_InfoMessEnCours);
    _strncpy(pst->Pc_Nom, pc_Phrase, TAILLE_ADRESSE);  // at most 255 characters
    char pc_Ecrite[TAILLE_TEXTE];
    EcritAdresse(pc_Adresse, pc_Ecrite, sizeof pc_Ecrite);
    EpureControles(pc_Phrase, 0);
    char *pc_Ligne = nullptr;
    if (asprintf(&pc_Ligne, "\t+ from original: %s <%s>,\n", pc_Phrase, pc_Ecrite) < 0)
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/3728: Erreur asprintf, errno=%d (%s). %s", errno,
                         strerror(errno), gPc_InfoMessEnCours);
    pst->pc_PassagePrecedent = pc_Ligne;
}

// 1 when the envelope sender has the shape of a mail address; the pattern
// is compiled once per process.
int AdresseSmtpValide() {
    static pcre2_code *sppcre_Adresse = nullptr;
    if (sppcre_Adresse == nullptr) sppcre_Adresse = CompileMotif(PC_MOTIF_ADRESSE_SMTP, 3836);
    if (sppcre_Adresse == nullptr) return 0;
    int i_Res = CorrespondMotif(sppcre_Adresse, gpc_MailFrom);
    if (i_Res < PCRE2_ERROR_NOMATCH)
        syslog(LOG_WARNING,
               "v1.1.0/3839: Erreur pcre_exec sur test adresse SMTP Trobine <%s>, cr=%d. %s",
               gpc_MailFrom, i_Res, gPc_InfoMessEnCours);
    return i_Res >= 0;
}

// Fall-backs and sender classes (steps 9 to 14).
void ClasseEmetteur(AnalyseEmetteur *pst) {
    if (pst->Pc_Adresse[0] == '\0') {
        pst->i_mdf = 1;
        _strncpy(pst->Pc_Adresse, gpc_PostmasterDefaut, sizeof pst->Pc_Adresse);
        if (strncmp(pst->Pc_Nom, PC_NOM_ILLISIBLE, strlen(PC_NOM_ILLISIBLE)) != 0)
            _strncpy(pst->Pc_Nom, PC_NOM_ADRESSE_VIDE, sizeof pst->Pc_Nom);
        pst->i_lda = 0;
    }
    if (gpc_MailFrom[0] == '\0' || _expjok("mailer-daemon@?*", gpc_MailFrom)) {
        pst->i_Robot = 1;
        pst->i_mdf = 1;
        if (gpc_MailFrom[0] == '\0') {
            _strncpy(sPc_EmetteurVide, gpc_EmetteurVide, sizeof sPc_EmetteurVide);
            gpc_MailFrom = sPc_EmetteurVide;
        }
    }
    if (CodageQPNecessaire(pst->Pc_Nom)) {
        conv_Iso8859_Ascii7(pst->Pc_Nom);
        TraitementErreur(NIVEAU_AVERTISSEMENT, "v1.1.0/3780: deco From non 7bit <%s>. %s",
                         pst->Pc_Nom, gPc_InfoMessEnCours);
    }

    // Internal domain and internal zone, each a list of one joker.
    char pc_Joker[TAILLE_ADRESSE + 2];
    if (!pst->i_Robot) {
        snprintf(pc_Joker, sizeof pc_Joker, "*%s", gpc_DomaineInterne);
        const char *const tpc_Internes[] = {pc_Joker, nullptr};
        for (int i = 0; tpc_Internes[i] != nullptr && !pst->i_fdv; i++)
            if (_expjok(tpc_Internes[i], gpc_MailFrom)) pst->i_fdv = 1;
    }
    snprintf(pc_Joker, sizeof pc_Joker, "*.%s", gpc_DomaineInterne);
    if (!_expjok(pc_Joker, gpc_MailFrom)) {
        snprintf(pc_Joker, sizeof pc_Joker, "*.%s", gpc_TldInterne);
        const char *const tpc_Zone[] = {pc_Joker, nullptr};
        for (int i = 0; tpc_Zone[i] != nullptr && !pst->i_NonAuthentifie; i++)
            if (_expjok(tpc_Zone[i], gpc_MailFrom)) pst->i_NonAuthentifie = 1;
    }
    if (pst->i_lda) pst->i_lda = AdresseSmtpValide();
}

// One sender lookup; the entry's values stay in the slots when found.
int ChercheEmetteur(const char *pc_Attribut, char ***ttpc_Valeurs) {
    char pc_Filtre[TAILLE_FILTRE];
    if (ConstruitFiltreLdap(pc_Filtre, sizeof pc_Filtre, pc_Attribut, gpc_MailFrom) != 0) {
        // An address whose escaped form does not fit a filter cannot be looked
        // up; it is treated as not found, which only loses the directory name.
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/3790: Adresse emetteur trop longue pour un filtre annuaire <%s>. %s",
                         gpc_MailFrom, gPc_InfoMessEnCours);
        return 0;
    }
    return RecupUneEntreeLdap(gld, pc_Filtre, gtpc_AttrLdapEmet, ttpc_Valeurs);
}

// Releases the values of one lookup.
void LibereValeurs(char ***ttpc_Valeurs, int i_Nb) {
    for (int i = 0; i < i_Nb; i++) {
        LibereValeursLdap(ttpc_Valeurs[i]);
        ttpc_Valeurs[i] = nullptr;
    }
}

// Origin zone, its label and mark (steps 21 and 22).
void Origine(AnalyseEmetteur *pst) {
    int i_Zone = ZoneOrigine(gpet_EnteteMess);
    if (gtpc_LibelleZone[i_Zone][0] != '\0') {
        pst->pc_MarqueOrigine = gtpc_MarqueZone[i_Zone];
        pst->pc_LibelleOrigine = gtpc_LibelleZone[i_Zone];
    }
    if (pst->i_NonAuthentifie) {
        if (pst->pc_LibelleOrigine[0] == '\0') pst->pc_LibelleOrigine = PC_LIBELLE_NON_AUTHENTIFIE;
        if (pst->pc_MarqueOrigine[0] == '\0') pst->pc_MarqueOrigine = PC_MARQUE_NON_AUTHENTIFIE;
    }
}

}  // namespace

// Reading, working copy, Message-Id, description, then the From, an earlier
// pass, fall-backs and classes (steps 1 to 14).
void AnalyseEntete(AnalyseEmetteur *pst) {
    LitEntetes();
    // The Message-Id ends every log line: its control bytes become blanks,
    // so that a message cannot forge a line of the log or drive a terminal.
    RecupValeur(RecupValeurEntete(gpet_EnteteMess, "Message-Id:"), " <", ">", gPc_MessageId,
                sizeof gPc_MessageId);
    EpureControles(gPc_MessageId, 0);
    MajInfoMessEnCours(gPc_MessageId, 0);
    fprintf(stderr, "remise-vorane[%d]: %s\n", static_cast<int>(getpid()), gPc_InfoMessEnCours);

    AnalyseFrom(pst);
    AnalysePassagePrecedent(pst);
    ClasseEmetteur(pst);
}

// Opens the directory and looks the envelope sender up (steps 15 and 16):
// gi_EmetteurZeldor, gi_EmetteurZeldorBoite, and the entry's cn, at most 511
// characters, in pc_Cn (TAILLE_PHRASE bytes; empty when none).
void EmetteurAnnuaire(const OptionsRemise *pst_Options, const AnalyseEmetteur *pst,
                      char *pc_Cn) {
    gld = ldapConnect(pst_Options->pc_HotesLdap);

    char **ttpc_Valeurs[NB_ATTR_LDAP_EMET + 1] = {};
    if (pst->i_lda && !pst->i_fdv && gpc_MailFrom[0] != '\0') {
        gi_EmetteurZeldor = ChercheEmetteur("ravokVixmailEmission", ttpc_Valeurs);
        if (gi_EmetteurZeldor == 1) {
            char **tpc_Classes = tpc_ValeursLdap(gtpc_AttrLdapEmet, ttpc_Valeurs, "objectClass");
            for (int i = 0; tpc_Classes != nullptr && tpc_Classes[i] != nullptr; i++)
                if (strncasecmp(tpc_Classes[i], "ravokVixBoite", 13) == 0 ||
                    strncasecmp(tpc_Classes[i], "ravokVixObjetPartage", 20) == 0)
                    gi_EmetteurZeldorBoite = 1;
        } else {
            LibereValeurs(ttpc_Valeurs, NB_ATTR_LDAP_EMET);
            gi_EmetteurZeldor = ChercheEmetteur("mail", ttpc_Valeurs);
        }
    }
    _strncpy(pc_Cn, pc_ValeurLdap(gtpc_AttrLdapEmet, ttpc_Valeurs, "cn", 0), TAILLE_PHRASE);
    LibereValeurs(ttpc_Valeurs, NB_ATTR_LDAP_EMET);
}

// The display name (steps 17 to 20) and the origin zone (steps 21 and 22).
void NomEtOrigine(AnalyseEmetteur *pst, const char *pc_Cn) {
    if (pst->i_fdv) pst->Pc_Nom[0] = '\0';
    if (gi_EmetteurZeldor && !pst->i_mdf) {
        _strncpy(pst->Pc_Nom, pc_Cn, sizeof pst->Pc_Nom);
    } else if (pst->Pc_Nom[0] != '\0') {
        char pc_Decode[TAILLE_PHRASE];
        DecodeQP(pst->Pc_Nom, "UTF-8", pc_Decode, sizeof pc_Decode);
        DeQuotte(pc_Decode, pst->Pc_Nom, sizeof pst->Pc_Nom);
    }
    if (pst->Pc_Nom[0] == '\0') _strncpy(pst->Pc_Nom, pst->Pc_Adresse, sizeof pst->Pc_Nom);
    if (strchr(pst->Pc_Nom, '"') != nullptr) {
        char pc_Copie[TAILLE_PHRASE];
        DeQuotte(pst->Pc_Nom, pc_Copie, sizeof pc_Copie);
        _strncpy(pst->Pc_Nom, pc_Copie, sizeof pst->Pc_Nom);
    }
    Origine(pst);
}

// Reads the header and analyses the sender; see the unit's heading.
void AnalyseMessage(const OptionsRemise *pst_Options, AnalyseEmetteur *pst) {
    AnalyseEntete(pst);
    char pc_Cn[TAILLE_PHRASE];
    EmetteurAnnuaire(pst_Options, pst, pc_Cn);
    NomEtOrigine(pst, pc_Cn);
}
