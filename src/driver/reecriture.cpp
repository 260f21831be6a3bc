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
//
// Every line composed here is exactly one header field that ends with
// exactly one line feed, whatever the message holds:
//   - every text from the message put into such a line (the display name,
//     the address, the Subject before it is encoded, the incoming From and
//     Subject copied into the trace header, the earlier-pass line of the
//     analysis) goes through the one clean-up, EpureControles: control bytes
//     become blanks, 8-bit bytes stay; the copied values keep their own
//     folding (a line feed followed by a blank or a tab) and end with one
//     line feed written here, whether they came with a line end or not;
//   - addresses between angle brackets are written by EcritAdresse, so that
//     the From, the Reply-to and the trace header name exactly one address;
//   - the display name is a quoted string, its quotes and backslashes
//     escaped, cut (never its closing quote) to fit the encoded name; the
//     incoming From's character set serves only when its name is a plain
//     token (letters, digits, "-", "_") and the name comes out of the
//     conversion as one quoted string without control bytes (not so in
//     UTF-16, EBCDIC or ISO-2022 forms) whose only ASCII bytes are the
//     name's own ASCII characters (not so in Shift_JIS, GBK or Big5, where
//     a word cut could split a character): otherwise UTF-8;
//   - the incoming values are read from the working header before any line
//     of it is rewritten: the same texts as the incoming header, joined into
//     whole lines (see analyse.cpp), so that a piece of a long line is never
//     taken for a header of its own;
//   - lines go in after a whole line; a last line that came without its line
//     feed gets one first, and the empty line that ends a header with no
//     other line gets the program's lines in front of it, never after it.
// Messages: 4063 no From line (level 4); 3963 3981 4003 4070 4092 4127 4135
// 4139 4142 allocation (level 2).
#include <algorithm>
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

// True when the text ends with a line feed.
bool FinitParSautDeLigne(const char *pc) {
    std::size_t t_Long = strlen(pc);
    return t_Long > 0 && pc[t_Long - 1] == '\n';
}

// Inserts a composed line after the cursor's line (ChargeLigne).  A line
// that came without its line feed gets one first, so that the new line is
// not glued to it; when the cursor is the empty line that ends a header with
// no other line (no From, nothing before it), the line goes in front of it,
// at the head, so that it stays in the header.
void Insere(Entete **ppet_Curseur, char *pc_Ligne, int i_Numero) {
    Entete *pet = *ppet_Curseur;
    if (pet == gpet_EnteteMess && LigneEnteteVide(pet->pc_Ligne)) {
        Entete *pet_Seul = nullptr;
        Entete *pet_Tete = ChargeLigne(&pet_Seul, pc_Ligne, ADOPTE_TEXTE);
        pet_Tete->pet_Suivant = gpet_EnteteMess;
        gpet_EnteteMess = pet_Tete;
        *ppet_Curseur = pet_Tete;
        return;
    }
    if (!FinitParSautDeLigne(pet->pc_Ligne))
        pet->pc_Ligne = NouvelleLigne(i_Numero, "%s\n", pet->pc_Ligne);
    ChargeLigne(ppet_Curseur, pc_Ligne, ADOPTE_TEXTE);
}

// The display name as one quoted string, its quotes and backslashes
// escaped, in t_Taille bytes (at least 3): the name is cut, never the
// closing quote.
void MetEntreGuillemets(const char *pc_Nom, char *pc_Sortie, std::size_t t_Taille) {
    std::size_t n = 0;
    pc_Sortie[n++] = '"';
    for (const char *pc = pc_Nom; *pc != '\0'; pc++) {
        bool b_Echappe = *pc == '"' || *pc == '\\';
        if (n + (b_Echappe ? 2 : 1) + 2 > t_Taille) break;  // closing quote and NUL
        if (b_Echappe) pc_Sortie[n++] = '\\';
        pc_Sortie[n++] = *pc;
    }
    pc_Sortie[n++] = '"';
    pc_Sortie[n] = '\0';
}

// True when the text is one whole quoted string without control bytes: an
// opening quote, then quoted pairs and other bytes, the closing quote last.
bool EstUneChaineEntreGuillemets(const char *pc) {
    if (pc[0] != '"') return false;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(pc) + 1; *p != '\0';
         p++) {
        if (*p < 0x20 || *p == 0x7f) return false;
        if (*p == '\\' && *++p == '\0') return false;
        if (*p == '"') return p[1] == '\0';
    }
    return false;
}

