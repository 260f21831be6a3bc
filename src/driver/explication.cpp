// explication.cpp - the explain form: what a delivery of a message would do
// for every recipient, and why, with nothing delivered, sent or written.
//
//   remise-vorane --explique [-r lmtp] [-c suffix] [-s spam-suffix] [-l hosts]
//                 [-p main-servers] [-m postmaster] -e sender -d recipient...
//
// The command line is read by the delivery form's own start-up (entree.cpp).
// Explique then:
//   1. takes the message from standard input when one is given: standard
//      input is not a terminal and holds at least one byte.  Otherwise (a
//      terminal, /dev/null, an empty pipe) a minimal message stands in, fed
//      to the same reader through a pipe: a Received line as Postfix would
//      add, a Message-ID, From the envelope sender, To the first recipient,
//      a Subject.  Only the header is read; the body is never needed;
//   2. runs the sender analysis (directory opened in one attempt) and the
//      header rewriting of a delivery, and says what they found;
//   3. for each recipient, as the recipient loop takes them: the directory
//      entry (or the report that says why there is none), the delivery
//      kind, the main-server flag, every restriction line in the order
//      evaluated with its verdict (the evaluators' trace), the automatic
//      reply (every rule line, the frequency and text retained, the
//      frequency file and whether it allows a reply now, the first guard of
//      the reply composition that would suppress it), and what the kind
//      does: the LMTP mailbox with its suffix, a list's bounce and reply
//      addresses, its members after expansion and de-duplication and the
//      number of sendmail batches, the Sympa program and its address;
//   4. the LMTP transaction after the loop and the rewritten header.
// Every decision is the delivery's own code: the delivery-kind table, the
// lookup, the evaluators, the guards, the frequency file's path and rule,
// the expansion and the submission's batch cut.  What would act is only
// said: no LMTP connection, no command, no notice or reply, no frequency
// file, marker or dump file.  Reports are said on standard output by
// TraitementErreur; one that would end a delivery ends the explanation.
// The process always ends with status 1.
//
// The texts are French without accents, like the log lines, so that any
// terminal shows them; directory values and header lines are shown as they
// are.  Messages: 4601 the minimal message cannot be fed (level 2).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <strings.h>
#include <unistd.h>
#include <vector>

#include "directory/directory.h"
#include "driver/driver.h"
#include "message/message.h"
#include "report/report.h"
#include "rules/rules.h"
#include "transport/transport.h"

