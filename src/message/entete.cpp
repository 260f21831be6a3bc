// entete.cpp - header line lists and the message reader.
//
// A message is a singly linked list of Entete nodes, one line (or one piece
// of at most TAILLE_LECTURE - 1 = 1023 bytes) per node, line feed included;
// a folded header field is one node holding its continuation lines.
//
//   ChargeLigne(cursor, text, min)  inserts a node after the cursor's node;
//       copies the text into max(min, length + 1) bytes, or adopts the
//       pointer itself when min is ADOPTE_TEXTE.  Returns the node.
//   LitEntete(head)      reads standard input (stdio, 1023-byte pieces) up to
//       and including the empty line; continuation pieces are joined.  A
//       piece that only ends a line longer than one read (the "\n" after
//       1023 bytes) is the rest of that line, not the empty line: the store
//       reads the header on past it, and so must the program, or the fields
//       after it would go unseen (robot marks, a second From) and the
//       working header would have no end.
//   LitMessage(list, f)  appends the rest of f in pieces of 1023 bytes (not
//       cut at line ends), each kept whole with its length (LongueurLigne).
//   LigneEnteteVide      0 for a non-empty line; 1 null, 2 "", 3 "\n...", 4 "\r\n".
//   VerifLigneEOL        cuts a doubled line end to a single one, in place.
//   DetacheCorps / RattacheCorps  take the body lines (loaded after the
//       header's empty line) off the list and put them back, for lookups
//       that must see the header alone.
//   RecupEntete / RecupLigneEntete / RecupValeurEntete: case-insensitive
//       prefix lookups from a given node; the value of an absent header is
//       the shared read-only "\n".
//   RecupValeur          copies the part between two delimiter sets; returns
//       the number of characters copied (bounded by the output size - 1).
//
// Messages:
//   1665 (level 2) node allocation, 1677 (level 2) line allocation,
//   1789 (level 2) growth of a folded field, 1783 (level 4) end of input
//   before the empty line, 1807 (syslog notice) body loaded into memory,
//   1785 / 1811 (level 2) read error on the input stream while reading the
//   header / the body: a message only partly read is never delivered, so the
//   run ends and Postfix retries it.
//
// Nothing here frees memory: one process handles one message and exits.
// Lines are C texts: a NUL byte of the header is read as "?" (a visible
// byte that means "unreadable" wherever the program folds a text), so that
// nothing after it in the field is lost; the body is left as it is.
#include "message/message.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <syslog.h>

#include "report/report.h"
#include "socle.h"

namespace {

// What a NUL byte of the header is read as.
constexpr char OCTET_NUL_ENTETE = '?';

// The value of every absent header: read-only and shared.
constexpr char PC_VALEUR_ABSENTE[] = "\n";

// Growth state of the node being joined with its continuation lines: the
// text's length and its allocated size, so that a field folded over many
// lines is joined in linear time (the size grows geometrically, always at
// least to length + piece + 2 bytes).
struct Cumul {
    Entete *pet_Noeud = nullptr;
    std::size_t t_Longueur = 0;
    std::size_t t_Taille = 0;
};

// Appends a continuation piece to the node of the cumul.
void AjouteSuite(Cumul *pst, const char *pc_Piece, std::size_t t_Piece) {
    std::size_t t_Besoin = pst->t_Longueur + t_Piece + 2;
    if (t_Besoin > pst->t_Taille) {
        std::size_t t_Nouvelle = std::max(t_Besoin, 2 * pst->t_Taille);
        char *pc = static_cast<char *>(realloc(pst->pet_Noeud->pc_Ligne, t_Nouvelle));
        if (pc == nullptr) {
            int i_Err = errno;
            TraitementErreur(NIVEAU_CRITIQUE,
                             "v1.1.0/1789: Erreur Realloc Entete Ligne, errno=%d (%s). %s", i_Err,
                             strerror(i_Err), gPc_InfoMessEnCours);
            return;
        }
        pst->pet_Noeud->pc_Ligne = pc;
        pst->t_Taille = t_Nouvelle;
    }
    memcpy(pst->pet_Noeud->pc_Ligne + pst->t_Longueur, pc_Piece, t_Piece + 1);
    pst->t_Longueur += t_Piece;
}

// Reads one piece of the header from standard input: at most t_Taille - 1
// bytes, up to and including a line feed, each NUL byte read as "?".
// Returns its length; 0 at the end of the input or on a read error.
std::size_t LitPieceEntete(char *pc_Piece, std::size_t t_Taille) {
    std::size_t n = 0;
    while (n + 1 < t_Taille) {
        int c = getc_unlocked(stdin);
        if (c == EOF) break;
        pc_Piece[n++] = c == '\0' ? OCTET_NUL_ENTETE : static_cast<char>(c);
        if (c == '\n') break;
    }
    pc_Piece[n] = '\0';
    return n;
}

}  // namespace

