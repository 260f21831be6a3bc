// Expansion of a LISTE-MU of 10,000 members spread over 100 nested lists,
// against a local slapd, compared with the same searches issued by a
// minimal loop on the same session.  The expansion should cost no more than
// the directory's round trips: goal, at most 1.2 times the minimal loop.
//
// Prints lookups per second for both and the ratio of their best times.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "annuaire_essai.h"
#include "directory/directory.h"
#include "message/message.h"
#include "socle.h"

namespace {

constexpr int NB_LISTES = 100;
constexpr int NB_PAR_LISTE = 100;
constexpr int NB_RECHERCHES = NB_LISTES + NB_LISTES * NB_PAR_LISTE;
constexpr double OBJECTIF_RAPPORT = 1.2;

AnnuaireEssai gst_Annuaire;
std::vector<std::string> gv_Listes;   // the top list's members: the nested lists
std::vector<std::string> gv_Filtres;  // every search of one expansion, in order
double gd_MeilleurExplose = 0, gd_MeilleurBoucle = 0;

// LDIF: 10,000 mailboxes and 100 lists of 100 of them each.
std::string Entrees() {
    std::string s;
    for (int i = 0; i < NB_LISTES * NB_PAR_LISTE; i++) {
        std::string u = "m" + std::to_string(i);
        s += EntreeLdif("uid=" + u,
                        "objectClass: inetOrgPerson\nobjectClass: ravokVixBoite\nuid: " + u +
                            "\ncn: " + u + "\nsn: " + u + "\nmail: " + u +
                            "@vorane.example\nravokVixRemise: LMTP\n");
    }
    for (int l = 0; l < NB_LISTES; l++) {
        std::string n = "sous" + std::to_string(l);
        std::string e = "objectClass: ravokVixListe\ncn: " + n + "\nmail: " + n +
                        "@vorane.example\nravokVixRemise: LISTE\n";
        for (int i = 0; i < NB_PAR_LISTE; i++)
            e += "ravokVixMembres: m" + std::to_string(l * NB_PAR_LISTE + i) + "@vorane.example\n";
        s += EntreeLdif("cn=" + n, e);
        gv_Listes.push_back(n + "@vorane.example");
    }
    // Breadth-first order of the expansion: the lists, then their members.
    for (const std::string &s_Liste : gv_Listes) gv_Filtres.push_back("(mail=" + s_Liste + ")");
    for (int i = 0; i < NB_LISTES * NB_PAR_LISTE; i++)
        gv_Filtres.push_back("(mail=m" + std::to_string(i) + "@vorane.example)");
    return s;
}

// Seconds since a point in time.
double Depuis(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

void BM_ExploseMembres(benchmark::State &state) {
    std::vector<char *> v;
    for (std::string &s : gv_Listes) v.push_back(s.data());
    v.push_back(nullptr);
    for (auto _ : state) {
        auto t = std::chrono::steady_clock::now();
        char **tpc = ExploseMembres(v.data());
        UniciteMembres(tpc);
        double d = Depuis(t);
        if (NblTableau(tpc) != NB_LISTES * NB_PAR_LISTE + 1) state.SkipWithError("wrong expansion");
        // The nested lists' values stay with the array, as in a run.
        free(tpc);
        if (gd_MeilleurExplose == 0 || d < gd_MeilleurExplose) gd_MeilleurExplose = d;
    }
    state.counters["recherches/s"] = benchmark::Counter(
        static_cast<double>(NB_RECHERCHES) * state.iterations(), benchmark::Counter::kIsRate);
}

// The same searches, values fetched and released, nothing else.
void BM_BoucleMinimale(benchmark::State &state) {
    char *tpc_Attr[] = {const_cast<char *>("ravokVixMembres"), const_cast<char *>("ravokVixRemise"),
                        nullptr};
    for (auto _ : state) {
        auto t = std::chrono::steady_clock::now();
        for (const std::string &s_Filtre : gv_Filtres) {
            LDAPMessage *res = nullptr;
            if (ldap_search_ext_s(gld, "", LDAP_SCOPE_SUBTREE, s_Filtre.c_str(), tpc_Attr, 0,
                                  nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &res) != LDAP_SUCCESS)
                state.SkipWithError("search failed");
            if (ldap_count_entries(gld, res) == 1) {
                LDAPMessage *e = ldap_first_entry(gld, res);
                for (char **pp = tpc_Attr; *pp != nullptr; pp++)
                    ldap_value_free_len(ldap_get_values_len(gld, e, *pp));
            }
            ldap_msgfree(res);
        }
        double d = Depuis(t);
        if (gd_MeilleurBoucle == 0 || d < gd_MeilleurBoucle) gd_MeilleurBoucle = d;
    }
    state.counters["recherches/s"] = benchmark::Counter(
        static_cast<double>(NB_RECHERCHES) * state.iterations(), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_BoucleMinimale)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);
BENCHMARK(BM_ExploseMembres)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);
BENCHMARK(BM_BoucleMinimale)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (!DemarreAnnuaire(&gst_Annuaire, Entrees())) {
        fprintf(stderr, "slapd: %s\n", gst_Annuaire.s_Erreur.c_str());
        return 1;
    }
    _strncpy(gPc_InfoMessEnCours, "bench", TAILLE_TEXTE);
    gld = ldapConnect(gst_Annuaire.s_Hote.c_str());
    benchmark::RunSpecifiedBenchmarks();
    ldapClose(&gld);
    ArreteAnnuaire(&gst_Annuaire);

    double d_Rapport = gd_MeilleurExplose / gd_MeilleurBoucle;
    printf("\nExpansion of %d members in %d nested lists (%d searches), best of each:\n",
           NB_LISTES * NB_PAR_LISTE, NB_LISTES, NB_RECHERCHES);
    printf("  ExploseMembres + UniciteMembres: %8.1f ms  %8.0f lookups/s\n",
           gd_MeilleurExplose * 1e3, NB_RECHERCHES / gd_MeilleurExplose);
    printf("  minimal search loop:             %8.1f ms  %8.0f lookups/s\n",
           gd_MeilleurBoucle * 1e3, NB_RECHERCHES / gd_MeilleurBoucle);
    printf("  ratio %.3f (goal <= %.1f): %s\n", d_Rapport, OBJECTIF_RAPPORT,
           d_Rapport <= OBJECTIF_RAPPORT ? "met" : "NOT MET");
    benchmark::Shutdown();
    return 0;
}
