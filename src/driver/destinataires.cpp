// destinataires.cpp - the recipient loop and the LMTP delivery.
//
// BoucleDestinataires looks every envelope recipient up in the directory, in
// command-line order, updates the main-server flag from its entry, asks its
// restrictions (a refused recipient gets nothing, the sender a notice) and
// its automatic-reply rules (reponses.cpp), then dispatches on its delivery
// kind (ravokVixRemise, any case): LMTP recipients are collected, NULL is
// dropped, ATTENTE ends the run at once with status 75 (Postfix retries the
// whole message), and every other kind is reported at level -3 so that
// nothing is lost silently.  Lists and Sympa lists are delivered at once,
// in the loop (see RemiseListe, RemiseSympa): with several recipients the
// body is first loaded behind the header, so that every later delivery,
// the LMTP one included, sends it whole; those deliveries stand when a
// later recipient ends the run.  After the loop
// the directory is closed and the collected recipients get one LMTP
// transaction, at most three attempts gi_DelaiEntreEssaisLmtp (10 s) apart;
// what the store refused for good goes to the sender as a notice; the run
// ends with status 0, or 75 after three failed attempts (4549).
// Messages: 4198 not in the directory, 4205 no delivery kind, 4422 list
// kind not supported, 4499 kind not supported, 4196 recipient too long for a
// filter, 4475 LMTP entry without uid (all level -3); 4478 NULL and 4491
// ATTENTE, 4477 a mailbox already in the transaction (a second address of
// its entry), 4398 and 4411 list expansion (information); 4399 a list among
// its own members (warning, that member skipped); 4386 4450 4467
// allocation (level 2).  Submissions report their own failures.
// The decisions the explain form shares with the loop are apart: the
// delivery-kind table (TypeDeRemise), the lookup with its reports
// (LitDestinataire), the uid of an LMTP recipient (UidLmtp), the unsupported
// kinds' reports, a list's addresses and Reply-To, the first To address.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "directory/directory.h"
#include "driver/driver.h"
#include "message/message.h"
#include "report/report.h"
#include "transport/transport.h"

namespace {

// How a delivery kind's value is recognised, in the order tested.
enum class Comparaison { Prefixe, Exacte };
struct RegleRemise {
    const char *pc_Valeur;
    Comparaison e_Comparaison;
    TypeRemise e_Type;
};
const RegleRemise st_Remises[] = {
    {"LMTP", Comparaison::Prefixe, TypeRemise::Lmtp},
    {"LISTE", Comparaison::Exacte, TypeRemise::Liste},
    {"LISTE-BR", Comparaison::Exacte, TypeRemise::Liste},
    {"LISTE-MU", Comparaison::Exacte, TypeRemise::ListeMu},
    {"LISTE", Comparaison::Prefixe, TypeRemise::ListeInconnue},
    {"SYMPA", Comparaison::Exacte, TypeRemise::Sympa},
    {"SYMPA-BOUNCE", Comparaison::Exacte, TypeRemise::SympaBounce},
    {"NULL", Comparaison::Exacte, TypeRemise::Null},
    {"ATTENTE", Comparaison::Exacte, TypeRemise::Attente},
};

// The body: still on standard input, or loaded into the working list
// behind the header once a list or Sympa delivery of a run with several
// recipients needed it (it is read from standard input once).
bool sb_CorpsCharge = false;

// What the senders read the body from: standard input, or nothing more
// when the body lies in the working list.
FILE *CorpsRestant() { return sb_CorpsCharge ? nullptr : stdin; }

// Loads the body before a list or Sympa delivery when later recipients
// need it too.
void ChargeCorps() {
    if (gi_nbDestLcmd <= 1 || sb_CorpsCharge) return;
    LitMessage(gpet_EnteteMess, stdin);
    sb_CorpsCharge = true;
}

}  // namespace

// The kind named by a ravokVixRemise value.
TypeRemise TypeDeRemise(const char *pc_Valeur) {
    for (const RegleRemise &st : st_Remises) {
        bool b = st.e_Comparaison == Comparaison::Prefixe
                     ? strncasecmp(pc_Valeur, st.pc_Valeur, strlen(st.pc_Valeur)) == 0
                     : strcasecmp(pc_Valeur, st.pc_Valeur) == 0;
        if (b) return st.e_Type;
    }
    return TypeRemise::Inconnu;
}