// Inserts a node after the cursor's node; see the unit's heading.
Entete *ChargeLigne(Entete **ppet_Curseur, const char *pc_Texte, std::size_t t_TailleMin) {
    Entete *pet_Courant = *ppet_Curseur;
    Entete *pet_Apres = pet_Courant != nullptr ? pet_Courant->pet_Suivant : nullptr;

    Entete *pet = static_cast<Entete *>(malloc(sizeof(Entete)));
    if (pet == nullptr) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/1665: Erreur Malloc Structure Entete, errno=%d (%s). %s", i_Err,
                         strerror(i_Err), gPc_InfoMessEnCours);
        return nullptr;
    }
    pet->pet_Suivant = nullptr;
    pet->t_Long = 0;

    if (t_TailleMin == ADOPTE_TEXTE) {
        pet->pc_Ligne = const_cast<char *>(pc_Texte);
    } else {
        if (pc_Texte == nullptr) pc_Texte = "";
        std::size_t t_Long = strlen(pc_Texte);
        std::size_t t_Taille = std::max(t_TailleMin, t_Long + 1);
        pet->pc_Ligne = static_cast<char *>(malloc(t_Taille));
        if (pet->pc_Ligne == nullptr) {
            int i_Err = errno;
            TraitementErreur(NIVEAU_CRITIQUE,
                             "v1.1.0/1677: Erreur Malloc Entete Ligne, taille=%d, errno=%d (%s). %s",
                             static_cast<int>(t_Taille), i_Err, strerror(i_Err),
                             gPc_InfoMessEnCours);
            free(pet);
            return nullptr;
        }
        memcpy(pet->pc_Ligne, pc_Texte, t_Long + 1);
    }

    if (pet_Courant != nullptr) {
        pet_Courant->pet_Suivant = pet;
        pet->pet_Suivant = pet_Apres;
    }
    *ppet_Curseur = pet;
    return pet;
}

