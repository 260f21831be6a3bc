// The directory schema: the cn=config LDIF in the tree is what the generator
// makes of the .schema file (which every directory test loads), it passes
// slapd's configuration test after the standard schemas, and the
// documentation's sample entries load under it with every delivery kind.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "serveurs_essai.h"
#include "processus.h"

namespace {

const std::string SCHEMA = REPERTOIRE_SOURCES "/schema/";

TEST(Schema, FormeCnConfigEtExemples) {
    char pc_Rep[] = "/tmp/vorane-schema-XXXXXX";
    ASSERT_NE(mkdtemp(pc_Rep), nullptr);
    const std::string s_Rep = pc_Rep;
    ResultatProcessus r = LanceProgramme(
        {"/bin/sh", SCHEMA + "genere-ldif.sh", SCHEMA + "vorane.schema", s_Rep + "/vorane.ldif"});
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(LitFichier(s_Rep + "/vorane.ldif"), LitFichier(SCHEMA + "vorane.ldif"))
        << "schema/vorane.ldif is stale: run schema/genere-ldif.sh";

    std::string s_Ldif = "dn: cn=config\nobjectClass: olcGlobal\ncn: config\n\n"
                         "dn: cn=schema,cn=config\nobjectClass: olcSchemaConfig\ncn: schema\n\n";
    for (const char *pc : {"core", "cosine", "inetorgperson"})
        s_Ldif += LitFichier(std::string("/etc/ldap/schema/") + pc + ".ldif") + "\n";
    std::ofstream(s_Rep + "/config.ldif") << s_Ldif + LitFichier(SCHEMA + "vorane.ldif");
    std::filesystem::create_directory(s_Rep + "/slapd.d");
    r = LanceProgramme({"/usr/sbin/slapadd", "-n", "0", "-F", s_Rep + "/slapd.d", "-l", s_Rep + "/config.ldif"});
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    r = LanceProgramme({"/usr/sbin/slaptest", "-u", "-F", s_Rep + "/slapd.d"});
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    std::filesystem::remove_all(s_Rep);

    const std::string s_Exemples = LitFichier(REPERTOIRE_SOURCES "/doc/exemples.ldif");
    AnnuaireEssai st;
    EXPECT_TRUE(DemarreAnnuaire(&st, s_Exemples)) << st.s_Erreur;
    ArreteServeur(&st);
    for (const char *pc : {"LMTP", "LISTE", "LISTE-BR", "LISTE-MU", "SYMPA", "SYMPA-BOUNCE", "NULL", "ATTENTE"})
        EXPECT_NE(s_Exemples.find(std::string("\nravokVixRemise: ") + pc + "\n"), std::string::npos) << pc;
}

}  // namespace