// True when the converted text holds the ASCII characters of the source as
// they are, in the same order, and no other byte below 0x80: every
// character outside ASCII is then written with bytes of 0x80 or more only,
// which the cut between encoded words never separates.  Not so in
// Shift_JIS, GBK or Big5, whose second bytes are often ASCII letters: a cut
// there would split a character between two words.
bool MemesOctetsAscii(const char *pc_Source, const char *pc_Converti) {
    auto Suivant = [](const char *pc) {
        while (*pc != '\0' && static_cast<unsigned char>(*pc) >= 0x80) pc++;
        return pc;
    };
    const char *pc_S = Suivant(pc_Source), *pc_C = Suivant(pc_Converti);
    for (; *pc_S != '\0' && *pc_C != '\0'; pc_S = Suivant(pc_S + 1), pc_C = Suivant(pc_C + 1))
        if (*pc_S != *pc_C) return false;
    return *pc_S == '\0' && *pc_C == '\0';
}

// True when the charset name is a plain token: letters, digits, "-", "_".
bool EstNomCharset(const char *pc) {
    for (; *pc != '\0'; pc++)
        if (!((*pc >= 'a' && *pc <= 'z') || (*pc >= 'A' && *pc <= 'Z') ||
              (*pc >= '0' && *pc <= '9') || *pc == '-' || *pc == '_'))
            return false;
    return true;
}

// Character set named by the first encoded word of the incoming From, or
// ISO-8859-15 when there is none or its name is not a plain token (the name
// goes into the encoded words of the rebuilt From).
void CharsetFrom(const char *pc_FromOrigine, char *pc_Charset) {
    pc_Charset[0] = '\0';
    const char *pc = strstr(pc_FromOrigine, "=?");
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
    if (pc_Charset[0] == '\0' || !EstNomCharset(pc_Charset))
        _strncpy(pc_Charset, PC_CHARSET_FROM_DEFAUT, TAILLE_CHARSET_FROM);
}

// The display name quoted and written as encoded words: in the From's
// character set when the quoted name converts to it and stays one quoted
// string, else in UTF-8.  The quoted name is built in the size of the
// result, so that a name written as it is (all ASCII) keeps its closing
// quote.
void EncodeNom(const char *pc_Nom, const char *pc_FromOrigine, char *pc_Sortie,
               std::size_t t_Taille) {
    char pc_Charset[TAILLE_CHARSET_FROM];
    CharsetFrom(pc_FromOrigine, pc_Charset);
    char pc_Guillemets[TAILLE_PHRASE];
    MetEntreGuillemets(pc_Nom, pc_Guillemets, std::min(sizeof pc_Guillemets, t_Taille));
    char pc_Converti[TAILLE_PHRASE];
    if (conv_jc2(pc_Guillemets, "UTF-8", pc_Converti, pc_Charset, sizeof pc_Converti) != nullptr &&
        EstUneChaineEntreGuillemets(pc_Converti) && MemesOctetsAscii(pc_Guillemets, pc_Converti))
        EncodeQP(pc_Converti, pc_Charset, pc_Sortie, static_cast<int>(t_Taille));
    else
        EncodeQP(pc_Guillemets, "UTF-8", pc_Sortie, static_cast<int>(t_Taille));
}

// Length of the text between double quotes (MetEntreGuillemets).
std::size_t LongueurEntreGuillemets(const std::string &s) {
    return s.size() + 2 + static_cast<std::size_t>(std::count_if(s.begin(), s.end(), [](char c) {
               return c == '"' || c == '\\';
           }));
}

// Removes the last whole UTF-8 character of the part of the text that lies
// between t_Debut bytes at its start and t_Fin bytes at its end.
void RetireDernierCaractere(std::string *ps, std::size_t t_Debut, std::size_t t_Fin) {
    std::size_t t_Bout = ps->size() - t_Fin;
    if (t_Bout <= t_Debut) return;
    std::size_t p = t_Bout - 1;
    while (p > t_Debut && (static_cast<unsigned char>((*ps)[p]) & 0xC0) == 0x80) p--;
    ps->erase(p, t_Bout - p);
}