// Reads the header from standard input up to and including the empty line.
void LitEntete(Entete **ppet_Tete) {
    Entete *pet_Curseur = *ppet_Tete;
    Cumul st_Cumul;
    char pc_Piece[TAILLE_LECTURE];
    bool b_DebutLigne = true;  // the piece before ended a line

    for (;;) {
        std::size_t t_Piece = LitPieceEntete(pc_Piece, sizeof pc_Piece);
        if (t_Piece == 0) {
            if (ferror(stdin)) {
                int i_Err = errno;
                TraitementErreur(NIVEAU_CRITIQUE,
                                 "v1.1.0/1785: Erreur lecture entete, errno=%d (%s). %s", i_Err,
                                 strerror(i_Err), gPc_InfoMessEnCours);
                return;
            }
            TraitementErreur(NIVEAU_AVERTISSEMENT,
                             "v1.1.0/1783: EOF avant ligne de fin d'entete. %s",
                             gPc_InfoMessEnCours);
            return;
        }

        // Continuation of the field in hand.
        if ((pc_Piece[0] == ' ' || pc_Piece[0] == '\t') && pet_Curseur != nullptr) {
            if (st_Cumul.pet_Noeud != pet_Curseur) {
                st_Cumul.pet_Noeud = pet_Curseur;
                st_Cumul.t_Longueur = strlen(pet_Curseur->pc_Ligne);
                st_Cumul.t_Taille = st_Cumul.t_Longueur + 1;
            }
            AjouteSuite(&st_Cumul, pc_Piece, t_Piece);
            b_DebutLigne = pc_Piece[t_Piece - 1] == '\n';
            continue;
        }

        // A line of its own; the first one becomes the head.
        Entete *pet = ChargeLigne(&pet_Curseur, pc_Piece, 0);
        if (*ppet_Tete == nullptr) *ppet_Tete = pet;
        st_Cumul.pet_Noeud = pet;
        st_Cumul.t_Longueur = t_Piece;
        st_Cumul.t_Taille = t_Piece + 1;

        if (b_DebutLigne && LigneEnteteVide(pc_Piece) != 0) return;
        b_DebutLigne = pc_Piece[t_Piece - 1] == '\n';
    }
}

// Appends the rest of the input stream to the list, piece by piece.
void LitMessage(Entete *pet_Liste, FILE *pf_Entree) {
    syslog(LOG_NOTICE, "v1.1.0/1807: Chargement du message entier en memoire. %s",
           gPc_InfoMessEnCours);
    Entete *pet_Curseur = pet_Liste;
    while (pet_Curseur != nullptr && pet_Curseur->pet_Suivant != nullptr)
        pet_Curseur = pet_Curseur->pet_Suivant;

    // Pieces of the whole read size, not lines: a body of short lines is
    // held in about its own size, not in one node per line.
    char pc_Piece[TAILLE_LECTURE];
    std::size_t t_Lu;
    while ((t_Lu = fread(pc_Piece, 1, sizeof pc_Piece - 1, pf_Entree)) > 0) {
        pc_Piece[t_Lu] = '\0';
        Entete *pet = ChargeLigne(&pet_Curseur, pc_Piece, t_Lu + 1);
        if (pet == nullptr) return;
        // The whole piece, NUL bytes and what follows them included.
        memcpy(pet->pc_Ligne, pc_Piece, t_Lu + 1);
        pet->t_Long = t_Lu;
    }
    if (ferror(pf_Entree)) {
        int i_Err = errno;
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/1811: Erreur lecture message, errno=%d (%s). %s",
                         i_Err, strerror(i_Err), gPc_InfoMessEnCours);
    }
}

// Bytes of a node as it is to be written.
std::size_t LongueurLigne(const Entete *pet) {
    return pet->t_Long != 0 ? pet->t_Long : strlen(pet->pc_Ligne);
}

// Kind of empty line: 0 when not empty; 1 null, 2 "", 3 "\n...", 4 "\r\n".
int LigneEnteteVide(const char *pc_Texte) {
    if (pc_Texte == nullptr) return 1;
    if (pc_Texte[0] == '\0') return 2;
    if (pc_Texte[0] == '\n') return 3;
    if (strcmp(pc_Texte, "\r\n") == 0) return 4;
    return 0;
}

// The node of the header's empty line, or null when the header has none.
static Entete *LigneFinEntete(Entete *pet_Liste) {
    for (Entete *pet = pet_Liste; pet != nullptr; pet = pet->pet_Suivant)
        if (LigneEnteteVide(pet->pc_Ligne)) return pet;
    return nullptr;
}

// Takes the body lines off the list, after the header's empty line.
Entete *DetacheCorps(Entete *pet_Liste) {
    Entete *pet_Fin = LigneFinEntete(pet_Liste);
    if (pet_Fin == nullptr) return nullptr;
    Entete *pet_Corps = pet_Fin->pet_Suivant;
    pet_Fin->pet_Suivant = nullptr;
    return pet_Corps;
}

