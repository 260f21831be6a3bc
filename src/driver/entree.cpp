// entree.cpp - the entry operation: command line and start-up.
//
// RemiseVorane(argc, argv), in order:
//   1. "-decode" TEXT: prints FetchAddress's split of TEXT, returns 1 (before
//      the system log is opened);
//   2. system log (identity remise-vorane, pid, console, facility mail) and
//      file-creation mask 027;
//   3. exactly one "--" argument: --version prints the version line, --init
//      creates the spool directories (root 0755, the three 0777); both end
//      with status 1;
//   4. the delivery form: at least four arguments, options -r -c -s -l -p -m
//      -e (any case, the next argument is the value, a later one overrides)
//      and -d (every remaining argument is a recipient); the same arguments
//      after a first "--explique" (any case) make the explain form, read by
//      the same steps, which neither arms the run's budget nor logs;
//   5. postmaster address, main-server list (at most 20 names), envelope
//      checks and lower-casing, first description of the message, directory
//      host list; then the delivery, or its explanation (exit 1).
// Messages: 3566 3598 3600 3608 3615 3624 3625 (level 2), 3627 3632 (level 3).
// Addresses are at most 255 characters (TAILLE_ADRESSE - 1).
#include "driver/driver.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>

#include "report/report.h"
#include "rules/rules.h"

namespace {

constexpr const char *PC_MESSAGE_ID_INCONNU = "PasEncoreConnu";
char pc_HoteLdapDefaut[] = "127.0.0.1";

// Options that take the next argument as their value, and where it goes.
enum class Option { Lmtp, Suffixe, SuffixeSpam, HotesLdap, Principaux, Postmaster, Emetteur };
struct OptionValeur {
    const char *pc_Nom;
    Option e_Option;
};
const OptionValeur st_Options[] = {
    {"-r", Option::Lmtp},       {"-c", Option::Suffixe},    {"-s", Option::SuffixeSpam},
    {"-l", Option::HotesLdap},  {"-p", Option::Principaux}, {"-m", Option::Postmaster},
    {"-e", Option::Emetteur},
};

// Stores an option's value where it belongs.
void PoseOption(Option e_Option, char *pc_Valeur, OptionsRemise *pst) {
    switch (e_Option) {
    case Option::Lmtp: pst->pc_ServeurLmtp = pc_Valeur; break;
    case Option::Suffixe: pst->pc_SuffixeBoite = pc_Valeur; break;
    case Option::SuffixeSpam: pst->pc_SuffixeSpam = pc_Valeur; break;
    case Option::HotesLdap: pst->pc_HotesLdap = pc_Valeur; break;
    case Option::Principaux: pst->pc_ServeursPrincipaux = pc_Valeur; break;
    case Option::Postmaster: pst->pc_Postmaster = pc_Valeur; break;
    case Option::Emetteur: gpc_MailFrom = pc_Valeur; break;
    }
}

// The "-decode" test form: prints the address reader's result.
int TestDecode(const char *pc_Texte) {
    char pc_Adresse[TAILLE_ADRESSE];
    char pc_Phrase[TAILLE_PHRASE];
    FetchAddress(pc_Texte, pc_Adresse, sizeof pc_Adresse, pc_Phrase, sizeof pc_Phrase);
    printf("\nEntree:<%s>\nResultat: \n%s \n<%s>\n", pc_Texte, pc_Phrase, pc_Adresse);
    fflush(stdout);
    return STATUT_MAINTENANCE;
}

// Creates the spool directories, open to every delivery user.  The user
// Postfix runs the program as must also reach them through the spool root:
// --init runs with mask 022 rather than the run's 027, so that the root and
// any parent mkdir creates are 0755, and sets the root to 0755 again when an
// earlier --init or a hand left it narrower (a root that only its owner can
// enter hides the three directories, however open they are).  The commands
// go through the shell as the maintenance procedure has always run them; the
// spool root is a build value (checked at configure time to hold no quote),
// never an outside one.  The three directories are opened, not what they
// hold: a recursive change of mode, run as root inside a directory every
// user can write to, follows a link swapped in for a file during the walk
// (root would open any file of the system to everyone), and the dump files
// hold messages.  The files stay their owner's (the package gives them to
// a new delivery user).
[[noreturn]] void Initialise() {
    const char *const tpc_Modeles[] = {
        "mkdir -p '%sAbsences/' '%sRemises/' '%sErreurs/'",
        "chmod 755 '%s'",
        "chmod 777 '%sAbsences/'",
        "chmod 777 '%sErreurs/'",
        "chmod 777 '%sRemises/'",
    };
    umask(022);
    for (const char *pc_Modele : tpc_Modeles) {
        char pc_Commande[TAILLE_TEXTE];
        snprintf(pc_Commande, sizeof pc_Commande, pc_Modele, gpc_RacineSpool, gpc_RacineSpool,
                 gpc_RacineSpool);
        int i_Res = system(pc_Commande);
        (void)i_Res;  // results are deliberately ignored
    }
    FinProcessus(STATUT_MAINTENANCE);
}

// The maintenance forms: exactly one argument beginning with "--".
void FormesMaintenance(int argc, char **argv) {
    if (argc != 2 || strncmp(argv[1], "--", 2) != 0) return;
    if (strcasecmp(argv[1], "--version") == 0) {
        printf("remise-vorane version %s pour Cyrus (LMTP)\n", VERSION_VORANE);
        FinProcessus(STATUT_MAINTENANCE);
    }
    if (strcasecmp(argv[1], "--init") == 0) Initialise();
}

// Builds gpc_AdPostmaster: "Maitre postier, <organisation>/VORANE" <address>.
void ConstruitPostmaster(const char *pc_Adresse) {
    if (asprintf(&gpc_AdPostmaster, "\"Maitre postier, %s/VORANE\" <%s>", gpc_NomOrganisation,
                 pc_Adresse) < 0) {
        gpc_AdPostmaster = nullptr;
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/3608: Erreur asprintf, errno=%d (%s). %s", errno,
                         strerror(errno), gPc_InfoMessEnCours);
    }
}

