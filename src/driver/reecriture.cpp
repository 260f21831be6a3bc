// reecriture.cpp - rewriting of the working header before delivery.
//
// ReecritEntete adds, after the From line (or the first line), the origin
// line "X-ravokOrigine: label" and the from-differs line; adds a Reply-to
// naming the real sender when the display name gets decorated and the
// message has none; rebuilds the From line from the analysed name and
// address for every message ("From: name\n\t<address>\n", the name quoted
// and written as encoded words of the incoming From's character set, or of
// UTF-8 when it cannot be represented there); encodes a raw 8-bit Subject;
// and puts the trace header "X-Remise-Vorane" after the first line.  The
// incoming header is never changed: new texts replace a node's text in the
// working header only.  Returns the mailbox suffix: -s for a message flagged
// as spam when -s was given, else -c.
// Messages: 4063 no From line (level 4); 3963 3981 4003 4070 4092 4127 4135
// 4139 4142 allocation (level 2).
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>

#include "codec/codec.h"
#include "driver/driver.h"
#include "message/message.h"
#include "report/report.h"

namespace {

constexpr const char *PC_NON_TROUVE = "__NonTrouveParDecod__\n";
constexpr const char *PC_CHARSET_FROM_DEFAUT = "ISO-8859-15";
constexpr std::size_t TAILLE_CHARSET_FROM = 128;
constexpr std::size_t TAILLE_DEPOT = 256;
constexpr std::size_t TAILLE_DRAPEAUX = 64;

// Formats a new line; a failure is a level-2 report with the given number.
char *NouvelleLigne(int i_Numero, const char *pc_Format, ...) __attribute__((format(printf, 2, 3)));
char *NouvelleLigne(int i_Numero, const char *pc_Format, ...) {
    char *pc = nullptr;
    va_list ap;
    va_start(ap, pc_Format);
    int i_Res = vasprintf(&pc, pc_Format, ap);
    va_end(ap);
    if (i_Res < 0) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/%d: Erreur asprintf, errno=%d (%s). %s", i_Numero,
                         i_Err, strerror(i_Err), gPc_InfoMessEnCours);
    }
    return pc;
}

// Replaces control characters by blanks, in place: a name or an address
// that came from the message or the directory never brings a line break or
// a carriage return into a header line the program writes (its own folding
// is added afterwards).
void EpureControles(char *pc_Texte) {
    for (unsigned char *pc = reinterpret_cast<unsigned char *>(pc_Texte); *pc != '\0'; pc++)
        if (*pc < 0x20 || *pc == 0x7f) *pc = ' ';
}

// Character set named by the first encoded word of the incoming From, or
// ISO-8859-15.
void CharsetFrom(char *pc_Charset) {
    pc_Charset[0] = '\0';
    const char *pc = strstr(RecupValeurEntete(gpet_EnteteMessOrigine, "from:"), "=?");
    if (pc != nullptr) {
        pc += 2;
        const char *pc_Fin = strchr(pc, '?');
        if (pc_Fin != nullptr) {
            std::size_t t_Long = static_cast<std::size_t>(pc_Fin - pc);
            if (t_Long > TAILLE_CHARSET_FROM - 1) t_Long = TAILLE_CHARSET_FROM - 1;
            memcpy(pc_Charset, pc, t_Long);
            pc_Charset[t_Long] = '\0';
        }
    }
    if (pc_Charset[0] == '\0') _strncpy(pc_Charset, PC_CHARSET_FROM_DEFAUT, TAILLE_CHARSET_FROM);
}

