// reponse.cpp - replies and notices composed by the program (see rules.h).
//
// EnvoiReponse answers the envelope sender of the message in progress:
// automatic replies, restriction notices, refusals by the mail store and
// incident notices all go through it.  Before composing anything it checks,
// in this order, the guards that keep the program from answering where it
// must not (each logged at LOG_WARNING, the reply suppressed): not the
// recipient's main server (2699); an envelope sender of the no-reply list
// (2711 equal, 2716 joker); an Auto-Submitted value other than "no..."
// (2725); a List-* or X-List-* header (2735); Precedence bulk, list or junk
// (2751); an empty body (silently); a spam flag (2773); an X-Loop line of
// this program (2793).  GardeReponse is those guards alone, without log
// lines, so that the explain form can ask them without sending anything.
// The reply is then: the Delivered-To, Received and
// X-Loop lines of the header being answered (shared, not copied; none at
// all is a level-3 report, 2816), Message-Id, Auto-Submitted,
// Precedence, X-Loop, Subject (label and the decoded subject, encoded in
// the reply's charset), References, In-Reply-To, To (the incoming From),
// From, Date, the MIME lines, an empty line, the body and a line feed.  It
// is submitted through sendmail (the shell-free submission) with the
// envelope sender given (the null sender for every use) to the envelope
// sender of the message in progress.
//
// Only the header of the message being answered is looked at: once the body
// has been loaded for a list delivery it follows the header in the working
// list, and a body line that begins like "List-Id:" or "Received:" must
// neither suppress a notice nor be copied into the reply's header.
//
// Every composed header line is one field: it is formatted into a 4096-byte
// buffer (a longer line is cut, keeping its final line feed), and in every
// text from the message or the directory that goes into it (the subject,
// the From shown in To:, the Message-Id, the recipient, the From text)
// every control byte becomes a blank, except a line feed followed by a
// blank or a tab (the value's own folding); a subject is unfolded.  Texts
// from the received message can therefore never add a line to the reply's
// header.  8-bit bytes are kept.
//
// pc_MiseEnFormeMess replaces the first "%h" of an automatic reply's text by
// the incoming header, without the Received lines of the site's intranet
// relays and of its internet relays' local hops (relay name prefixes are
// deployment values), within 9216 bytes; the text after "%h" follows when
// it fits in the 10240-byte buffer.
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <strings.h>
#include <syslog.h>

#include "codec/codec.h"
#include "message/message.h"
#include "report/report.h"
#include "rules/rules.h"
#include "socle.h"
#include "transport/transport.h"

