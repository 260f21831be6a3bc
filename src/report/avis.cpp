// avis.cpp - the incident notice sent to the sender of a refused message.
//
// AvisIncident(message, dump file) is asked by TraitementErreur for every
// level-3 (and -3) report.  A notice goes out only when no notice is in
// progress, the envelope sender and the working header exist and the
// program runs on the recipient's main server.  Its text (ISO-8859-1) names
// the recipient, the report (every quoted item ending its line), the host
// and the dump file; it is sent from the postmaster with the null sender
// and the label "Non remis (incident)".  Once handed to the reply
// composition the notice counts as sent, even when a guard suppresses it.
// si_ErreurEnCours stays set while the notice is sent, so that a failure
// inside that sending reports without a second notice.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "report/report.h"
#include "socle.h"

int si_ErreurEnCours = 0;
FonctionEnvoiReponse gpf_EnvoiReponse = nullptr;

namespace {

constexpr std::size_t TAILLE_HOTE = 64;
// Fixed texts, ISO-8859-1 (é = \xe9, à = \xe0).
constexpr const char *PC_AVIS =
    "Un incident technique grave a emp\xea" "ch\xe9 la remise du message \xe0  <mailto:%s>\n\n"
    "Description du probleme de remise-vorane:\n%s\n\nServeur en cause: %s\n"
    "Fichier d'infos pour debug: %s";
constexpr const char *PC_AVIS_COURT =
    "Un incident technique grave a emp\xea" "ch\xe9 la remise du message";

}  // namespace

// Sends the incident notice; 1 when it counts as sent.
int AvisIncident(const char *pc_Message, const char *pc_FichierDebug) {
    if (si_ErreurEnCours || gpc_MailFrom == nullptr || gpet_EnteteMess == nullptr ||
        !gi_OnEstSurServeurPrincipal || gpf_EnvoiReponse == nullptr)
        return 0;
    si_ErreurEnCours = 1;

    char pc_Hote[TAILLE_HOTE + 1] = "";
    if (gethostname(pc_Hote, TAILLE_HOTE) != 0) pc_Hote[0] = '\0';
    pc_Hote[TAILLE_HOTE] = '\0';

    // Each quoted item of the report ends its line.
    std::string s_Message = pc_Message != nullptr ? pc_Message : "";
    for (std::size_t i = 0; (i = s_Message.find("\" ", i)) != std::string::npos; i += 2)
        s_Message[i + 1] = '\n';

    char *pc_Texte = nullptr;
    if (asprintf(&pc_Texte, PC_AVIS, gpc_RcptTo != nullptr ? gpc_RcptTo : "", s_Message.c_str(),
                 pc_Hote, pc_FichierDebug != nullptr ? pc_FichierDebug : "") < 0)
        pc_Texte = nullptr;
    gpf_EnvoiReponse(gpet_EnteteMess, "", gpc_AdPostmaster,
                     pc_Texte != nullptr ? pc_Texte : PC_AVIS_COURT, "Non remis (incident)",
                     "ISO-8859-1", nullptr);
    free(pc_Texte);
    return 1;
}