// Origin, from-differs and Reply-to lines, and the decorated display name
// (steps 1 to 4).
void LignesOrigine(AnalyseEmetteur *pst) {
    Entete *pet_Curseur = RecupEntete(gpet_EnteteMess, "from:");
    if (pet_Curseur == nullptr) pet_Curseur = gpet_EnteteMess;

    if (pst->pc_LibelleOrigine[0] != '\0')
        Insere(&pet_Curseur, NouvelleLigne(3963, "X-ravokOrigine: %s\n", pst->pc_LibelleOrigine),
               3963);

    char pc_Depot[TAILLE_DEPOT] = "";
    if (pst->i_mdf) {
        const char *pc_Deposant = pst->i_Robot ? "anonyme" : gpc_MailFrom;
        // UTF-8 text: the display name it joins is UTF-8 until it is encoded.
        snprintf(pc_Depot, sizeof pc_Depot,
                 pst->pc_LibelleOrigine[0] != '\0' ? ", d\xc3\xa9p\xc3\xb4t %s" : "d\xc3\xa9p\xc3\xb4t %s",
                 pc_Deposant);
        Insere(&pet_Curseur, NouvelleLigne(3981, "X-ravokFromDifferent: 1\n"), 3981);
    }

    if (pc_Depot[0] == '\0' && pst->pc_MarqueOrigine[0] == '\0' &&
        pst->pc_LibelleOrigine[0] == '\0')
        return;
    char pc_Nom[TAILLE_PHRASE];
    _strncpy(pc_Nom, pst->Pc_Nom, sizeof pc_Nom);
    if (LigneEnteteVide(RecupValeurEntete(gpet_EnteteMess, "reply-to:"))) {
        char pc_Guillemets[TAILLE_TEXTE];
        char pc_Encode[TAILLE_TEXTE];
        char pc_Adresse[TAILLE_TEXTE];
        MetEntreGuillemets(pc_Nom, pc_Guillemets, sizeof pc_Guillemets);
        EncodeQP(pc_Guillemets, "UTF-8", pc_Encode, sizeof pc_Encode);
        EcritAdresse(pst->Pc_Adresse, pc_Adresse, sizeof pc_Adresse);
        Insere(&pet_Curseur, NouvelleLigne(4003, "Reply-to: %s\n\t<%s>\n", pc_Encode, pc_Adresse),
               4003);
    }
    // "mark name (label deposit)" in the name's buffer, and between quotes
    // in that size once more.  The mark and the decoration tell the reader
    // where the message came from, so when they do not fit together the
    // sender's own name gives way, whole characters at a time.
    const std::string s_Fin = std::string(" (") + pst->pc_LibelleOrigine + pc_Depot + ")";
    std::string s_Decore = std::string(pst->pc_MarqueOrigine) + pc_Nom + s_Fin;
    pst->t_Marque = strlen(pst->pc_MarqueOrigine);
    pst->t_Decoration = s_Fin.size();
    while (LongueurEntreGuillemets(s_Decore) >= sizeof pst->Pc_Nom &&
           s_Decore.size() > pst->t_Marque + s_Fin.size())
        RetireDernierCaractere(&s_Decore, pst->t_Marque, s_Fin.size());
    _strncpy(pst->Pc_Nom, s_Decore.c_str(), sizeof pst->Pc_Nom);
    EpureControles(pst->Pc_Nom, 0);
}

// The decorated display name encoded into the size given.  Encoding can
// triple a name, and the bytes that do not fit are dropped from the end,
// where the decoration stands: the sender's own name is shortened instead
// (whole characters) until the encoding in the size given is the whole one,
// as long as some of the name is left.  An undecorated name is encoded as
// it is.
void EncodeNomDecore(const AnalyseEmetteur *pst, const char *pc_FromOrigine, char *pc_Sortie,
                     std::size_t t_Taille) {
    std::string s_Nom = pst->Pc_Nom;
    EncodeNom(s_Nom.c_str(), pc_FromOrigine, pc_Sortie, t_Taille);
    if (pst->t_Decoration == 0) return;
    char pc_Entier[8 * TAILLE_PHRASE];  // room for any name of TAILLE_PHRASE bytes
    for (;;) {
        EncodeNom(s_Nom.c_str(), pc_FromOrigine, pc_Entier, sizeof pc_Entier);
        std::size_t t_Long = strlen(pc_Sortie), t_Entier = strlen(pc_Entier);
        if (t_Long == t_Entier || s_Nom.size() <= pst->t_Marque + pst->t_Decoration) return;
        // Each byte of the name takes at most three once encoded.
        for (std::size_t t_Retire = 0, t_But = (t_Entier - t_Long) / 3 + 1; t_Retire < t_But;) {
            std::size_t t_Avant = s_Nom.size();
            RetireDernierCaractere(&s_Nom, pst->t_Marque, pst->t_Decoration);
            if (s_Nom.size() == t_Avant) break;
            t_Retire += t_Avant - s_Nom.size();
        }
        EncodeNom(s_Nom.c_str(), pc_FromOrigine, pc_Sortie, t_Taille);
    }
}