namespace {

constexpr std::size_t TAILLE_LIGNE_REPONSE = 4096;
constexpr std::size_t TAILLE_SUJET = 512;
constexpr std::size_t TAILLE_LIBELLE = 64;
constexpr std::size_t TAILLE_DATE = 64;
constexpr std::size_t TAILLE_MESSAGE_FORME = 10240;
constexpr std::size_t TAILLE_AVANT_INSERTION = 8192;
constexpr std::size_t LIMITE_INSERTION = 9216;
constexpr std::size_t LIMITE_APRES_INSERTION = 10238;

// Envelope senders never answered, in the order they are tested.
const char *const tpc_SansReponse[] = {
    "mailer-daemon@*", "nobody@*", "*-owner@*", "www-data@*", "robot-*@*", "@*", "",
};
// Precedence values of mass mail.
const char *const tpc_Precedences[] = {"bulk", "list", "junk"};
// Lines of the received header the reply carries over.
const char *const tpc_LignesReprises[] = {"Delivered-To:", "Received:", "X-Loop:"};

// The formatted reply text of pc_MiseEnFormeMess, valid until its next call.
char *pc_message = nullptr;

// Copies a text from the message or the directory for a header line of the
// reply: every control byte becomes a blank, except a line feed followed by
// a blank or a tab (the value's own folding); line ends at its end go.
const char *Nettoie(const char *pc_Source, char *pc_Sortie, std::size_t t_Taille) {
    _strncpy(pc_Sortie, pc_Source, static_cast<std::uint32_t>(t_Taille));
    return EpureControles(pc_Sortie, 1);
}

// Formats one or more lines of the reply and appends them (copied) after
// the cursor.  A text cut by its buffer still ends with its line feed.
void AjouteLigne(Entete **ppet_Curseur, const char *pc_Format, ...)
    __attribute__((format(printf, 2, 3)));
void AjouteLigne(Entete **ppet_Curseur, const char *pc_Format, ...) {
    char pc_Ligne[TAILLE_LIGNE_REPONSE];
    va_list ap;
    va_start(ap, pc_Format);
    int i_Long = vsnprintf(pc_Ligne, sizeof pc_Ligne, pc_Format, ap);
    va_end(ap);
    if (i_Long >= static_cast<int>(sizeof pc_Ligne)) pc_Ligne[sizeof pc_Ligne - 2] = '\n';
    VerifLigneEOL(pc_Ligne);
    ChargeLigne(ppet_Curseur, pc_Ligne, 0);
}

// The guards, in their order, with the log line of the one that stops the
// reply; 0 when the reply is to be suppressed.
int ReponsePermise(Entete *pet_Entete, const char *pc_Corps, const char *pc_Jeton) {
    const char *pc_Detail = "";
    switch (GardeReponse(pet_Entete, pc_Corps, &pc_Detail)) {
    case GARDE_AUCUNE:
        return 1;
    case 2699:
        syslog(LOG_WARNING, "v1.1.0/2699: Pas de reponse si pas serveur principal. %s",
               gPc_InfoMessEnCours);
        break;
    case 2711:
        syslog(LOG_WARNING, "v1.1.0/2711: Pas de reponse a un emetteur <%s>. %s", pc_Detail,
               gPc_InfoMessEnCours);
        break;
    case 2716:
        syslog(LOG_WARNING, "v1.1.0/2716: Pas de reponse a un emetteur <%s>. %s", pc_Detail,
               gPc_InfoMessEnCours);
        break;
    case 2725:
        syslog(LOG_WARNING, "v1.1.0/2725: Pas de reponse a un message <Auto-Submitted: != no> ... %s",
               gPc_InfoMessEnCours);
        break;
    case 2735:
        syslog(LOG_WARNING, "v1.1.0/2735: Pas de reponse a un message de liste. %s",
               gPc_InfoMessEnCours);
        break;
    case 2751:
        syslog(LOG_WARNING, "v1.1.0/2751: Pas de reponse a un message <Precedence: %s>. %s",
               pc_Detail, gPc_InfoMessEnCours);
        break;
    case 2773:
        syslog(LOG_WARNING, "v1.1.0/2773: Pas de reponse a un message marque comme SPAM, %s. %s",
               pc_Jeton, gPc_InfoMessEnCours);
        break;
    case 2793:
        syslog(LOG_WARNING,
               "v1.1.0/2793: Pas de reponse a un message deja reponse de remise-vorane, %s. %s",
               pc_Jeton, gPc_InfoMessEnCours);
        break;
    default:  // an empty body: no reply, silently
        break;
    }
    return 0;
}

// The reply's Subject: the label, " : " and the decoded subject, encoded.
void LigneSujet(Entete **ppet_Curseur, Entete *pet_Entete, const char *pc_Libelle,
                const char *pc_Charset) {
    char pc_Sujet[TAILLE_SUJET];
    DecodeQP(RecupValeurEntete(pet_Entete, "subject:"), pc_Charset, pc_Sujet, sizeof pc_Sujet);
    // Unfolded as well: the subject joins the label on one line.
    EpureControles(pc_Sujet, 0);
    char pc_Libelle2[TAILLE_LIBELLE];
    conv_jc(pc_Libelle, "ISO-8859-1", pc_Libelle2, pc_Charset, sizeof pc_Libelle2);
    char pc_Texte[TAILLE_LIBELLE + 3 + TAILLE_SUJET];
    snprintf(pc_Texte, sizeof pc_Texte, "%s : %s", pc_Libelle2, pc_Sujet);
    char pc_Encode[TAILLE_SUJET];
    EncodeQP(pc_Texte, pc_Charset, pc_Encode, static_cast<int>(sizeof pc_Encode));
    AjouteLigne(ppet_Curseur, "Subject: %s\n", pc_Encode);
}

// What the test makes of the first field of that name it accepts, or null.
// Every field of the name is tried: a message may carry one twice (a relay
// or a list adds its own), and a robot's second "Auto-Submitted" or
// "Precedence: bulk" stops the reply as well as its first.
const char *ChampRetenu(Entete *pet_Entete, const char *pc_Nom, const char *(*Test)(const char *)) {
    for (Entete *pet = RecupEntete(pet_Entete, pc_Nom); pet != nullptr;
         pet = RecupEntete(pet->pet_Suivant, pc_Nom))
        if (const char *pc = Test(RecupValeurEntete(pet, pc_Nom)); pc != nullptr) return pc;
    return nullptr;
}

}  // namespace