// Looks the recipient in hand up (its values into the table, which has
// NB_ATTR_LDAP_DEST + 1 null slots) and returns its delivery kind's value,
// the main-server flag following the entry; null when it cannot be
// delivered: reported at level -3 (4196 4198 4205).
const char *LitDestinataire(const OptionsRemise *pst_Options, char ***ttpc_Valeurs) {
    char pc_Filtre[TAILLE_FILTRE];
    if (ConstruitFiltreLdap(pc_Filtre, sizeof pc_Filtre, "mail", gpc_RcptTo) != 0) {
        TraitementErreur(NIVEAU_ERREUR_SUITE,
                         "v1.1.0/4196: Destinataire <%s> trop long pour un filtre annuaire. %s",
                         gpc_RcptTo, gPc_InfoMessEnCours);
        return nullptr;
    }
    if (RecupUneEntreeLdap(gld, pc_Filtre, gtpc_AttrLdapDest, ttpc_Valeurs) == 0) {
        TraitementErreur(NIVEAU_ERREUR_SUITE,
                         "v1.1.0/4198: Destinataire <%s> non trouve dans l'annuaire. %s",
                         gpc_RcptTo, gPc_InfoMessEnCours);
        return nullptr;
    }
    const char *pc_Remise = pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "ravokVixRemise", 0);
    if (pc_Remise == nullptr) {
        TraitementErreur(NIVEAU_ERREUR_SUITE,
                         "v1.1.0/4205: Erreur annuaire, 'ravokVixRemise' non renseigne. %s",
                         gPc_InfoMessEnCours);
        return nullptr;
    }
    const char *pc_Principal =
        pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "ravokVixServeurPrincipal", 0);
    if (pst_Options->tpc_ServeursPrincipaux[0] != nullptr && pc_Principal != nullptr)
        gi_OnEstSurServeurPrincipal =
            EstServeurPrincipal(pst_Options->tpc_ServeursPrincipaux, pc_Principal);
    return pc_Remise;
}

// The mailbox identifier of an LMTP recipient; null (reported at level -3,
// 4475) when its entry has none: without it the recipient cannot be
// delivered, a directory error rather than a cut array.
const char *UidLmtp(char **const *ttpc_Valeurs) {
    const char *pc_Uid = pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "uid", 0);
    if (pc_Uid == nullptr)
        TraitementErreur(NIVEAU_ERREUR_SUITE,
                         "v1.1.0/4475: Erreur annuaire, 'uid' non renseigne pour une remise LMTP. %s",
                         gPc_InfoMessEnCours);
    return pc_Uid;
}

// Reports a delivery kind that cannot be delivered (level -3): a list kind
// not supported (4422) or any other unknown kind (4499).
void SignaleRemiseNonSupportee(TypeRemise e_Type, const char *pc_Remise) {
    if (e_Type == TypeRemise::ListeInconnue)
        TraitementErreur(NIVEAU_ERREUR_SUITE,
                         "v1.1.0/4422: Erreur annuaire, type de liste non supporte, "
                         "'ravokVixRemise=%s'. %s",
                         pc_Remise, gPc_InfoMessEnCours);
    else
        TraitementErreur(NIVEAU_ERREUR_SUITE,
                         "v1.1.0/4499: Erreur annuaire, type de remise non supporte, "
                         "'ravokVixRemise=%s'. %s",
                         pc_Remise, gPc_InfoMessEnCours);
}

// The bounce and reply addresses of a list entry, from its info values
// "AVIS:" and "REPONSE:" (empty when absent); the bounce address defaults to
// the envelope sender.
void AdressesListe(char **const *ttpc_Valeurs, const char **ppc_Bounce, const char **ppc_Reponse) {
    char **tpc_Info = tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "info");
    *ppc_Bounce = RecupValeurTableau(tpc_Info, "AVIS:");
    *ppc_Reponse = RecupValeurTableau(tpc_Info, "REPONSE:");
    if ((*ppc_Bounce)[0] == '\0') *ppc_Bounce = gpc_MailFrom;
}