// Rebuilds the From line (steps 5 to 7).
void LigneFrom(const AnalyseEmetteur *pst, const char *pc_FromOrigine) {
    char pc_NomEncode[TAILLE_PHRASE];
    EncodeNomDecore(pst, pc_FromOrigine, pc_NomEncode, sizeof pc_NomEncode);
    char pc_Adresse[TAILLE_TEXTE];
    EcritAdresse(pst->Pc_Adresse, pc_Adresse, sizeof pc_Adresse);
    Entete *pet_From = RecupEntete(gpet_EnteteMess, "from:");
    if (pet_From == nullptr) {
        TraitementErreur(NIVEAU_AVERTISSEMENT, "v1.1.0/4063: Entete sans 'From:'... %s",
                         gPc_InfoMessEnCours);
        Entete *pet_Seul = nullptr;
        pet_From = ChargeLigne(&pet_Seul, "", ADOPTE_TEXTE);
        pet_From->pet_Suivant = gpet_EnteteMess;
        gpet_EnteteMess = pet_From;
    }
    pet_From->pc_Ligne = NouvelleLigne(4070, "From: %s\n\t<%s>\n", pc_NomEncode, pc_Adresse);
}

// Encodes a raw 8-bit Subject; 1 when it was rewritten (step 8).
int LigneSujet() {
    Entete *pet_Sujet = RecupEntete(gpet_EnteteMess, "subject:");
    const char *pc_Sujet = RecupValeurEntete(gpet_EnteteMess, "subject:");
    if (pet_Sujet == nullptr || !CodageQPNecessaire(pc_Sujet)) return 0;
    char pc_Deplie[TAILLE_TEXTE];
    char pc_Encode[TAILLE_TEXTE];
    Deplie(pc_Sujet, pc_Deplie, sizeof pc_Deplie);
    EncodeQP(EpureControles(pc_Deplie, 0), "iso8859-15", pc_Encode, sizeof pc_Encode);
    pet_Sujet->pc_Ligne = NouvelleLigne(4092, "Subject: %s\n", pc_Encode);
    return 1;
}

// An incoming value as the trace header copies it, or the "not found" text
// when it is empty or absent: cleaned, with its own folding, without its
// final line end (the caller writes one).  A failed copy is reported with
// the number of the part it is for.
char *ValeurCopiee(int i_Numero, const char *pc_Valeur) {
    return EpureControles(
        NouvelleLigne(i_Numero, "%s", LigneEnteteVide(pc_Valeur) ? PC_NON_TROUVE : pc_Valeur), 1);
}

// The trace header, after the first line (step 9).
void LigneTrace(const AnalyseEmetteur *pst, const char *pc_FromOrigine,
                const char *pc_SujetOrigine) {
    char *pc_Valeur = ValeurCopiee(4127, pc_FromOrigine);
    char *pc_From = NouvelleLigne(4127, "%s\t+ from original: %s\n", pst->pc_PassagePrecedent,
                                  pc_Valeur);
    free(pc_Valeur);
    char *pc_Sujet = nullptr;
    if (pc_SujetOrigine != nullptr) {
        pc_Valeur = ValeurCopiee(4135, pc_SujetOrigine);
        pc_Sujet = NouvelleLigne(4135, "\t+ sujet original: %s\n", pc_Valeur);
        free(pc_Valeur);
    }
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
    Insere(&pet_Curseur, pc_Trace, 4142);
}

}  // namespace

// Rewrites the working header; see the unit's heading.
const char *ReecritEntete(const OptionsRemise *pst_Options, AnalyseEmetteur *pst) {
    // The incoming From and Subject, before any line is rewritten.
    const char *pc_FromOrigine = RecupValeurEntete(gpet_EnteteMess, "from:");
    const char *pc_SujetOrigine = RecupValeurEntete(gpet_EnteteMess, "subject:");

    EpureControles(pst->Pc_Adresse, 0);
    EpureControles(pst->Pc_Nom, 0);
    LignesOrigine(pst);
    LigneFrom(pst, pc_FromOrigine);
    int i_SujetReecrit = LigneSujet();
    LigneTrace(pst, pc_FromOrigine, i_SujetReecrit ? pc_SujetOrigine : nullptr);

    // Spam goes to the mailbox suffix of -s when it was given.
    if (pst_Options->pc_SuffixeSpam != nullptr &&
        strncasecmp(RecupValeurEntete(gpet_EnteteMess, "X-Spam-Flag:"), "yes", 3) == 0)
        return pst_Options->pc_SuffixeSpam;
    return pst_Options->pc_SuffixeBoite;
}