namespace {

constexpr int DATE_DEBUT_DEFAUT = 0;
constexpr int DATE_FIN_DEFAUT = 99999999;
constexpr std::size_t TAILLE_DATE = 32;

// Set by the trace when a line decided, for the evaluator's outcome.
bool sb_LigneDecide = false;

// A text that may be null, for printing.
const char *Texte(const char *pc) { return pc != nullptr ? pc : "(aucun)"; }

// A date and time as "dd/mm/yyyy hh:mm:ss" (local time).
std::string Date(time_t t) {
    char pc[TAILLE_DATE];
    if (_dattifc(t, pc) < 0) return "?";
    return pc;
}

// The dates of a reply line, as its options give them.
std::string Dates(int i_Debut, int i_Fin) {
    if (i_Debut == DATE_DEBUT_DEFAUT && i_Fin == DATE_FIN_DEFAUT) return "sans dates";
    if (i_Fin == DATE_FIN_DEFAUT) return "a partir du " + std::to_string(i_Debut);
    if (i_Debut == DATE_DEBUT_DEFAUT) return "jusqu'au " + std::to_string(i_Fin);
    return "du " + std::to_string(i_Debut) + " au " + std::to_string(i_Fin);
}

// Prints one line of a rule list with what the evaluator made of it.
void TraceLigne(const TraceRegle *pst) {
    printf("    %s : ", pst->pc_Ligne);
    const char *pc_Ou = pst->i_Tentative == 2 ? " (sur l'expediteur d'enveloppe)" : "";
    switch (pst->e_Verdict) {
    case VerdictLigne::Malformee:
        printf("mal formee (cr=%d), ignoree\n", pst->i_Code);
        break;
    case VerdictLigne::Desactivee:
        printf("desactivee (#), ignoree\n");
        break;
    case VerdictLigne::Fausse:
        printf("fausse\n");
        break;
    case VerdictLigne::Vraie:
        sb_LigneDecide = true;
        if (pst->b_Reponse)
            printf("vraie%s, %s, aujourd'hui %d -> decide\n", pc_Ou,
                   Dates(pst->i_Debut, pst->i_Fin).c_str(), pst->i_Jour);
        else
            printf("vraie%s -> decide : %s\n", pc_Ou,
                   pst->c_Signe == '-' ? "refus" : "remise permise");
        break;
    case VerdictLigne::HorsDates:
        printf("vraie%s mais hors dates (%s, aujourd'hui %d) -> %s\n", pc_Ou,
               Dates(pst->i_Debut, pst->i_Fin).c_str(), pst->i_Jour,
               pst->i_Suivant != 0 ? "DSVT : ligne suivante" : "arret, pas de reponse");
        break;
    case VerdictLigne::TexteSimple:
        sb_LigneDecide = true;
        printf("texte simple, pour les seuls expediteurs connus de l'annuaire (expediteur "
               "connu : %s)\n",
               gi_EmetteurZeldor ? "oui" : "non");
        break;
    }
}

// What a guard of the reply composition stops.
struct DescriptionGarde {
    int i_Garde;
    const char *pc_Texte;  // with %s: the guard's detail
};
const DescriptionGarde st_Gardes[] = {
    {2699, "pas le serveur principal"},
    {2711, "expediteur d'enveloppe sans reponse <%s>"},
    {2716, "expediteur d'enveloppe de la forme <%s>"},
    {2725, "message Auto-Submitted (valeur autre que no)"},
    {2735, "message de liste (en-tete List-* ou X-List-*)"},
    {2751, "message Precedence: %s"},
    {GARDE_CORPS_VIDE, "texte vide"},
    {2773, "message marque comme spam (X-Spam-Flag: yes)"},
    {2793, "message deja reponse de remise-vorane (X-Loop)"},
};

// Asks the guards of the reply composition, without sending or logging,
// and says which one would suppress the message; true when none would.
bool ExpliqueGardes(const char *pc_Corps) {
    const char *pc_Detail = "";
    Entete *pet_Corps = DetacheCorps(gpet_EnteteMess);
    int i_Garde = GardeReponse(gpet_EnteteMess, pc_Corps, &pc_Detail);
    bool b_Repondable = EnteteRepondable(gpet_EnteteMess);
    RattacheCorps(gpet_EnteteMess, pet_Corps);
    for (const DescriptionGarde &st : st_Gardes) {
        if (st.i_Garde != i_Garde) continue;
        printf("    Gardes de la composition : %d, ", i_Garde);
        printf(st.pc_Texte, pc_Detail);
        printf("\n");
        return false;
    }
    if (!b_Repondable) {
        printf("    Gardes de la composition : aucune, mais l'en-tete n'a ni Delivered-To, ni "
               "Received, ni X-Loop : la composition serait refusee (2816, niveau 3 : le message "
               "ne serait pas remis)\n");
        return false;
    }
    printf("    Gardes de la composition : aucune ne s'y oppose\n");
    return true;
}

// Where the main-server flag stands after the recipient's entry.
void ExpliqueServeurPrincipal(const OptionsRemise *pst_Options, char **const *ttpc_Valeurs) {
    const char *pc_Principal =
        pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "ravokVixServeurPrincipal", 0);
    const char *pc_Oui = gi_OnEstSurServeurPrincipal ? "oui" : "non";
    if (pst_Options->tpc_ServeursPrincipaux[0] == nullptr)
        printf("  Serveur principal : %s (pas d'option -p)\n", pc_Oui);
    else if (pc_Principal == nullptr)
        printf("  Serveur principal : %s (pas de ravokVixServeurPrincipal : valeur precedente)\n",
               pc_Oui);
    else
        printf("  Serveur principal : %s (ravokVixServeurPrincipal=%s, -p %s)\n", pc_Oui,
               pc_Principal, pst_Options->pc_ServeursPrincipaux);
}

