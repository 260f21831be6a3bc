// Origin zone: which Received line decides, with the reference site data.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rules/rules.h"

namespace {

// Builds a header list from lines (kept alive by the returned vectors).
struct EnteteEssai {
    std::vector<std::string> v_Lignes;
    std::vector<Entete> v_Noeuds;
    explicit EnteteEssai(std::vector<std::string> v) : v_Lignes(std::move(v)) {
        v_Noeuds.resize(v_Lignes.size());
        for (std::size_t i = 0; i < v_Lignes.size(); i++) {
            v_Noeuds[i].pc_Ligne = v_Lignes[i].data();
            v_Noeuds[i].pet_Suivant = i + 1 < v_Lignes.size() ? &v_Noeuds[i + 1] : nullptr;
        }
    }
    Entete *Tete() { return v_Noeuds.empty() ? nullptr : &v_Noeuds[0]; }
};

struct CasZone {
    const char *pc_Nom;
    std::vector<std::string> v_Lignes;
    int i_Zone;
};

void PrintTo(const CasZone &c, std::ostream *os) { *os << c.pc_Nom; }

class Zone : public ::testing::TestWithParam<CasZone> {};

TEST_P(Zone, PremiereLigneDeLaTableQuiCorrespond) {
    EnteteEssai e(GetParam().v_Lignes);
    EXPECT_EQ(ZoneOrigine(e.Tete()), GetParam().i_Zone);
}

const std::string R_INTERNET = "Received: from mx.ailleurs.example (mx [10.0.1.77])\n\tby relais\n";
const std::string R_C7 = "Received: from c7 (c7.example [10.0.17.4]) by relais\n";

INSTANTIATE_TEST_SUITE_P(
    Cas, Zone,
    ::testing::Values(
        CasZone{"sans_received", {"From: a@b\n", "\n"}, ZONE_AUCUNE},
        CasZone{"entete_vide", {}, ZONE_AUCUNE},
        CasZone{"internet", {R_INTERNET, "\n"}, 0},
        CasZone{"nom_de_champ_en_majuscules", {"RECEIVED: from x ([10.0.1.5])\n"}, 0},
        CasZone{"ordre_de_la_table_et_non_des_lignes", {R_C7, R_INTERNET}, 0},
        CasZone{"centre_serveur_seul", {R_C7}, 13},
        CasZone{"webmail_intranet_arrete_la_recherche",
                {"Received: from webmail (par intranet [10.0.5.1])\n", R_C7},
                3},
        CasZone{"webmail_internet_casse_ignoree", {"received: FROM WEBMAIL (PAR INTERNET x\n"}, 1},
        CasZone{"adresse_hors_received_ignoree",
                {"X-Origine: [10.0.1.1]\n", "Subject: [10.0.5.1]\n"},
                ZONE_AUCUNE},
        CasZone{"dernier_octet_hors_liste", {"Received: from x ([10.0.5.2])\n"}, ZONE_AUCUNE},
        CasZone{"hote_de_la_ligne", {"Received: from x ([10.0.5.1])\n"}, 6},
        CasZone{"alternative_second_reseau", {"Received: from x ([10.0.4.2])\n"}, 5},
        CasZone{"bloc_de_reseaux", {"Received: from x ([10.32.31.200])\n"}, 2},
        CasZone{"hors_bloc", {"Received: from x ([10.32.32.1])\n"}, ZONE_AUCUNE},
        CasZone{"serveur_local_interne", {"Received: from x ([10.0.19.11])\n"}, 15},
        CasZone{"intranet", {"Received: from x ([10.0.19.21])\n"}, 16},
        CasZone{"sans_crochets", {"Received: from 10.0.1.7 by y\n"}, ZONE_AUCUNE}),
    [](const ::testing::TestParamInfo<CasZone> &i) { return std::string(i.param.pc_Nom); });

TEST(TablesZone, LibellesEtMarques) {
    EXPECT_STREQ(gtpc_LibelleZone[0], "par Internet");
    EXPECT_STREQ(gtpc_MarqueZone[0], "> ");
    EXPECT_STREQ(gtpc_LibelleZone[3], "");
    EXPECT_STREQ(gtpc_MarqueZone[15], "~");
    EXPECT_STREQ(gtpc_LibelleZone[ZONE_AUCUNE], "");
    EXPECT_STREQ(gtpc_MarqueZone[ZONE_AUCUNE], "");
}

}  // namespace
