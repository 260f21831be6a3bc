// The LMTP client against Debian's Cyrus lmtpd: what the store keeps is the
// message sent, dot lines included, and its real replies (unknown mailbox,
// over quota) become the report the sender receives.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cyrus_essai.h"
#include "driver/deploiement.h"
#include "driver/driver.h"
#include "serveur_lmtp.h"
#include "transport/transport.h"

namespace {

CyrusEssai gst_Cyrus;
bool gb_Cyrus = false;

// Builds a line list from texts.
Entete *Liste(const std::vector<std::string> &v) {
    Entete *pet_Tete = nullptr;
    Entete *pet_Curseur = nullptr;
    for (const std::string &s : v) {
        ChargeLigne(&pet_Curseur, s.c_str(), 0);
        if (pet_Tete == nullptr) pet_Tete = pet_Curseur;
    }
    return pet_Tete;
}

// A body stream holding the bytes.
FILE *Flux(const std::string &s) {
    FILE *pf = tmpfile();
    fwrite(s.data(), 1, s.size(), pf);
    rewind(pf);
    return pf;
}

// The text with its CRLF line ends made LF, as the store turns them back.
std::string EnLf(std::string s) {
    std::string r;
    for (std::size_t i = 0; i < s.size(); i++)
        if (!(s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n')) r += s[i];
    return r;
}

// The body of a stored message (after its first empty line), LF line ends.
std::string CorpsStocke(const std::string &s_Message) {
    std::string s = EnLf(s_Message);
    std::size_t p = s.find("\n\n");
    return p == std::string::npos ? "" : s.substr(p + 2);
}

struct Issue {
    ResultatEnfant r;
    int i_Res = -999;
    std::string s_Rapport;
};

// One delivery attempt in a child process.
Issue Delivre(const std::vector<std::string> &v_Boites, const std::string &s_MessageId,
              const std::string &s_Corps) {
    Issue is;
    is.r = ExecuteEnFils([&]() {
        static char pc_From[] = "emetteur@ext.example";
        gpc_MailFrom = pc_From;
        gpc_RcptTo = "-";
        gi_nbDestLcmd = static_cast<int>(v_Boites.size());
        std::vector<std::string> v_Adr;
        for (const std::string &s : v_Boites) v_Adr.push_back(s + "@vorane.example");
        std::vector<char *> v_B, v_A;
        for (std::size_t i = 0; i < v_Boites.size(); i++) {
            v_B.push_back(const_cast<char *>(v_Boites[i].c_str()));
            v_A.push_back(v_Adr[i].data());
        }
        v_B.push_back(nullptr);
        v_A.push_back(nullptr);
        Entete *pet = Liste({"Return-Path: <ancien@ext.example>\n", "From: emetteur@ext.example\n",
                             "Subject: essai\n", "Message-Id: <" + s_MessageId + ">\n", "\n"});
        char *pc_Rapport = nullptr;
        int i = Remise_LMTP(gst_Cyrus.s_SocketLmtp.c_str(), pc_From, v_B.data(), v_A.data(), "",
                            pet, Flux(s_Corps), &pc_Rapport);
        return std::to_string(i) + "|" + (pc_Rapport ? pc_Rapport : "");
    });
    std::size_t p = is.r.s_Retour.find('|');
    if (p != std::string::npos) {
        is.i_Res = atoi(is.r.s_Retour.c_str());
        is.s_Rapport = is.r.s_Retour.substr(p + 1);
    }
    return is;
}

class LmtpCyrus : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        gb_Cyrus = DemarreCyrus(&gst_Cyrus, {"alice", "bob"}, {"petit"});
    }
    static void TearDownTestSuite() { ArreteCyrus(&gst_Cyrus); }
    void SetUp() override {
        if (!gb_Cyrus) GTEST_SKIP() << gst_Cyrus.s_Erreur;
    }
};

// Lines ".", "..", ".x", a long line beginning with "." and a body line
// that would end unstuffed data early are stored as sent; the store writes
// its own Return-Path in place of the one the header began with.
TEST_F(LmtpCyrus, CorpsIntactDansLaBoite) {
    std::string s_Corps = "debut\n.\n..\n.x\n" + ("." + std::string(5000, 'L')) + "\n";
    s_Corps += std::string(1023, 'a') + ".milieu\n";
    s_Corps += ".\nQUIT\nfin\n";
    Issue is = Delivre({"alice"}, "transparence.1@ext.example", s_Corps);
    ASSERT_EQ(is.r.i_Statut, 0) << is.r.s_Erreur;
    EXPECT_EQ(is.i_Res, 0);
    EXPECT_EQ(is.s_Rapport, "");
    std::vector<std::string> v = MessagesCyrus(gst_Cyrus, "alice");
    ASSERT_EQ(v.size(), 1u);
    EXPECT_EQ(CorpsStocke(v[0]), s_Corps + "\n");
    EXPECT_EQ(v[0].find("ancien@ext.example"), std::string::npos);
    EXPECT_EQ(v[0].compare(0, 36, "Return-Path: <emetteur@ext.example>\r"), 0) << v[0].substr(0, 80);
}

// In one transaction: an unknown mailbox (a three-line 550 reply), a
// mailbox over its quota, and one that takes the message.
TEST_F(LmtpCyrus, RefusReelsDansLeRapport) {
    // Fill the small mailbox past its 1 KB quota first.
    Issue is = Delivre({"petit"}, "remplit.1@ext.example", std::string(4000, 'r') + "\n");
    ASSERT_EQ(is.i_Res, 0) << is.r.s_Erreur;

    is = Delivre({"inconnu", "petit", "bob"}, "refus.1@ext.example", "Bonjour\n");
    ASSERT_EQ(is.r.i_Statut, 0) << is.r.s_Erreur;
    EXPECT_EQ(is.i_Res, 0);
    EXPECT_EQ(is.s_Rapport,
              "Les destinataires suivants n'ont pas recu votre message:\n\n"
              "Destinataire <inconnu@vorane.example>, r\xe9ponse du serveur :\n"
              "550-Mailbox unknown.  Either there is no mailbox associated with this\r\n"
              "550-name or you do not have authorization to see it.\r\n"
              "550 5.1.1 User unknown\r\n\n"
              "Destinataire <petit@vorane.example>, r\xe9ponse du serveur :\n"
              "Bo\xeete pleine, message refus\xe9 ...\n");
    std::vector<std::string> v = MessagesCyrus(gst_Cyrus, "bob");
    ASSERT_EQ(v.size(), 1u);
    EXPECT_EQ(CorpsStocke(v[0]), "Bonjour\n\n");
    EXPECT_EQ(MessagesCyrus(gst_Cyrus, "petit").size(), 1u);
}

}  // namespace
