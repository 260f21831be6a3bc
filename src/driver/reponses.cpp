// reponses.cpp - the recipient loop's side of restrictions, automatic
// replies and the store's refusal report.
//
// RestrictionsEtReponse(analysis, recipient's values), for one recipient
// whose entry was read:
//   - a restriction that refuses the message: the recipient gets nothing;
//     on its main server the sender gets a "Non remis (restriction)" notice
//     from the postmaster (text in ISO-8859-1, the recipient's cn converted
//     from UTF-8).  Returns 1.
//   - otherwise, unless the sender is unauthenticated or this is not the
//     recipient's main server, an automatic reply when the rules call for
//     one and its frequency file allows it: "Réponse automatique" from the
//     recipient's name and sending address, UTF-8; the frequency file is
//     touched only when the reply was handed over.  Returns 0.
// AvisRefusLmtp(report): the store's refusal report as a "Non remis
// (incident)" notice, on the main server.
//
// Frequency files: <spool>Absences/AvisAbs..<uid>..<sender>.txt, the sender
// being the envelope sender or what follows its first ".-.".  Both parts
// come from outside, so each is written with "%XX" escapes for "/", "%",
// control bytes, and a "." that begins or ends the part or touches another
// "." — the name can neither leave Absences/ nor be taken for the name of
// another (uid, sender) pair, and ordinary names stay as they are.  A name
// longer than a file name may be (255 bytes) cannot be kept: no reply then
// (warning 4360), so that a sender is never answered at every message.
// The file is opened without following a link planted in the directory.
// LitFrequence (the file, its date, whether a reply may go now) and
// TexteRestriction are shared with the explain form, which reads the file
// and never touches it.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <fcntl.h>
#include <syslog.h>
#include <sys/stat.h>
#include <unistd.h>

#include "codec/codec.h"
#include "directory/directory.h"
#include "driver/driver.h"
#include "message/message.h"
#include "report/report.h"
#include "rules/rules.h"

namespace {

constexpr std::size_t TAILLE_NOM_FICHIER = 255;
constexpr const char *PC_LIBELLE_RESTRICTION = "Non remis (restriction)";
constexpr const char *PC_LIBELLE_REPONSE = "R\xe9ponse automatique";  // ISO-8859-1
constexpr const char *PC_LIBELLE_INCIDENT = "Non remis (incident)";
constexpr const char *PC_TEXTE_RESTRICTION =
    "Une restriction de remise a emp\xea"
    "ch\xe9 la remise du message \xe0 \"%s\" <mailto:%s>";  // ISO-8859-1

// Appends one part of a frequency file name, escaped; false when it does
// not fit.
bool AjoutePartie(std::string *ps_Nom, const char *pc_Partie) {
    static const char pc_Hexa[] = "0123456789ABCDEF";
    std::size_t t_Long = strlen(pc_Partie);
    for (std::size_t i = 0; i < t_Long; i++) {
        unsigned char c = static_cast<unsigned char>(pc_Partie[i]);
        bool b_Point = c == '.' && (i == 0 || i + 1 == t_Long || pc_Partie[i - 1] == '.' ||
                                    pc_Partie[i + 1] == '.');
        if (c == '/' || c == '%' || c < 0x20 || c == 0x7f || b_Point) {
            *ps_Nom += '%';
            *ps_Nom += pc_Hexa[c >> 4];
            *ps_Nom += pc_Hexa[c & 0x0f];
        } else {
            *ps_Nom += static_cast<char>(c);
        }
    }
    return ps_Nom->size() <= TAILLE_NOM_FICHIER;
}

// Reads the frequency file's modification time without following a link
// (-1 when it cannot be examined: no file yet).
time_t DateFrequence(const char *pc_Chemin) {
    struct stat st;
    if (lstat(pc_Chemin, &st) != 0) return -1;
    return st.st_mtime;
}

// The automatic reply for one recipient, when due and allowed.
void ReponseAutomatique(const AnalyseEmetteur *pst_Analyse, char **const *ttpc_Valeurs) {
    auto Valeur = [&](const char *pc_Nom) {
        return pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, pc_Nom, 0);
    };
    char *pc_Texte = nullptr;
    int i_Freq = FREQ_REPONSE_DEFAUT;
    if (!DetReponseAuto(pst_Analyse->Pc_Adresse,
                        tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "ravokVixReponse"),
                        &pc_Texte, &i_Freq))
        return;

    // The frequency file of this recipient and sender.
    EtatFrequence st_Frequence;
    if (LitFrequence(Valeur("uid"), i_Freq, &st_Frequence) != 0 || !st_Frequence.b_Permise)
        return;

    std::string s_From = FromReponse(Valeur("cn"), Valeur("ravokVixmailEmission"));
    if (EnvoiReponse(gpet_EnteteMess, "", s_From.c_str(), pc_MiseEnFormeMess(pc_Texte),
                     PC_LIBELLE_REPONSE, "UTF-8", Valeur("uid")))
        _touchfic(st_Frequence.Pc_Chemin);
}

}  // namespace