// The list's reply address becomes the Reply-To of the working header
// (rewritten, or inserted as its second line), for every later delivery.
// The address comes from the directory: a control byte in it becomes a
// blank, so that it stays one header line.
void PoseReplyTo(const char *pc_Reponse) {
    std::size_t t_Taille = strlen(pc_Reponse) + 32;
    char *pc_Ligne = static_cast<char *>(malloc(t_Taille));
    if (pc_Ligne == nullptr) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/4386: Erreur Malloc reconstruction ligne Reply-To, errno=%d (%s). %s",
                         i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        return;
    }
    snprintf(pc_Ligne, t_Taille, "Reply-To: %s", pc_Reponse);
    EpureControles(pc_Ligne, 0);
    strcat(pc_Ligne, "\n");
    Entete *pet_Corps = DetacheCorps(gpet_EnteteMess);
    Entete *pet = RecupEntete(gpet_EnteteMess, "reply-to:");
    if (pet != nullptr) {
        pet->pc_Ligne = pc_Ligne;
    } else {
        pet = gpet_EnteteMess;
        ChargeLigne(&pet, pc_Ligne, ADOPTE_TEXTE);
    }
    RattacheCorps(gpet_EnteteMess, pet_Corps);
}

// The first address of the working header's To (empty without one).
std::string AdresseTo() {
    char pc_Adresse[TAILLE_ADRESSE];
    char pc_Phrase[TAILLE_PHRASE];
    Entete *pet_Corps = DetacheCorps(gpet_EnteteMess);
    FetchAddress(RecupValeurEntete(gpet_EnteteMess, "to:"), pc_Adresse, sizeof pc_Adresse,
                 pc_Phrase, sizeof pc_Phrase);
    RattacheCorps(gpet_EnteteMess, pet_Corps);
    return pc_Adresse;
}

namespace {

// The addresses of a member value as sendmail reads it: a list of
// addresses, each bare or with a phrase or comment ("Liste <liste@...>",
// "a@b, liste@... (la liste)").  The reader's buffers are the value's size:
// an address or phrase is never longer than the text it comes from, so no
// value, however long, can overflow them.
std::vector<std::string> AdressesMembre(const char *pc_Membre) {
    std::vector<std::string> v;
    const std::size_t t_Taille = strlen(pc_Membre) + 1;
    std::vector<char> v_Adresse(t_Taille), v_Phrase(t_Taille);
    for (const char *pc = pc_Membre; *pc != '\0';) {
        const char *pc_Suite =
            FetchAddress(pc, v_Adresse.data(), t_Taille, v_Phrase.data(), t_Taille);
        if (v_Adresse[0] != '\0') v.emplace_back(v_Adresse.data());
        if (pc_Suite <= pc) break;
        pc = pc_Suite;
    }
    return v;
}

}  // namespace

// The members a list's delivery starts from: its ravokVixMembres values,
// and for a list sent as stored, without the list's own address however a
// value writes it: such a list would get the message back through Postfix
// and send it again, up to the hop limit, some fifty copies to every
// member.  A value that also names other addresses gives them as members
// of their own (a copy, left to the end of the process like the values).
// A list that is expanded here has its own bound, which refuses a list that
// contains itself.  Null-ended; empty when the entry has no member.
// *pi_Retires: how many times the list's address went.
std::vector<char *> MembresListe(TypeRemise e_Type, char **const *ttpc_Valeurs, int *pi_Retires) {
    *pi_Retires = 0;
    std::vector<char *> v;
    char **tpc_Membres = tpc_ValeursLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "ravokVixMembres");
    if (tpc_Membres == nullptr) return v;
    for (int i = 0; tpc_Membres[i] != nullptr; i++) {
        if (e_Type != TypeRemise::Liste) {
            v.push_back(tpc_Membres[i]);
            continue;
        }
        if (strcasecmp(tpc_Membres[i], gpc_RcptTo) == 0) {
            (*pi_Retires)++;
            continue;
        }
        const std::vector<std::string> v_Adresses = AdressesMembre(tpc_Membres[i]);
        bool b_Soi = false;
        for (const std::string &s : v_Adresses) b_Soi = b_Soi || strcasecmp(s.c_str(), gpc_RcptTo) == 0;
        if (!b_Soi) {
            v.push_back(tpc_Membres[i]);
            continue;
        }
        (*pi_Retires)++;
        for (const std::string &s : v_Adresses) {
            if (strcasecmp(s.c_str(), gpc_RcptTo) == 0) continue;
            char *pc_Copie = strdup(s.c_str());
            if (pc_Copie == nullptr) {
                int i_Err = errno;
                TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/4397: Erreur Malloc membre, errno=%d (%s). %s",
                                 i_Err, strerror(i_Err), gPc_InfoMessEnCours);
                continue;
            }
            v.push_back(pc_Copie);
        }
    }
    v.push_back(nullptr);
    return v;
}