// The display name quoted and written as encoded words: in the From's
// character set when the name converts to it, else in UTF-8.
void EncodeNom(const char *pc_Nom, char *pc_Sortie, std::size_t t_Taille) {
    char pc_Charset[TAILLE_CHARSET_FROM];
    CharsetFrom(pc_Charset);
    char pc_Guillemets[TAILLE_TEXTE];
    snprintf(pc_Guillemets, sizeof pc_Guillemets, "\"%s\"", pc_Nom);
    char pc_Converti[TAILLE_PHRASE];
    if (conv_jc2(pc_Guillemets, "UTF-8", pc_Converti, pc_Charset, sizeof pc_Converti) != nullptr)
        EncodeQP(pc_Converti, pc_Charset, pc_Sortie, static_cast<int>(t_Taille));
    else
        EncodeQP(pc_Guillemets, "UTF-8", pc_Sortie, static_cast<int>(t_Taille));
}

// Origin, from-differs and Reply-to lines, and the decorated display name
// (steps 1 to 4).
void LignesOrigine(AnalyseEmetteur *pst) {
    Entete *pet_Curseur = RecupEntete(gpet_EnteteMess, "from:");
    if (pet_Curseur == nullptr) pet_Curseur = gpet_EnteteMess;

    if (pst->pc_LibelleOrigine[0] != '\0')
        ChargeLigne(&pet_Curseur,
                    NouvelleLigne(3963, "X-ravokOrigine: %s\n", pst->pc_LibelleOrigine),
                    ADOPTE_TEXTE);

    char pc_Depot[TAILLE_DEPOT] = "";
    if (pst->i_mdf) {
        const char *pc_Deposant = pst->i_Robot ? "anonyme" : gpc_MailFrom;
        // UTF-8 text: the display name it joins is UTF-8 until it is encoded.
        snprintf(pc_Depot, sizeof pc_Depot,
                 pst->pc_LibelleOrigine[0] != '\0' ? ", d\xc3\xa9p\xc3\xb4t %s" : "d\xc3\xa9p\xc3\xb4t %s",
                 pc_Deposant);
        ChargeLigne(&pet_Curseur, NouvelleLigne(3981, "X-ravokFromDifferent: 1\n"), ADOPTE_TEXTE);
    }

    if (pc_Depot[0] == '\0' && pst->pc_MarqueOrigine[0] == '\0' &&
        pst->pc_LibelleOrigine[0] == '\0')
        return;
    char pc_Nom[TAILLE_PHRASE];
    _strncpy(pc_Nom, pst->Pc_Nom, sizeof pc_Nom);
    if (LigneEnteteVide(RecupValeurEntete(gpet_EnteteMess, "reply-to:"))) {
        char pc_Guillemets[TAILLE_TEXTE];
        char pc_Encode[TAILLE_TEXTE];
        snprintf(pc_Guillemets, sizeof pc_Guillemets, "\"%s\"", pc_Nom);
        EncodeQP(pc_Guillemets, "UTF-8", pc_Encode, sizeof pc_Encode);
        ChargeLigne(&pet_Curseur,
                    NouvelleLigne(4003, "Reply-to: %s\n\t<%s>\n", pc_Encode, pst->Pc_Adresse),
                    ADOPTE_TEXTE);
    }
    // "mark name (label deposit)", cut to the name's buffer.
    std::string s_Decore = std::string(pst->pc_MarqueOrigine) + pc_Nom + " (" +
                           pst->pc_LibelleOrigine + pc_Depot + ")";
    _strncpy(pst->Pc_Nom, s_Decore.c_str(), sizeof pst->Pc_Nom);
    EpureControles(pst->Pc_Nom);
}

// Rebuilds the From line (steps 5 to 7).
void LigneFrom(const AnalyseEmetteur *pst) {
    char pc_NomEncode[TAILLE_PHRASE];
    EncodeNom(pst->Pc_Nom, pc_NomEncode, sizeof pc_NomEncode);
    Entete *pet_From = RecupEntete(gpet_EnteteMess, "from:");
    if (pet_From == nullptr) {
        TraitementErreur(NIVEAU_AVERTISSEMENT, "v1.1.0/4063: Entete sans 'From:'... %s",
                         gPc_InfoMessEnCours);
        Entete *pet_Seul = nullptr;
        pet_From = ChargeLigne(&pet_Seul, "", ADOPTE_TEXTE);
        pet_From->pet_Suivant = gpet_EnteteMess;
        gpet_EnteteMess = pet_From;
    }
    pet_From->pc_Ligne =
        NouvelleLigne(4070, "From: %s\n\t<%s>\n", pc_NomEncode, pst->Pc_Adresse);
}

