// Fuzz target: any message read as the header, analysed and rewritten, the
// directory lookup replaced by the target's own answer.  Aborts when the
// working header breaks the invariant of the rewriting:
//   - every incoming line (its pieces joined) is still there, in order,
//     except the first From and a rewritten Subject, which a line of the
//     program's own takes the place of;
//   - every other line is the program's own: it begins with one of its
//     names, is one header field (each line feed but the last followed by a
//     blank or a tab), holds no other control byte and ends with exactly one
//     line feed;
//   - no line is glued to the next (each but the last ends with a line
//     feed), and nothing follows the empty line that ended the header;
//   - the From and the Reply-to the program wrote name exactly one address.
//
// Input: byte 0 chooses the envelope sender (bits 0-2), whether the sender
// is found in the directory (bit 3) and is a mailbox (bit 4); then the cn
// of that entry up to the first NUL; then the message.
//
// A report of level 2 or 3 ends the run in the program; here it ends the
// input (TraitementErreur and FinProcessus are the target's own).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <strings.h>
#include <vector>

#include "adresse_unique.h"
#include "driver/driver.h"
#include "report/report.h"

namespace {

// The end of a run, thrown where the program would end the process.
struct FinDuTraitement {};

const char *const tpc_Emetteurs[] = {"ext@partenaire.test",  "",
                                     "mailer-daemon@x.test", "a.b@vorane.example",
                                     "x@y.example",          "A@B",
                                     "\"a b\"@x.test",       "postmaster@relais.vorane.example"};

const char *const tpc_NomsPropres[] = {"From: ",           "Reply-to: ",      "Subject: ",
                                       "X-Remise-Vorane: ", "X-ravokOrigine: ",
                                       "X-ravokFromDifferent: "};

// The incoming header in whole lines: node texts joined up to one that ends
// with a line feed.
std::vector<std::string> LignesEntrantes() {
    std::vector<std::string> v;
    std::string s;
    for (Entete *pet = gpet_EnteteMessOrigine; pet != nullptr; pet = pet->pet_Suivant) {
        s += pet->pc_Ligne;
        if (pet->pet_Suivant == nullptr || (!s.empty() && s.back() == '\n')) {
            v.push_back(s);
            s.clear();
        }
    }
    return v;
}

// Why a line the program composed is not one clean field of its own, or "".
std::string DefautLignePropre(const std::string &s) {
    bool b_Nom = false;
    for (const char *pc : tpc_NomsPropres) b_Nom = b_Nom || s.rfind(pc, 0) == 0;
    if (!b_Nom) return "a line that is neither received nor the program's";
    if (s.empty() || s.back() != '\n') return "no final line feed";
    for (std::size_t i = 0; i + 1 < s.size(); i++) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '\n' && s[i + 1] != ' ' && s[i + 1] != '\t') return "a line feed, not folding";
        if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7f) return "a control byte";
    }
    if (s.rfind("From: ", 0) == 0 || s.rfind("Reply-to: ", 0) == 0) return DefautAdresseUnique(s);
    return "";
}

// Restores standard error, shows what broke the invariant, and aborts.
[[noreturn]] void Echec(FILE *pf_Erreur, const std::string &s_Pourquoi,
                        const std::string &s_Ligne) {
    stderr = pf_Erreur;
    fprintf(stderr, "invariant broken: %s\n<<%s>>\n", s_Pourquoi.c_str(), s_Ligne.c_str());
    abort();
}

// Checks the working header against the incoming one.
void VerifieEntete(FILE *pf_Erreur) {
    std::vector<std::string> v_Entrees = LignesEntrantes();
    std::size_t t_PremierFrom = v_Entrees.size();
    for (std::size_t i = 0; i < v_Entrees.size() && t_PremierFrom == v_Entrees.size(); i++)
        if (strncasecmp(v_Entrees[i].c_str(), "from:", 5) == 0) t_PremierFrom = i;
    const bool b_FinEntete = !v_Entrees.empty() && LigneEnteteVide(v_Entrees.back().c_str());

    std::size_t k = 0;
    for (Entete *pet = gpet_EnteteMess; pet != nullptr; pet = pet->pet_Suivant) {
        std::string s = pet->pc_Ligne;
        if (pet->pet_Suivant != nullptr && (s.empty() || s.back() != '\n'))
            Echec(pf_Erreur, "a line glued to the next", s);
        if (k < v_Entrees.size() &&
            (s == v_Entrees[k] || (k + 1 == v_Entrees.size() && s == v_Entrees[k] + "\n"))) {
            if (++k == v_Entrees.size() && b_FinEntete && pet->pet_Suivant != nullptr)
                Echec(pf_Erreur, "a line after the end of the header", pet->pet_Suivant->pc_Ligne);
            continue;
        }
        std::string s_Defaut = DefautLignePropre(s);
        if (!s_Defaut.empty()) Echec(pf_Erreur, s_Defaut, s);
        // The rewritten From and Subject take the place of the lines they replace.
        if (k < v_Entrees.size() && ((s.rfind("From: ", 0) == 0 && k == t_PremierFrom) ||
                                     (s.rfind("Subject: ", 0) == 0 &&
                                      strncasecmp(v_Entrees[k].c_str(), "subject:", 8) == 0)))
            k++;
    }
    if (k != v_Entrees.size()) Echec(pf_Erreur, "an incoming line lost", v_Entrees[k]);
}