// The restrictions of the recipient; true when they refuse it.
bool ExpliqueRestrictions(const AnalyseEmetteur *pst_Analyse, char **const *ttpc_Valeurs) {
    char **tpc_Lignes = tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "ravokVixRestrictions");
    if (tpc_Lignes != nullptr) printf("  Restrictions, dans l'ordre d'evaluation :\n");
    sb_LigneDecide = false;
    int i_Refus = RestrictionDeRemise(pst_Analyse->Pc_Adresse, tpc_Lignes);
    if (tpc_Lignes == nullptr)
        printf("  Restrictions : aucune -> remise permise\n");
    else if (!sb_LigneDecide)
        printf(i_Refus ? "  -> refus par defaut : aucune ligne vraie, une ligne + a ete lue\n"
                       : "  -> remise permise : aucune ligne vraie, aucune ligne +\n");
    if (!i_Refus) return false;

    printf("  -> destinataire refuse : rien ne lui est remis\n");
    if (!gi_OnEstSurServeurPrincipal) {
        printf("  -> pas d'avis (pas le serveur principal)\n");
        return true;
    }
    char pc_Texte[TAILLE_TEXTE];
    TexteRestriction(pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "cn", 0), pc_Texte,
                     sizeof pc_Texte);
    if (ExpliqueGardes(pc_Texte))
        printf("  -> avis \"Non remis (restriction)\" envoye a <%s>\n", gpc_MailFrom);
    else
        printf("  -> pas d'avis\n");
    return true;
}

// The automatic reply for a recipient its restrictions let through.
void ExpliqueReponse(const AnalyseEmetteur *pst_Analyse, char **const *ttpc_Valeurs) {
    auto Valeur = [&](const char *pc_Nom) {
        return pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, pc_Nom, 0);
    };
    if (pst_Analyse->i_NonAuthentifie) {
        printf("  Reponse automatique : aucune (expediteur non authentifie)\n");
        return;
    }
    if (!gi_OnEstSurServeurPrincipal) {
        printf("  Reponse automatique : aucune (pas le serveur principal)\n");
        return;
    }
    char **tpc_Lignes = tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "ravokVixReponse");
    if (tpc_Lignes == nullptr) {
        printf("  Reponse automatique : aucune regle\n");
        return;
    }
    printf("  Reponse automatique, regles dans l'ordre d'evaluation :\n");
    char *pc_Texte = nullptr;
    int i_Freq = FREQ_REPONSE_DEFAUT;
    sb_LigneDecide = false;
    if (!DetReponseAuto(pst_Analyse->Pc_Adresse, tpc_Lignes, &pc_Texte, &i_Freq)) {
        printf(sb_LigneDecide ? "  -> pas de reponse : texte de reponse vide\n"
                              : "  -> pas de reponse : aucune regle ne s'applique\n");
        return;
    }
    printf("  -> reponse due : frequence %d min, texte : %s\n", i_Freq, pc_Texte);

    // The frequency file, read, never touched.
    EtatFrequence st_Frequence;
    if (LitFrequence(Valeur("uid"), i_Freq, &st_Frequence) != 0) {
        printf("  -> pas de reponse (fichier de frequence impossible)\n");
        return;
    }
    if (st_Frequence.t_Derniere < 0)
        printf("    Fichier de frequence %s : absent -> reponse permise\n",
               st_Frequence.Pc_Chemin);
    else if (st_Frequence.b_Permise)
        printf("    Fichier de frequence %s : derniere reponse le %s -> reponse permise\n",
               st_Frequence.Pc_Chemin, Date(st_Frequence.t_Derniere).c_str());
    else
        printf("    Fichier de frequence %s : derniere reponse le %s -> pas de reponse avant "
               "le %s\n",
               st_Frequence.Pc_Chemin, Date(st_Frequence.t_Derniere).c_str(),
               Date(st_Frequence.t_Derniere + static_cast<time_t>(i_Freq) * 60 + 1).c_str());

    // The guards, asked with the text the reply would carry.
    std::string s_From = FromReponse(Valeur("cn"), Valeur("ravokVixmailEmission"));
    for (std::size_t i; (i = s_From.find("\n\t")) != std::string::npos;) s_From.replace(i, 2, " ");
    printf("    De : %s\n", s_From.c_str());
    bool b_Gardes = ExpliqueGardes(pc_MiseEnFormeMess(pc_Texte));
    if (b_Gardes && st_Frequence.b_Permise)
        printf("  -> reponse automatique envoyee a <%s> ; le fichier de frequence serait mis a "
               "l'heure\n",
               gpc_MailFrom);
    else
        printf("  -> pas de reponse (%s)\n", st_Frequence.b_Permise ? "garde" : "frequence");
}

