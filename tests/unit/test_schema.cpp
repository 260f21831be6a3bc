// The directory schema in its two forms: the cn=config LDIF is what the
// generator makes of the .schema file, and a cn=config directory built from
// it with the standard schemas passes slapd's own configuration test.  (The
// .schema form is loaded by every directory test through the fixture.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "serveurs_essai.h"
#include "processus.h"

namespace {

const std::string SCHEMA = REPERTOIRE_SOURCES "/schema/";

// A fresh temporary directory.
std::string RepertoireTemporaire() {
    char pc[] = "/tmp/vorane-schema-XXXXXX";
    return mkdtemp(pc) != nullptr ? pc : "";
}

// The cn=config LDIF in the tree is what the generator makes of the .schema
// file: an edit of one without the other fails here.
TEST(Schema, LdifAJourDuFichierSchema) {
    const std::string s_Rep = RepertoireTemporaire();
    ASSERT_FALSE(s_Rep.empty());
    ResultatProcessus r = LanceProgramme(
        {"/bin/sh", SCHEMA + "genere-ldif.sh", SCHEMA + "vorane.schema", s_Rep + "/vorane.ldif"});
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(LitFichier(s_Rep + "/vorane.ldif"), LitFichier(SCHEMA + "vorane.ldif"))
        << "schema/vorane.ldif is stale: run schema/genere-ldif.sh";
    std::filesystem::remove_all(s_Rep);
}

// The cn=config form loads into a cn=config directory after the standard
// schemas and passes slapd's configuration test.
TEST(Schema, FormeCnConfigChargeeParSlapd) {
    const std::string s_Rep = RepertoireTemporaire();
    ASSERT_FALSE(s_Rep.empty());
    std::filesystem::create_directory(s_Rep + "/slapd.d");
    std::string s_Ldif =
        "dn: cn=config\nobjectClass: olcGlobal\ncn: config\n\n"
        "dn: cn=schema,cn=config\nobjectClass: olcSchemaConfig\ncn: schema\n\n";
    for (const char *pc : {"core", "cosine", "inetorgperson"})
        s_Ldif += LitFichier(std::string("/etc/ldap/schema/") + pc + ".ldif") + "\n";
    s_Ldif += LitFichier(SCHEMA + "vorane.ldif");
    std::ofstream(s_Rep + "/config.ldif") << s_Ldif;

    ResultatProcessus r = LanceProgramme(
        {"/usr/sbin/slapadd", "-n", "0", "-F", s_Rep + "/slapd.d", "-l", s_Rep + "/config.ldif"});
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    r = LanceProgramme({"/usr/sbin/slaptest", "-u", "-F", s_Rep + "/slapd.d"});
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_TRUE(std::filesystem::exists(s_Rep + "/slapd.d/cn=config/cn=schema/cn={3}vorane.ldif"));
    std::filesystem::remove_all(s_Rep);
}

// The sample entries of the site documentation load under the schema (slapd
// checks every class and attribute) and give an example of every delivery
// kind.
TEST(Schema, EntreesDExempleChargeesSousLeSchema) {
    AnnuaireEssai st;
    ASSERT_TRUE(DemarreAnnuaire(&st, LitFichier(REPERTOIRE_SOURCES "/doc/exemples.ldif")))
        << st.s_Erreur;
    for (const char *pc : {"LMTP", "LISTE", "LISTE-BR", "LISTE-MU", "SYMPA", "SYMPA-BOUNCE",
                           "NULL", "ATTENTE"}) {
        ResultatProcessus r =
            LanceProgramme({"/usr/bin/ldapsearch", "-x", "-LLL", "-H", st.s_Url, "-b",
                            SUFFIXE_ANNUAIRE_ESSAI, std::string("(ravokVixRemise=") + pc + ")", "1.1"});
        EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_NE(r.s_Sortie.find("dn: "), std::string::npos) << "no sample entry for " << pc;
    }
    ArreteAnnuaire(&st);
}

}  // namespace