// Frees both header lists and every text they hold or held before the
// rewriting (the program itself leaves them to the end of the process).
void Libere(std::set<char *> st_Textes) {
    std::set<Entete *> st_Noeuds;
    for (Entete *pet_Liste : {gpet_EnteteMessOrigine, gpet_EnteteMess})
        for (Entete *pet = pet_Liste; pet != nullptr; pet = pet->pet_Suivant) {
            st_Noeuds.insert(pet);
            st_Textes.insert(pet->pc_Ligne);
        }
    for (char *pc : st_Textes) free(pc);
    for (Entete *pet : st_Noeuds) free(pet);
    gpet_EnteteMessOrigine = gpet_EnteteMess = nullptr;
}

}  // namespace

// The target's reporting: a level that ends the program's run ends the input.
void TraitementErreur(int i_Niveau, const char *, ...) {
    if (i_Niveau >= 0 && i_Niveau <= NIVEAU_ERREUR) throw FinDuTraitement{};
}

void FinProcessus(int) { throw FinDuTraitement{}; }

// The directory's series of repeated warnings: no dump file to share here.
void OuvreSerieAvertissements() {}
void FermeSerieAvertissements() {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pc_Donnees, std::size_t t_Taille) {
    if (t_Taille == 0) return 0;
    const std::uint8_t c_Choix = pc_Donnees[0];
    std::string s_Reste(reinterpret_cast<const char *>(pc_Donnees + 1), t_Taille - 1);
    std::size_t t_Nul = s_Reste.find('\0');
    std::string s_Cn = s_Reste.substr(0, std::min<std::size_t>(t_Nul, TAILLE_PHRASE - 1));
    std::string s_Message = t_Nul == std::string::npos ? "" : s_Reste.substr(t_Nul + 1);

    // The run's values, as the command line and the directory would set them.
    static char pc_Emetteur[TAILLE_ADRESSE];
    snprintf(pc_Emetteur, sizeof pc_Emetteur, "%s", tpc_Emetteurs[c_Choix & 7]);
    gpc_MailFrom = pc_Emetteur;
    gpc_RcptTo = "alice@vorane.example";
    gi_nbDestLcmd = 1;
    gi_EmetteurZeldor = (c_Choix >> 3) & 1;
    gi_EmetteurZeldorBoite = (c_Choix >> 4) & 1;
    OptionsRemise st_Options;
    st_Options.pc_SuffixeSpam = "+Spam";

    // The message on standard input, standard error silenced.
    FILE *pf_Entree = s_Message.empty() ? fopen("/dev/null", "r")
                                        : fmemopen(s_Message.data(), s_Message.size(), "r");
    FILE *pf_Nul = fopen("/dev/null", "w");
    if (pf_Entree == nullptr || pf_Nul == nullptr) abort();
    FILE *pf_Stdin = stdin, *pf_Stderr = stderr;
    stdin = pf_Entree;
    stderr = pf_Nul;

    AnalyseEmetteur st;
    std::set<char *> st_Avant;
    bool b_Fini = false;
    try {
        AnalyseEntete(&st);
        NomEtOrigine(&st, s_Cn.c_str());
        for (Entete *pet = gpet_EnteteMess; pet != nullptr; pet = pet->pet_Suivant)
            st_Avant.insert(pet->pc_Ligne);
        ReecritEntete(&st_Options, &st);
        b_Fini = true;
    } catch (const FinDuTraitement &) {
    }
    if (b_Fini) VerifieEntete(pf_Stderr);
    stdin = pf_Stdin;
    stderr = pf_Stderr;
    fclose(pf_Entree);
    fclose(pf_Nul);
    if (st.pc_PassagePrecedent[0] != '\0') free(const_cast<char *>(st.pc_PassagePrecedent));
    Libere(st_Avant);
    return 0;
}