// Splits a private copy of the -p value on "," into at most 20 names.
void DecoupeServeursPrincipaux(const char *pc_Valeur, OptionsRemise *pst) {
    std::size_t t_Long = strlen(pc_Valeur);
    char *pc_Copie = static_cast<char *>(malloc(t_Long + 1));
    if (pc_Copie == nullptr)
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/3615: Erreur Malloc test serveur principal, errno=%d (%s). %s",
                         errno, strerror(errno), gPc_InfoMessEnCours);
    memcpy(pc_Copie, pc_Valeur, t_Long + 1);
    char *pc_Reste = nullptr;
    int i = 0;
    for (char *pc = strtok_r(pc_Copie, ",", &pc_Reste);
         pc != nullptr && i < NB_MAX_SERVEURS_PRINCIPAUX; pc = strtok_r(nullptr, ",", &pc_Reste))
        pst->tpc_ServeursPrincipaux[i++] = pc;
    pst->tpc_ServeursPrincipaux[i] = nullptr;
}

// Allocates one of the two LMTP arrays, first entry the end marker; the
// failure message is given without its errno part.
char **AlloueTableauLmtp(const char *pc_Message) {
    char **tpc = static_cast<char **>(calloc(static_cast<std::size_t>(gi_nbDestLcmd) + 1,
                                             sizeof(char *)));
    if (tpc == nullptr) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_CRITIQUE, "%s, errno=%d (%s). %s", pc_Message, i_Err,
                         strerror(i_Err), gPc_InfoMessEnCours);
    }
    return tpc;
}

// Envelope checks and normalisation, in the order the refusals are expected.
void VerifieEnveloppe() {
    if (gpc_MailFrom == nullptr)
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/3624: Erreur d'usage. Adresse emetteur non trouvee");
    if (gi_nbDestLcmd == 0)
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/3625: Erreur d'usage. Adresse destinataire(s) non trouvee(s)");
    if (strlen(gpc_MailFrom) > TAILLE_ADRESSE - 1)
        TraitementErreur(NIVEAU_ERREUR, "v1.1.0/3627: Adresse emetteur trop longue <%s>",
                         gpc_MailFrom);
    _minu(gpc_MailFrom);
    for (int i = 0; i < gi_nbDestLcmd; i++) {
        if (strlen(gtpc_RcptTo[i]) > TAILLE_ADRESSE - 1)
            TraitementErreur(NIVEAU_ERREUR, "v1.1.0/3632: Adresse destinataire trop longue <%s>",
                             gtpc_RcptTo[i]);
        _minu(gtpc_RcptTo[i]);
    }
}

// The delivery stages that follow the command line: reading and sender
// analysis, header rewriting, the recipients.  Ends the process.
[[noreturn]] void Remise(OptionsRemise *pst) {
    AnalyseEmetteur st_Analyse;
    AnalyseMessage(pst, &st_Analyse);
    const char *pc_Suffixe = ReecritEntete(pst, &st_Analyse);
    BoucleDestinataires(pst, &st_Analyse, pc_Suffixe);
}

}  // namespace