// A directory list: its addresses, its members as the submission would
// take them, and the number of sendmail batches.
void ExpliqueListe(TypeRemise e_Type, char **const *ttpc_Valeurs) {
    const char *pc_Bounce;
    const char *pc_Reponse;
    AdressesListe(ttpc_Valeurs, &pc_Bounce, &pc_Reponse);
    printf("  -> liste : retours a <%s>\n", pc_Bounce);
    if (pc_Reponse[0] != '\0') {
        printf("    Reply-To de l'en-tete remplace par %s (pour la suite de la remise)\n",
               pc_Reponse);
        PoseReplyTo(pc_Reponse);
    }
    int i_Retires = 0;
    std::vector<char *> v_Membres = MembresListe(e_Type, ttpc_Valeurs, &i_Retires);
    if (v_Membres.empty()) {
        printf("    aucun membre : rien n'est envoye\n");
        return;
    }
    char **tpc_Membres = v_Membres.data();
    printf("    %d membre(s) inscrit(s)\n", NblTableau(tpc_Membres) + i_Retires);
    if (i_Retires > 0) printf("    la liste elle-meme parmi ses membres : ignoree\n");
    char **tpc_Tous = tpc_Membres;
    if (e_Type == TypeRemise::ListeMu) {
        tpc_Tous = ExploseMembres(tpc_Membres);
        UniciteMembres(tpc_Tous);
    }
    int i_Lots = CompteLotsEnvoi(pc_Bounce, tpc_Tous);
    int i_Nb = 0;
    for (int i = 0; tpc_Tous != nullptr && tpc_Tous[i] != nullptr; i++)
        if (tpc_Tous[i][0] != '\0') i_Nb++;
    printf("    %s : %d adresse(s), %d lot(s) sendmail -f <%s>\n",
           e_Type == TypeRemise::ListeMu ? "apres expansion et suppression des doublons"
                                         : "telle qu'inscrite",
           i_Nb, i_Lots, pc_Bounce);
    for (int i = 0; tpc_Tous != nullptr && tpc_Tous[i] != nullptr; i++)
        if (tpc_Tous[i][0] != '\0') printf("      %s\n", tpc_Tous[i]);
    if (tpc_Tous != tpc_Membres) free(tpc_Tous);
}

// Recipients collected for the LMTP transaction.
struct CollecteExplication {
    std::string s_Boites;  // one "rcpt to:" line per mailbox
    std::vector<std::string> v_Uids;
    int i_Nb = 0;
};

// An LMTP recipient's mailbox: one recipient command in the transaction,
// none for a mailbox already in it.
void ExpliqueBoite(const char *pc_Uid, const char *pc_Suffixe, CollecteExplication *pst_Lmtp) {
    for (const std::string &s : pst_Lmtp->v_Uids)
        if (strcasecmp(s.c_str(), pc_Uid) == 0) {
            printf("  -> LMTP : boite <%s%s>, deja dans la transaction\n", pc_Uid, pc_Suffixe);
            return;
        }
    pst_Lmtp->v_Uids.emplace_back(pc_Uid);
    printf("  -> LMTP : boite <%s%s>, dans la transaction apres la boucle\n", pc_Uid, pc_Suffixe);
    pst_Lmtp->s_Boites += std::string("  rcpt to:<") + pc_Uid + pc_Suffixe + ">  pour <" +
                          gpc_RcptTo + ">\n";
    pst_Lmtp->i_Nb++;
}