namespace {

// A directory list: bounce and reply addresses from its info values, then
// the message to its members, as stored or expanded without duplicates.
// Without members nothing is sent and nothing is said.
void RemiseListe(TypeRemise e_Type, char **const *ttpc_Valeurs) {
    const char *pc_Bounce;
    const char *pc_Reponse;
    AdressesListe(ttpc_Valeurs, &pc_Bounce, &pc_Reponse);
    ChargeCorps();
    if (pc_Reponse[0] != '\0') PoseReplyTo(pc_Reponse);

    int i_Retires = 0;
    std::vector<char *> v_Membres = MembresListe(e_Type, ttpc_Valeurs, &i_Retires);
    if (i_Retires > 0)
        syslog(LOG_WARNING, "v1.1.0/4399: Liste <%s> membre d'elle-meme, adresse ignoree. %s",
               gpc_RcptTo, gPc_InfoMessEnCours);
    if (v_Membres.empty()) return;
    char **tpc_Membres = v_Membres.data();
    const char *pc_Cn = pc_ValeurLdap(gtpc_AttrLdapDest, ttpc_Valeurs, "cn", 0);
    if (pc_Cn == nullptr) pc_Cn = "";
    if (e_Type == TypeRemise::Liste) {
        syslog(LOG_INFO, "v1.1.0/4398: Expansion de la liste '%s'. Bounce=%s %s", pc_Cn, pc_Bounce,
               gPc_InfoMessEnCours);
        EnvoiMessage(gpet_EnteteMess, CorpsRestant(), pc_Bounce, tpc_Membres);
        return;
    }
    syslog(LOG_INFO,
           "v1.1.0/4411: Expansion de la liste '%s' avec suppression de doublon. Bounce=%s. %s",
           pc_Cn, pc_Bounce, gPc_InfoMessEnCours);
    char **tpc_Tous = ExploseMembres(tpc_Membres);
    UniciteMembres(tpc_Tous);
    EnvoiMessage(gpet_EnteteMess, CorpsRestant(), pc_Bounce, tpc_Tous);
    free(tpc_Tous);
}

// Hands the message to a Sympa queue program with the address as its one
// argument (the action text names it as the site's command line would).
void RemiseSympa(const char *pc_Programme, const char *pc_Adresse, int i_Numero) {
    ChargeCorps();
    char *pc_Action = nullptr;
    if (asprintf(&pc_Action, "exec %s '%s'", pc_Programme, pc_Adresse) < 0) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/%d: Erreur Malloc, errno=%d (%s). %s", i_Numero,
                         i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        return;
    }
    char *tpc_Argv[] = {const_cast<char *>(pc_Programme), const_cast<char *>(pc_Adresse), nullptr};
    DelivreMessage(gpet_EnteteMess, CorpsRestant(), pc_Action, tpc_Argv, nullptr);
    free(pc_Action);
}

// Recipients collected for the LMTP transaction.
struct CollecteLmtp {
    char **tpc_Uid;
    char **tpc_Adresses;
    int i_Nb = 0;
};