// Rewrites gPc_InfoMessEnCours; rank 0 gives the "(-/n)" form.
void MajInfoMessEnCours(const char *pc_MessageId, int i_Rang) {
    const char *pc_Dest = gpc_RcptTo != nullptr ? gpc_RcptTo : "";
    const char *pc_From = gpc_MailFrom != nullptr ? gpc_MailFrom : "";
    if (i_Rang > 0)
        snprintf(gPc_InfoMessEnCours, sizeof gPc_InfoMessEnCours,
                 "message-id=<%s>, from=<%s>, to=<%s>(%d/%d)", pc_MessageId, pc_From, pc_Dest,
                 i_Rang, gi_nbDestLcmd);
    else
        snprintf(gPc_InfoMessEnCours, sizeof gPc_InfoMessEnCours,
                 "message-id=<%s>, from=<%s>, to=<%s>(-/%d)", pc_MessageId, pc_From, pc_Dest,
                 gi_nbDestLcmd);
}

// 1 when the value names one of the listed main servers (any case).
int EstServeurPrincipal(char *const *tpc_Serveurs, const char *pc_Valeur) {
    for (int i = 0; tpc_Serveurs[i] != nullptr; i++)
        if (strcasecmp(tpc_Serveurs[i], pc_Valeur) == 0) return 1;
    return 0;
}

// Walks the options of the delivery form; see the unit's heading.
void AnalyseOptions(int argc, char **argv, OptionsRemise *pst) {
    if (argc - 1 < 4)
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/3566: Erreur d'usage. Doit avoir 4 parametres: -e "
                         "adresse-emetteur et -d adresse-destination.");
    for (int i = 1; i < argc; i++) {
        if (strcasecmp(argv[i], "-d") == 0) {
            gtpc_RcptTo = argv + i + 1;
            gi_nbDestLcmd = argc - i - 1;
            gpc_RcptTo = gi_nbDestLcmd <= 1 ? gtpc_RcptTo[0] : "-";
            pst->tpc_AdrLmtp =
                AlloueTableauLmtp("v1.1.0/3598: Erreur Malloc tableau dest smtp");
            pst->tpc_UidLmtp =
                AlloueTableauLmtp("v1.1.0/3600: Erreur Malloc tableau dest uid");
            return;
        }
        for (const OptionValeur &st : st_Options) {
            if (strcasecmp(argv[i], st.pc_Nom) != 0) continue;
            if (i + 1 < argc) PoseOption(st.e_Option, argv[++i], pst);
            break;
        }
    }
}

// The whole process; returns only for the "-decode" form.
int RemiseVorane(int argc, char **argv) {
    // 1. Address-reader test, before anything else.
    if (argc >= 3 && strcasecmp(argv[1], "-decode") == 0) return TestDecode(argv[2]);

    // 2. System log and file-creation mask for the whole run.
    openlog("remise-vorane", LOG_PID | LOG_CONS, LOG_MAIL);
    umask(027);

    // The incident notice of a report is composed by the rules.
    gpf_EnvoiReponse = EnvoiReponse;

    // 3. Maintenance forms.
    FormesMaintenance(argc, argv);

    // 4. Delivery form, within the run's time budget.  The explain form
    //    takes the same arguments after its word (the walk starts after
    //    it); it acts on nothing, so no budget has to hand the message back
    //    to Postfix, and it keeps the system log clear of its reports (the
    //    program never logs at LOG_EMERG).
    bool b_Explique = argc >= 2 && strcasecmp(argv[1], "--explique") == 0;
    if (b_Explique) {
        gi_Explication = 1;
        setlogmask(LOG_MASK(LOG_EMERG));
        argc--;
        argv++;
    } else {
        ArmeBudgetExecution();
    }
    OptionsRemise st_Options;
    AnalyseOptions(argc, argv, &st_Options);

    // 5. Postmaster, main servers, envelope, description, directory hosts.
    ConstruitPostmaster(st_Options.pc_Postmaster != nullptr ? st_Options.pc_Postmaster
                                                            : gpc_PostmasterDefaut);
    if (st_Options.pc_ServeursPrincipaux != nullptr)
        DecoupeServeursPrincipaux(st_Options.pc_ServeursPrincipaux, &st_Options);
    VerifieEnveloppe();
    MajInfoMessEnCours(PC_MESSAGE_ID_INCONNU, 0);
    if (st_Options.pc_HotesLdap == nullptr) st_Options.pc_HotesLdap = pc_HoteLdapDefaut;
    for (char *pc = st_Options.pc_HotesLdap; *pc != '\0'; pc++)
        if (*pc == ',') *pc = ' ';

    if (b_Explique) Explique(&st_Options);
    Remise(&st_Options);
}