// Puts detached body lines back after the header's empty line.
void RattacheCorps(Entete *pet_Liste, Entete *pet_Corps) {
    Entete *pet_Fin = LigneFinEntete(pet_Liste);
    if (pet_Fin != nullptr && pet_Corps != nullptr) pet_Fin->pet_Suivant = pet_Corps;
}

// Cuts the text right after the first of two consecutive line feeds.
char *VerifLigneEOL(char *pc_Texte) {
    if (pc_Texte == nullptr) return nullptr;
    char *pc = strstr(pc_Texte, "\n\n");
    if (pc != nullptr) pc[1] = '\0';
    return pc_Texte;
}

// First node, from the one given, whose line begins with the name (any case).
Entete *RecupEntete(Entete *pet_Liste, const char *pc_Nom) {
    if (pc_Nom == nullptr) return nullptr;
    std::size_t t_Nom = strlen(pc_Nom);
    for (Entete *pet = pet_Liste; pet != nullptr; pet = pet->pet_Suivant)
        if (pet->pc_Ligne != nullptr && strncasecmp(pet->pc_Ligne, pc_Nom, t_Nom) == 0) return pet;
    return nullptr;
}

// Same lookup as RecupEntete.
Entete *RecupLigneEntete(Entete *pet_Liste, const char *pc_Nom) {
    return RecupEntete(pet_Liste, pc_Nom);
}

// Value of the first matching header past the white space that opens it,
// or the shared "\n".  A value that starts on a continuation line
// ("From:\n\tJean <j@x>", "Auto-Submitted:\r\n auto-replied") is read from
// there: the fold is white space like the blanks, and taking such a value
// for an empty one would drop the sender's From, add a second Reply-to or
// answer a robot.
const char *RecupValeurEntete(Entete *pet_Liste, const char *pc_Nom) {
    Entete *pet = RecupEntete(pet_Liste, pc_Nom);
    if (pet == nullptr) return PC_VALEUR_ABSENTE;
    const char *pc = pet->pc_Ligne + strlen(pc_Nom);
    for (;;) {
        while (*pc == ' ' || *pc == '\t') pc++;
        const char *pc_Suite = pc[0] == '\n' ? pc + 1 : pc[0] == '\r' && pc[1] == '\n' ? pc + 2 : nullptr;
        if (pc_Suite == nullptr || (*pc_Suite != ' ' && *pc_Suite != '\t')) return pc;
        pc = pc_Suite;
    }
}

// Copies the text between the first run of opening delimiters and the next
// closing delimiter (or the end); returns the number of characters copied.
int RecupValeur(const char *pc_Texte, const char *pc_Ouvrants, const char *pc_Fermants,
                char *pc_Sortie, std::size_t t_Taille) {
    if (pc_Sortie == nullptr || t_Taille == 0) return 0;
    pc_Sortie[0] = '\0';
    if (pc_Texte == nullptr || pc_Ouvrants == nullptr) return 0;
    if (pc_Fermants == nullptr) pc_Fermants = pc_Ouvrants;

    const char *pc_Debut = strpbrk(pc_Texte, pc_Ouvrants);
    if (pc_Debut == nullptr) return 0;
    pc_Debut += strspn(pc_Debut, pc_Ouvrants);

    // Bound of the copy: up to the closing delimiter or the end of the text,
    // never more than the output holds.
    const char *pc_Fin = strpbrk(pc_Debut, pc_Fermants);
    std::size_t t_Distance = pc_Fin != nullptr ? static_cast<std::size_t>(pc_Fin - pc_Debut)
                                               : strlen(pc_Debut);
    std::size_t t_Borne = std::min(t_Distance + 1, t_Taille);
    if (t_Borne > UINT32_MAX) t_Borne = UINT32_MAX;
    return _strncpy(pc_Sortie, pc_Debut, static_cast<std::uint32_t>(t_Borne));
}