// The first guard that stops a reply to the header (the header alone, its
// body detached); see rules.h.
int GardeReponse(Entete *pet_Entete, const char *pc_Corps, const char **ppc_Detail) {
    *ppc_Detail = "";
    if (!gi_OnEstSurServeurPrincipal) return 2699;
    const char *pc_Emetteur = gpc_MailFrom != nullptr ? gpc_MailFrom : "";
    for (const char *pc_Entree : tpc_SansReponse) {
        *ppc_Detail = pc_Entree;
        if (strcasecmp(pc_Emetteur, pc_Entree) == 0) return 2711;
        if (pc_Entree[0] != '\0' && _expjok(pc_Entree, pc_Emetteur)) return 2716;
    }
    *ppc_Detail = "";
    if (ChampRetenu(pet_Entete, "Auto-Submitted:", [](const char *pc) -> const char * {
            return !LigneEnteteVide(pc) && strncasecmp(pc, "no", 2) != 0 ? "" : nullptr;
        }) != nullptr)
        return 2725;
    if (RecupEntete(pet_Entete, "list-") != nullptr || RecupEntete(pet_Entete, "X-list-") != nullptr)
        return 2735;
    *ppc_Detail = ChampRetenu(pet_Entete, "Precedence:", [](const char *pc) -> const char * {
        for (const char *pc_Mot : tpc_Precedences)
            if (strncasecmp(pc, pc_Mot, strlen(pc_Mot)) == 0) return pc_Mot;
        return nullptr;
    });
    if (*ppc_Detail != nullptr) return 2751;
    *ppc_Detail = "";
    if (pc_Corps == nullptr || pc_Corps[0] == '\0') return GARDE_CORPS_VIDE;
    if (ChampRetenu(pet_Entete, "X-Spam-Flag:", [](const char *pc) -> const char * {
            return strncasecmp(pc, "yes", 3) == 0 ? "" : nullptr;
        }) != nullptr)
        return 2773;
    if (RecupLigneEntete(pet_Entete, "X-Loop: REMISE-VORANE,") != nullptr) return 2793;
    return GARDE_AUCUNE;
}

// True when the header holds a line the reply carries over (without one the
// composition is refused, 2816).
bool EnteteRepondable(Entete *pet_Entete) {
    for (Entete *pet = pet_Entete; pet != nullptr; pet = pet->pet_Suivant)
        for (const char *pc_Nom : tpc_LignesReprises)
            if (strncasecmp(pet->pc_Ligne, pc_Nom, strlen(pc_Nom)) == 0) return true;
    return false;
}