// One recipient, as the recipient loop takes it.
void ExpliqueDestinataire(OptionsRemise *pst_Options, const AnalyseEmetteur *pst_Analyse,
                          const char *pc_Suffixe, int i_Rang, CollecteExplication *pst_Lmtp) {
    printf("\nDestinataire %d/%d : <%s>\n", i_Rang, gi_nbDestLcmd, gpc_RcptTo);
    char **ttpc_Valeurs[NB_ATTR_LDAP_DEST + 1] = {};
    const char *pc_Remise = LitDestinataire(pst_Options, ttpc_Valeurs);
    auto Valeur = [&](const char *pc_Nom) {
        return pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, pc_Nom, 0);
    };
    bool b_Entree = false;
    for (int i = 0; i < NB_ATTR_LDAP_DEST; i++) b_Entree = b_Entree || ttpc_Valeurs[i] != nullptr;
    if (!b_Entree) {
        printf("  Entree annuaire : aucune -> destinataire suivant\n");
        return;
    }
    printf("  Entree annuaire : uid=%s, cn=%s\n", Texte(Valeur("uid")), Texte(Valeur("cn")));
    if (pc_Remise != nullptr) {
        TypeRemise e_Type = TypeDeRemise(pc_Remise);
        printf("  Type de remise : %s\n", pc_Remise);
        ExpliqueServeurPrincipal(pst_Options, ttpc_Valeurs);
        if (!ExpliqueRestrictions(pst_Analyse, ttpc_Valeurs)) {
            ExpliqueReponse(pst_Analyse, ttpc_Valeurs);
            switch (e_Type) {
            case TypeRemise::Lmtp:
                if (const char *pc_Uid = UidLmtp(ttpc_Valeurs); pc_Uid != nullptr)
                    ExpliqueBoite(pc_Uid, pc_Suffixe, pst_Lmtp);
                break;
            case TypeRemise::Liste:
            case TypeRemise::ListeMu:
                ExpliqueListe(e_Type, ttpc_Valeurs);
                break;
            case TypeRemise::Sympa:
                printf("  -> Sympa : %s <%s>\n", gpc_CmdSympaQueue, gpc_RcptTo);
                break;
            case TypeRemise::SympaBounce:
                printf("  -> Sympa, retours : %s <%s>\n", gpc_CmdSympaBounce,
                       AdresseTo().c_str());
                break;
            case TypeRemise::Null:
                printf("  -> NULL : rien n'est remis a ce destinataire\n");
                break;
            case TypeRemise::Attente:
                printf("  -> ATTENTE : la remise s'arreterait ici avec le statut 75 (Postfix "
                       "representera tout le message) ; rien ne serait remis par LMTP\n");
                printf("Fin de l'explication : la remise s'arreterait ici.\n");
                FinProcessus(STATUT_MAINTENANCE);
            case TypeRemise::ListeInconnue:
            case TypeRemise::Inconnu:
                SignaleRemiseNonSupportee(e_Type, pc_Remise);
                break;
            case TypeRemise::Refuse:  // never named by a value
                break;
            }
        }
    }
    for (int i = 0; i < NB_ATTR_LDAP_DEST; i++) LibereValeursLdap(ttpc_Valeurs[i]);
}

// Puts a minimal message on standard input when none is given: standard
// input is a terminal, or holds nothing.  It goes through a pipe (no file)
// to the reader of a delivery.
bool PrepareMessage() {
    if (!isatty(STDIN_FILENO)) {
        int c = getc(stdin);
        if (c != EOF) {
            ungetc(c, stdin);
            return true;
        }
    }
    std::string s_Message = std::string("Received: by localhost (remise-vorane --explique)\n"
                                        "Message-ID: <explication@remise-vorane>\n"
                                        "From: <") +
                            gpc_MailFrom + ">\nTo: <" + gtpc_RcptTo[0] +
                            ">\nSubject: explication\n\n";
    int t_Tube[2];
    bool b_Ok = pipe(t_Tube) == 0;
    // Two addresses of at most 255 characters: far below a pipe's capacity.
    if (b_Ok) {
        b_Ok = write(t_Tube[1], s_Message.data(), s_Message.size()) ==
                   static_cast<ssize_t>(s_Message.size()) &&
               dup2(t_Tube[0], STDIN_FILENO) >= 0;
        close(t_Tube[0]);
        close(t_Tube[1]);
    }
    if (!b_Ok)
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/4601: Erreur message minimal, errno=%d (%s)",
                         errno, strerror(errno));
    clearerr(stdin);
    return false;
}

// What the sender analysis found.
void ExpliqueAnalyse(const AnalyseEmetteur *pst) {
    printf("Expediteur d'enveloppe : <%s>\n", gpc_MailFrom);
    printf("Adresse From retenue : <%s>, nom \"%s\"\n", pst->Pc_Adresse, pst->Pc_Nom);
    printf("Analyse : mdf=%d lda=%d ea=%d eab=%d fdv=%d robot=%d non-authentifie=%d\n", pst->i_mdf,
           pst->i_lda, gi_EmetteurZeldor, gi_EmetteurZeldorBoite, pst->i_fdv, pst->i_Robot,
           pst->i_NonAuthentifie);
    if (pst->pc_LibelleOrigine[0] != '\0')
        printf("Origine : %s (marque \"%s\")\n", pst->pc_LibelleOrigine, pst->pc_MarqueOrigine);
    else
        printf("Origine : aucune zone\n");
}