// The reply's From: the recipient's name quoted, as UTF-8 encoded words,
// and its sending address on a continuation line.
std::string FromReponse(const char *pc_Cn, const char *pc_Emission) {
    char pc_Guillemets[TAILLE_TEXTE];
    snprintf(pc_Guillemets, sizeof pc_Guillemets, "\"%s\"", pc_Cn != nullptr ? pc_Cn : "");
    char pc_Encode[TAILLE_TEXTE];
    EncodeQP(pc_Guillemets, "UTF-8", pc_Encode, static_cast<int>(sizeof pc_Encode));
    return std::string(pc_Encode) + "\n\t<" + (pc_Emission != nullptr ? pc_Emission : "") + ">";
}

// The frequency file of a recipient and the envelope sender (or what
// follows its first ".-."), its date and whether a reply of the given
// frequency (minutes) may go now: an absent file always lets it go.  A
// name too long to be kept is a warning (4360) and -1: no reply.  An entry
// without a uid (a list may carry reply rules) is named by "@" and its
// address, which no uid begins with: one shared name would let one such
// entry's reply hold back every other's to the same sender.
int LitFrequence(const char *pc_Uid, int i_Freq, EtatFrequence *pst) {
    const char *pc_Cle = strstr(gpc_MailFrom, ".-.");
    pc_Cle = pc_Cle != nullptr ? pc_Cle + 3 : gpc_MailFrom;
    const std::string s_Nom = pc_Uid != nullptr && pc_Uid[0] != '\0' ? std::string(pc_Uid)
                                                                      : std::string("@") + gpc_RcptTo;
    pst->t_Derniere = -1;
    pst->b_Permise = false;
    if (CheminFrequence(s_Nom.c_str(), pc_Cle, pst->Pc_Chemin, sizeof pst->Pc_Chemin) != 0) {
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/4360: Nom de fichier de frequence trop long, pas de reponse "
                         "automatique. %s",
                         gPc_InfoMessEnCours);
        return -1;
    }
    pst->t_Derniere = DateFrequence(pst->Pc_Chemin);
    pst->b_Permise = pst->t_Derniere < 0 || static_cast<long long>(time(nullptr)) - pst->t_Derniere >
                                                static_cast<long long>(i_Freq) * 60;
    return 0;
}

// The restriction notice's text for the recipient in hand: ISO-8859-1, the
// cn converted from UTF-8 (a missing one empty), cut to its buffer like
// every text of a notice.
void TexteRestriction(const char *pc_Cn, char *pc_Texte, std::size_t t_Taille) {
    char pc_Converti[TAILLE_TEXTE];
    conv_jc(pc_Cn != nullptr ? pc_Cn : "", "UTF-8", pc_Converti, "ISO-8859-1", sizeof pc_Converti);
    if (snprintf(pc_Texte, t_Taille, PC_TEXTE_RESTRICTION, pc_Converti, gpc_RcptTo) < 0)
        pc_Texte[0] = '\0';
}

// The frequency file path of a recipient's uid and a sender; 0, or -1
// (path emptied) when the name would be too long.
int CheminFrequence(const char *pc_Uid, const char *pc_Emetteur, char *pc_Chemin,
                    std::size_t t_Taille) {
    std::string s_Nom = "AvisAbs..";
    bool b_Ok = AjoutePartie(&s_Nom, pc_Uid != nullptr ? pc_Uid : "");
    s_Nom += "..";
    b_Ok = b_Ok && AjoutePartie(&s_Nom, pc_Emetteur != nullptr ? pc_Emetteur : "");
    s_Nom += ".txt";
    int i_Long = snprintf(pc_Chemin, t_Taille, "%sAbsences/%s", gpc_RacineSpool, s_Nom.c_str());
    if (!b_Ok || s_Nom.size() > TAILLE_NOM_FICHIER || i_Long < 0 ||
        static_cast<std::size_t>(i_Long) >= t_Taille) {
        if (t_Taille > 0) pc_Chemin[0] = '\0';
        return -1;
    }
    return 0;
}

// Restriction and automatic reply for one recipient; 1 when refused.
int RestrictionsEtReponse(const AnalyseEmetteur *pst_Analyse, char **const *ttpc_Valeurs) {
    auto Valeur = [&](const char *pc_Nom) {
        return pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, pc_Nom, 0);
    };
    if (RestrictionDeRemise(pst_Analyse->Pc_Adresse,
                            tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc_Valeurs,
                                            "ravokVixRestrictions"))) {
        char pc_Texte[TAILLE_TEXTE];
        TexteRestriction(Valeur("cn"), pc_Texte, sizeof pc_Texte);
        // No uid (a list entry, say): the notice goes without a Message-Id.
        if (gi_OnEstSurServeurPrincipal)
            EnvoiReponse(gpet_EnteteMess, "", gpc_AdPostmaster, pc_Texte, PC_LIBELLE_RESTRICTION,
                         "ISO-8859-1", Valeur("uid"));
        return 1;
    }
    if (!pst_Analyse->i_NonAuthentifie && gi_OnEstSurServeurPrincipal)
        ReponseAutomatique(pst_Analyse, ttpc_Valeurs);
    return 0;
}

// The store's refusal report, as a notice to the sender.
void AvisRefusLmtp(const char *pc_Rapport) {
    if (pc_Rapport == nullptr || !gi_OnEstSurServeurPrincipal) return;
    EnvoiReponse(gpet_EnteteMess, "", gpc_AdPostmaster, pc_Rapport, PC_LIBELLE_INCIDENT,
                 "ISO-8859-1", nullptr);
}