// The label as a token: ASCII letters kept, everything else "_".
void JetonLibelle(const char *pc_Libelle, char *pc_Jeton) {
    _strncpy(pc_Jeton, pc_Libelle, TAILLE_JETON);
    conv_Iso8859_Ascii7(pc_Jeton);
    for (char *pc = pc_Jeton; *pc != '\0'; pc++)
        if (!((*pc >= 'A' && *pc <= 'Z') || (*pc >= 'a' && *pc <= 'z'))) *pc = '_';
}

// Composes and submits a reply; see the unit's heading.
int EnvoiReponse(Entete *pet_Entete, const char *pc_EmetteurEnv, const char *pc_From,
                 const char *pc_Corps, const char *pc_Libelle, const char *pc_Charset,
                 const char *pc_PrefixeMsgId) {
    // 1. Envelope sender taken from the From text when none is given.
    char pc_Enveloppe[TAILLE_ADRESSE] = "";
    if (pc_EmetteurEnv == nullptr) {
        const char *pc = pc_From != nullptr ? strchr(pc_From, '<') : nullptr;
        if (pc != nullptr) {
            std::size_t t = strcspn(pc + 1, ">");
            _strncpy(pc_Enveloppe, pc + 1,
                     static_cast<std::uint32_t>(t + 1 < sizeof pc_Enveloppe ? t + 1 : sizeof pc_Enveloppe));
        }
        pc_EmetteurEnv = pc_Enveloppe;
    }

    // The header being answered, without the body that may follow it.
    struct SansCorps {
        Entete *pet_Entete, *pet_Corps;
        ~SansCorps() { RattacheCorps(pet_Entete, pet_Corps); }
    } st_SansCorps{pet_Entete, DetacheCorps(pet_Entete)};

    // 2-10. The guards.
    char pc_Jeton[TAILLE_JETON];
    JetonLibelle(pc_Libelle, pc_Jeton);
    if (!ReponsePermise(pet_Entete, pc_Corps, pc_Jeton)) return 0;

    // 11.1 The received lines the reply carries over, in header order.
    Entete *pet_Reponse = nullptr;
    Entete *pet_Curseur = nullptr;
    for (Entete *pet = pet_Entete; pet != nullptr; pet = pet->pet_Suivant)
        for (const char *pc_Nom : tpc_LignesReprises)
            if (strncasecmp(pet->pc_Ligne, pc_Nom, strlen(pc_Nom)) == 0) {
                ChargeLigne(&pet_Curseur, pet->pc_Ligne, ADOPTE_TEXTE);
                if (pet_Reponse == nullptr) pet_Reponse = pet_Curseur;
                break;
            }
    if (pet_Reponse == nullptr) {
        TraitementErreur(NIVEAU_ERREUR, "v1.1.0/2816: Erreur Entete incomplet. %s",
                         gPc_InfoMessEnCours);
        return 0;
    }

    // 11.2-11.11 The reply's own lines, outside texts cleaned.
    char pc_MsgId[TAILLE_TEXTE], pc_Prefixe[TAILLE_TEXTE], pc_Dest[TAILLE_TEXTE];
    char pc_To[TAILLE_LIGNE_REPONSE], pc_DeQui[TAILLE_LIGNE_REPONSE];
    Nettoie(gPc_MessageId, pc_MsgId, sizeof pc_MsgId);
    if (pc_PrefixeMsgId != nullptr)
        AjouteLigne(&pet_Curseur, "Message-Id: <%s.%s.%s>\n",
                    Nettoie(pc_PrefixeMsgId, pc_Prefixe, sizeof pc_Prefixe), pc_Jeton, pc_MsgId);
    AjouteLigne(&pet_Curseur, "Auto-Submitted: Auto-Replied\n");
    AjouteLigne(&pet_Curseur, "Precedence: bulk\n");
    AjouteLigne(&pet_Curseur, "X-Loop: REMISE-VORANE, <%s>, <%s>\n", pc_Jeton,
                Nettoie(gpc_RcptTo, pc_Dest, sizeof pc_Dest));
    LigneSujet(&pet_Curseur, pet_Entete, pc_Libelle, pc_Charset);
    AjouteLigne(&pet_Curseur, "References: <%s>\nIn-Reply-To: <%s>\n", pc_MsgId, pc_MsgId);
    AjouteLigne(&pet_Curseur, "To: %s\n",
                Nettoie(RecupValeurEntete(gpet_EnteteMessOrigine, "from:"), pc_To, sizeof pc_To));
    AjouteLigne(&pet_Curseur, "From: %s\n", Nettoie(pc_From, pc_DeQui, sizeof pc_DeQui));
    char pc_Date[TAILLE_DATE];
    _dattirfc822(time(nullptr), pc_Date, sizeof pc_Date);
    AjouteLigne(&pet_Curseur, "Date: %s\n", pc_Date);
    if (pc_Charset != nullptr)
        AjouteLigne(&pet_Curseur,
                    "MIME-Version: 1.0\nContent-Type: text/plain; charset=\"%s\"\n"
                    "Content-Transfer-Encoding: 8bit\n",
                    pc_Charset);

    // 11.12 End of the header, the body, a line feed.
    ChargeLigne(&pet_Curseur, "\n", 0);
    ChargeLigne(&pet_Curseur, pc_Corps, 0);
    ChargeLigne(&pet_Curseur, "\n", 0);

    // 12-14. To the envelope sender of the message in progress.
    char *tpc_Destinataires[] = {gpc_MailFrom, nullptr};
    syslog(LOG_INFO, "v1.1.0/2908: Depot reponse, %s. %s", pc_Jeton, gPc_InfoMessEnCours);
    EnvoiMessage(pet_Reponse, nullptr, pc_EmetteurEnv, tpc_Destinataires);
    return 1;
}

