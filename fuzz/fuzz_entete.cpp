// Fuzz target: any bytes as the message on standard input, read by
// LitEntete then LitMessage, and every lookup over the result.  The lists
// are freed afterwards (the program itself relies on process exit).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "message/message.h"

namespace {

// Names looked up, as the program gives them.
const char *const tpc_Noms[] = {"From:", "subject:", "To", "Message-Id:", "X-Remise-Vorane:",
                                "", "\r\n", " "};

// Frees a list read by this target (every text is its node's own copy).
void Libere(Entete *pet) {
    while (pet != nullptr) {
        Entete *pet_Suivant = pet->pet_Suivant;
        free(pet->pc_Ligne);
        free(pet);
        pet = pet_Suivant;
    }
}

}  // namespace

// One input; traps on any broken invariant.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pc_Donnees, std::size_t t_Taille) {
    FILE *pf = fmemopen(const_cast<std::uint8_t *>(pc_Donnees), t_Taille, "r");
    if (t_Taille == 0 || pf == nullptr) return 0;
    FILE *pf_Stdin = stdin;
    stdin = pf;

    Entete *pet_Tete = nullptr;
    LitEntete(&pet_Tete);
    if (pet_Tete != nullptr) LitMessage(pet_Tete, stdin);
    stdin = pf_Stdin;
    fclose(pf);

    for (Entete *pet = pet_Tete; pet != nullptr; pet = pet->pet_Suivant) {
        // A node longer than one piece is a field joined with its continuations.
        if (strlen(pet->pc_Ligne) >= TAILLE_LECTURE && strstr(pet->pc_Ligne, "\n ") == nullptr &&
            strstr(pet->pc_Ligne, "\n\t") == nullptr)
            __builtin_trap();
        (void)LigneEnteteVide(pet->pc_Ligne);
        char pc_Id[TAILLE_TEXTE];
        int i = RecupValeur(pet->pc_Ligne, "<", ">", pc_Id, sizeof pc_Id);
        if (i < 0 || static_cast<std::size_t>(i) >= sizeof pc_Id || strlen(pc_Id) != static_cast<std::size_t>(i))
            __builtin_trap();
        char *pc_Copie = strdup(pet->pc_Ligne);
        if (pc_Copie != nullptr) VerifLigneEOL(pc_Copie);
        free(pc_Copie);
    }
    for (const char *pc_Nom : tpc_Noms) {
        for (Entete *pet = RecupEntete(pet_Tete, pc_Nom); pet != nullptr;
             pet = RecupEntete(pet->pet_Suivant, pc_Nom)) {
        }
        const char *pc_Valeur = RecupValeurEntete(pet_Tete, pc_Nom);
        if (pc_Valeur == nullptr) __builtin_trap();
        char pc_Sortie[16];
        RecupValeur(pc_Valeur, " ", "\n", pc_Sortie, sizeof pc_Sortie);
    }
    Libere(pet_Tete);
    return 0;
}