// Encodes a raw 8-bit Subject; 1 when it was rewritten (step 8).
int LigneSujet() {
    Entete *pet_Sujet = RecupEntete(gpet_EnteteMess, "subject:");
    const char *pc_Sujet = RecupValeurEntete(gpet_EnteteMess, "subject:");
    if (pet_Sujet == nullptr || !CodageQPNecessaire(pc_Sujet)) return 0;
    char pc_Deplie[TAILLE_TEXTE];
    char pc_Encode[TAILLE_TEXTE];
    Deplie(pc_Sujet, pc_Deplie, sizeof pc_Deplie);
    EncodeQP(pc_Deplie, "iso8859-15", pc_Encode, sizeof pc_Encode);
    pet_Sujet->pc_Ligne = NouvelleLigne(4092, "Subject: %s\n", pc_Encode);
    return 1;
}

// The incoming value of a header, or the "not found" text.
const char *ValeurOrigine(const char *pc_Nom) {
    const char *pc = RecupValeurEntete(gpet_EnteteMessOrigine, pc_Nom);
    return LigneEnteteVide(pc) ? PC_NON_TROUVE : pc;
}

// The trace header, after the first line (step 9).
void LigneTrace(const AnalyseEmetteur *pst, int i_SujetReecrit) {
    char *pc_From = NouvelleLigne(4127, "%s\t+ from original: %s", pst->pc_PassagePrecedent,
                                  ValeurOrigine("from:"));
    char *pc_Sujet = i_SujetReecrit
                         ? NouvelleLigne(4135, "\t+ sujet original: %s", ValeurOrigine("subject:"))
                         : nullptr;
    char pc_Drapeaux[TAILLE_DRAPEAUX];
    if (snprintf(pc_Drapeaux, sizeof pc_Drapeaux,
                 "\t+ mdf=%.1d; lda=%.1d; ea=%.1d; eab=%.1d; fdv=%.1d;\n", pst->i_mdf, pst->i_lda,
                 gi_EmetteurZeldor, gi_EmetteurZeldorBoite, pst->i_fdv) < 0)
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/4139: Erreur asprintf, errno=%d (%s). %s", errno,
                         strerror(errno), gPc_InfoMessEnCours);
    char *pc_Trace = NouvelleLigne(4142, "X-Remise-Vorane: v1.1.0; le %s;\n%s%s%s", _pcs_datcfc(),
                                   pc_Drapeaux, pc_Sujet != nullptr ? pc_Sujet : "", pc_From);
    free(pc_From);
    free(pc_Sujet);
    Entete *pet_Curseur = gpet_EnteteMess;
    ChargeLigne(&pet_Curseur, pc_Trace, ADOPTE_TEXTE);
}

}  // namespace

// Rewrites the working header; see the unit's heading.
const char *ReecritEntete(const OptionsRemise *pst_Options, AnalyseEmetteur *pst) {
    EpureControles(pst->Pc_Adresse);
    EpureControles(pst->Pc_Nom);
    LignesOrigine(pst);
    LigneFrom(pst);
    int i_SujetReecrit = LigneSujet();
    LigneTrace(pst, i_SujetReecrit);

    // Spam goes to the mailbox suffix of -s when it was given.
    if (pst_Options->pc_SuffixeSpam != nullptr &&
        strncasecmp(RecupValeurEntete(gpet_EnteteMess, "X-Spam-Flag:"), "yes", 3) == 0)
        return pst_Options->pc_SuffixeSpam;
    return pst_Options->pc_SuffixeBoite;
}