// The reply text with its first "%h" replaced by the incoming header.
char *pc_MiseEnFormeMess(char *pc_Texte) {
    char *pc_Marque = pc_Texte != nullptr ? strstr(pc_Texte, "%h") : nullptr;
    if (pc_Marque == nullptr) return pc_Texte;

    free(pc_message);
    pc_message = static_cast<char *>(malloc(TAILLE_MESSAGE_FORME));
    if (pc_message == nullptr) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/2653: Erreur sur malloc(), errno=%d (%s). %s",
                         i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        return pc_Texte;
    }

    // The text before "%h", then the header lines, then the text after it.
    *pc_Marque = '\0';
    std::size_t t = static_cast<std::size_t>(_strncpy(pc_message, pc_Texte, TAILLE_AVANT_INSERTION));
    pc_message[t++] = '\n';
    pc_message[t] = '\0';
    for (Entete *pet = gpet_EnteteMessOrigine; pet != nullptr; pet = pet->pet_Suivant) {
        const char *pc_Ligne = pet->pc_Ligne;
        bool b_Received = strncmp(pc_Ligne, "Received:", 9) == 0;
        if (b_Received && strstr(pc_Ligne, gpc_PrefixeRelaisIntra) != nullptr) continue;
        if (b_Received && strstr(pc_Ligne, gpc_PrefixeRelaisInet) != nullptr &&
            strstr(pc_Ligne, "127.0.0.1") != nullptr)
            continue;
        std::size_t t_Ligne = strlen(pc_Ligne);
        if (t + t_Ligne > LIMITE_INSERTION) break;
        memcpy(pc_message + t, pc_Ligne, t_Ligne + 1);
        t += t_Ligne;
    }
    pc_message[t++] = '\n';
    pc_message[t] = '\0';
    const char *pc_Apres = pc_Marque + 2;
    std::size_t t_Apres = strlen(pc_Apres);
    if (t + t_Apres <= LIMITE_APRES_INSERTION) memcpy(pc_message + t, pc_Apres, t_Apres + 1);
    return pc_message;
}