// The LMTP transaction after the loop: the server and the commands.
void ExpliqueTransaction(const OptionsRemise *pst_Options, const CollecteExplication &st) {
    if (st.i_Nb == 0) {
        printf("\nAucune transaction LMTP (aucun destinataire LMTP)\n");
        return;
    }
    ServeurLmtp st_Serveur;
    int i_Res = AnalyseServeurLmtp(pst_Options->pc_ServeurLmtp, &st_Serveur);
    printf("\nTransaction LMTP apres la boucle, ");
    if (i_Res != 0)
        printf("designation <%s> inutilisable : chaque essai echouerait (statut 75 apres 3 "
               "essais)\n",
               Texte(pst_Options->pc_ServeurLmtp));
    else if (st_Serveur.b_Unix)
        printf("socket Unix %s :\n", st_Serveur.Pc_Chemin);
    else
        printf("hote %s port %s :\n", st_Serveur.Pc_Hote, st_Serveur.Pc_Port);
    printf("  mail from:<%s>%s\n%s", EmetteurLisibleLmtp(gpc_MailFrom) ? gpc_MailFrom : "",
           EmetteurLisibleLmtp(gpc_MailFrom) ? "" : " (adresse d'emission illisible pour le serveur)",
           st.s_Boites.c_str());
}

// The rewritten header: as the store would receive it (a leading
// Return-Path line is not sent), or the working header when nothing goes
// to the store.
void ExpliqueEntete(bool b_Lmtp) {
    printf("\n%s\n", b_Lmtp ? "En-tete que le stockage recevrait :" : "En-tete de travail reecrit :");
    Entete *pet = gpet_EnteteMess;
    if (b_Lmtp && pet != nullptr && strncasecmp(pet->pc_Ligne, "return-path:", 12) == 0)
        pet = pet->pet_Suivant;
    for (; pet != nullptr && !LigneEnteteVide(pet->pc_Ligne); pet = pet->pet_Suivant) {
        std::string s = pet->pc_Ligne;
        if (!s.empty() && s.back() == '\n') s.pop_back();
        for (std::size_t i = 0, j; i <= s.size(); i = j + 1) {
            j = s.find('\n', i);
            if (j == std::string::npos) j = s.size();
            printf("  | %s\n", s.substr(i, j - i).c_str());
        }
    }
}

}  // namespace

// The explain form; see the unit's heading.
void Explique(OptionsRemise *pst_Options) {
    printf("Explication de la remise (rien n'est remis, envoye ni ecrit)\n");
    printf(PrepareMessage() ? "Message : lu sur l'entree standard\n"
                            : "Message : aucun sur l'entree standard, message minimal\n");
    gpf_TraceRegle = TraceLigne;

    AnalyseEmetteur st_Analyse;
    AnalyseMessage(pst_Options, &st_Analyse);
    ExpliqueAnalyse(&st_Analyse);
    const char *pc_Suffixe = ReecritEntete(pst_Options, &st_Analyse);
    printf("Suffixe de boite : \"%s\"%s\n", pc_Suffixe,
           pst_Options->pc_SuffixeSpam != nullptr && pc_Suffixe == pst_Options->pc_SuffixeSpam
               ? " (-s, message marque comme spam)"
               : "");

    CollecteExplication st_Lmtp;
    for (int i_Rang = 1; i_Rang <= gi_nbDestLcmd; i_Rang++) {
        gpc_RcptTo = gtpc_RcptTo[i_Rang - 1];
        MajInfoMessEnCours(gPc_MessageId, i_Rang);
        gi_DestinatairesEnSuspens = i_Rang < gi_nbDestLcmd || st_Lmtp.i_Nb > 0;
        ExpliqueDestinataire(pst_Options, &st_Analyse, pc_Suffixe, i_Rang, &st_Lmtp);
    }
    gi_DestinatairesEnSuspens = 0;
    ldapClose(&gld);

    ExpliqueTransaction(pst_Options, st_Lmtp);
    ExpliqueEntete(st_Lmtp.i_Nb > 0);
    printf("\nFin de l'explication : rien n'a ete remis, envoye ni ecrit.\n");
    FinProcessus(STATUT_MAINTENANCE);
}
