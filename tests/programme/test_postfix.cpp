// The program in the real chain a site runs: a message submitted over SMTP
// to a private Postfix, handed by its pipe transport to the program running
// as nobody, which looks the recipient up in slapd and delivers into a real
// Cyrus store.  What arrived is read from the mailbox and from Postfix's log,
// never from the program's output.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "annuaire_essai.h"
#include "cyrus_essai.h"
#include "postfix_essai.h"
#include "processus.h"

namespace {

const std::string PROG = CHEMIN_REMISE_VORANE_ESSAI;

class Postfix : public ::testing::Test {
protected:
    AnnuaireEssai st_Annuaire;
    CyrusEssai st_Cyrus;
    PostfixEssai st_Postfix;

    void TearDown() override {
        ArretePostfix(&st_Postfix);
        ArreteCyrus(&st_Cyrus);
        ArreteAnnuaire(&st_Annuaire);
    }
};

// One message, sender and recipient as a site sees them: Postfix runs the
// program once, as nobody (its delivery marker in the spool is nobody's),
// logs it sent through the pipe service, and the mailbox holds the message
// with the program's trace header, Postfix's own Received line and the
// body, once.
TEST_F(Postfix, SmtpJusquALaBoite) {
    // The spool as --init leaves it, so that nobody can write in it.
    ASSERT_EQ(LanceProgramme({PROG, "--init"}).i_Statut, 1);
    const std::string s_Temoin = std::string(RACINE_SPOOL_ESSAI) + "Remises/paul";
    std::filesystem::remove(s_Temoin);

    ASSERT_TRUE(DemarreAnnuaire(&st_Annuaire,
                                EntreeLdif("uid=paul", "objectClass: inetOrgPerson\n"
                                                       "objectClass: ravokVixBoite\nuid: paul\n"
                                                       "cn: Paul Dupuis\nsn: Dupuis\n"
                                                       "mail: paul@vorane.example\n"
                                                       "ravokVixRemise: LMTP\n")))
        << st_Annuaire.s_Erreur;
    ASSERT_TRUE(DemarreCyrus(&st_Cyrus, {"paul"})) << st_Cyrus.s_Erreur;
    OptionsPostfix st_Options;
    st_Options.v_Pipe = {PROG, "-r", st_Cyrus.s_Socket, "-l", st_Annuaire.s_Hote,
                         "-e", "${sender}", "-d", "${recipient}"};
    ASSERT_TRUE(DemarrePostfix(&st_Postfix, st_Options)) << st_Postfix.s_Erreur;

    const std::string s_MessageId = "smtp-" + std::to_string(getpid()) + "@partenaire.test";
    std::string s_Id = SoumetSmtp(&st_Postfix, "jean@partenaire.test", {"paul@vorane.example"},
                                  "Message-ID: <" + s_MessageId + ">\n"
                                  "From: Jean <jean@partenaire.test>\nTo: paul@vorane.example\n"
                                  "Subject: par Postfix\n\npremiere ligne\n.point\n");
    ASSERT_NE(s_Id, "") << st_Postfix.s_Erreur;
    std::string s_Journal = AttendMessage(st_Postfix, s_Id);
    EXPECT_NE(s_Journal.find("to=<paul@vorane.example>, relay=vorane,"), std::string::npos)
        << JournalPostfix(st_Postfix);
    EXPECT_NE(s_Journal.find("status=sent"), std::string::npos) << s_Journal;

    std::vector<std::string> v = MessagesStockes(st_Cyrus, "paul");
    ASSERT_EQ(v.size(), 1u) << s_Journal;
    MessageStocke st = DecoupeMessage(v[0]);
    EXPECT_NE(st.s_Entete.find("\nX-Remise-Vorane: v1.1.0; le "), std::string::npos) << st.s_Entete;
    EXPECT_NE(st.s_Entete.find("with ESMTP id " + s_Id), std::string::npos) << st.s_Entete;
    EXPECT_NE(st.s_Entete.find("\nMessage-ID: <" + s_MessageId + ">\n"), std::string::npos);
    // The end of data's own line feed adds an empty line, as in every
    // delivery to the store.
    EXPECT_EQ(st.s_Corps, "premiere ligne\n.point\n\n");
    struct stat st_Temoin;
    ASSERT_EQ(stat(s_Temoin.c_str(), &st_Temoin), 0);
    EXPECT_EQ(st_Temoin.st_uid, 65534u);  // nobody
}

}  // namespace