// Handles one recipient: lookup, main-server flag, dispatch.
void TraiteDestinataire(OptionsRemise *pst_Options, const AnalyseEmetteur *pst_Analyse,
                        CollecteLmtp *pst_Lmtp) {
    char **ttpc_Valeurs[NB_ATTR_LDAP_DEST + 1] = {};
    const char *pc_Remise = LitDestinataire(pst_Options, ttpc_Valeurs);
    if (pc_Remise != nullptr) {
        switch (RestrictionsEtReponse(pst_Analyse, ttpc_Valeurs) ? TypeRemise::Refuse
                                                                  : TypeDeRemise(pc_Remise)) {
        case TypeRemise::Refuse:
            break;
        case TypeRemise::Lmtp: {
            const char *pc_Uid = UidLmtp(ttpc_Valeurs);
            if (pc_Uid == nullptr) break;
            // Two addresses of one entry name one mailbox: a second
            // recipient command for it would store the message twice.  The
            // store takes mailbox names without regard to case.
            bool b_Deja = false;
            for (int i = 0; i < pst_Lmtp->i_Nb && !b_Deja; i++)
                b_Deja = strcasecmp(pst_Lmtp->tpc_Uid[i], pc_Uid) == 0;
            if (b_Deja) {
                syslog(LOG_INFO, "v1.1.0/4477: Boite <%s> deja dans la transaction LMTP. %s",
                       pc_Uid, gPc_InfoMessEnCours);
                break;
            }
            char *pc_Copie = strdup(pc_Uid);
            if (pc_Copie == nullptr) {
                TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/4476: Erreur Malloc uid. %s",
                                 gPc_InfoMessEnCours);
            } else {
                pst_Lmtp->tpc_Uid[pst_Lmtp->i_Nb] = pc_Copie;
                pst_Lmtp->tpc_Adresses[pst_Lmtp->i_Nb] = const_cast<char *>(gpc_RcptTo);
                pst_Lmtp->i_Nb++;
            }
            break;
        }
        case TypeRemise::ListeInconnue:
        case TypeRemise::Inconnu:
            SignaleRemiseNonSupportee(TypeDeRemise(pc_Remise), pc_Remise);
            break;
        case TypeRemise::Null:
            syslog(LOG_INFO, "v1.1.0/4478: Remise NULL. %s", gPc_InfoMessEnCours);
            break;
        case TypeRemise::Attente:
            syslog(LOG_INFO, "v1.1.0/4491: Remise ATTENTE. %s", gPc_InfoMessEnCours);
            FinProcessus(STATUT_REESSAI);
        case TypeRemise::Liste:
        case TypeRemise::ListeMu:
            RemiseListe(TypeDeRemise(pc_Remise), ttpc_Valeurs);
            break;
        case TypeRemise::Sympa:
            RemiseSympa(gpc_CmdSympaQueue, gpc_RcptTo, 4450);
            break;
        case TypeRemise::SympaBounce:
            RemiseSympa(gpc_CmdSympaBounce, AdresseTo().c_str(), 4467);
            break;
        }
    }
    for (int i = 0; i < NB_ATTR_LDAP_DEST; i++) LibereValeursLdap(ttpc_Valeurs[i]);
}

// One LMTP transaction for the collected recipients, three attempts at most.
void RemiseLmtp(const OptionsRemise *pst_Options, CollecteLmtp *pst_Lmtp, const char *pc_Suffixe) {
    char *pc_Rapport = nullptr;
    for (int i_Essais = 0;; i_Essais++) {
        int i_Res = Remise_LMTP(pst_Options->pc_ServeurLmtp, gpc_MailFrom, pst_Lmtp->tpc_Uid,
                                pst_Lmtp->tpc_Adresses, pc_Suffixe, gpet_EnteteMess, CorpsRestant(),
                                &pc_Rapport);
        if (i_Res == 0) {
            AvisRefusLmtp(pc_Rapport);
            return;
        }
        if (i_Essais >= 2)
            TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/4549: Trop d'essais Remise_LMTP sur %s, cr=%d. %s",
                             pst_Options->pc_ServeurLmtp != nullptr ? pst_Options->pc_ServeurLmtp : "",
                             i_Res, gPc_InfoMessEnCours);
        sleep(static_cast<unsigned>(gi_DelaiEntreEssaisLmtp));
    }
}

}  // namespace

// The loop over the recipients, then the LMTP delivery; ends the process.
void BoucleDestinataires(OptionsRemise *pst_Options, const AnalyseEmetteur *pst_Analyse,
                         const char *pc_Suffixe) {
    CollecteLmtp st_Lmtp;
    st_Lmtp.tpc_Uid = pst_Options->tpc_UidLmtp;
    st_Lmtp.tpc_Adresses = pst_Options->tpc_AdrLmtp;

    for (int i_Rang = 1; i_Rang <= gi_nbDestLcmd; i_Rang++) {
        gpc_RcptTo = gtpc_RcptTo[i_Rang - 1];
        MajInfoMessEnCours(gPc_MessageId, i_Rang);
        gi_DestinatairesEnSuspens = i_Rang < gi_nbDestLcmd || st_Lmtp.i_Nb > 0;
        TraiteDestinataire(pst_Options, pst_Analyse, &st_Lmtp);
    }
    gi_DestinatairesEnSuspens = 0;

    st_Lmtp.tpc_Uid[st_Lmtp.i_Nb] = nullptr;
    st_Lmtp.tpc_Adresses[st_Lmtp.i_Nb] = nullptr;
    ldapClose(&gld);
    if (st_Lmtp.i_Nb > 1) gpc_RcptTo = "-";
    else if (st_Lmtp.i_Nb == 1) gpc_RcptTo = st_Lmtp.tpc_Adresses[0];
    MajInfoMessEnCours(gPc_MessageId, 0);

    if (st_Lmtp.i_Nb > 0) RemiseLmtp(pst_Options, &st_Lmtp, pc_Suffixe);
    FinProcessus(STATUT_FAIT);
}
