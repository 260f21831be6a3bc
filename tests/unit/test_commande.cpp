// Submission through a command, with the capture program standing in for
// sendmail: the argument vectors and input each batch receives, the exit
// status the process ends with, and the commands that misbehave.  Every
// submission runs in a child process (levels 2 and 3 end it).
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "capture_essai.h"
#include "processus.h"
#include "serveur_lmtp.h"
#include "driver/driver.h"
#include "socle.h"
#include "transport/transport.h"

namespace {

using Liste = std::vector<std::string>;
const Liste ENTETE = {"From: a@b.example\n", "Subject: essai\n", "\n"};
const std::string CORPS = "Bonjour\n.\n..\nfin\n";
const std::string MESSAGE = "From: a@b.example\nSubject: essai\n\n" + CORPS;

class Commande : public ::testing::Test {
protected:
    void SetUp() override {
        static char pc_From[] = "emetteur@ext.example";
        gpc_MailFrom = pc_From;
        gpc_RcptTo = "liste@vorane.example";
        gi_nbDestLcmd = 1;
        gi_OnEstSurServeurPrincipal = 1;
    }
};

// Runs EnvoiMessage in a child: header list, body stream, sender, table.
ResultatEnfant Envoi(const std::string &s_Emetteur, Liste v_Dest, const std::string &s_Corps = CORPS) {
    return ExecuteEnFils([&]() {
        std::vector<char *> v;
        for (std::string &s : v_Dest) v.push_back(s.data());
        v.push_back(nullptr);
        EnvoiMessage(ListeLignes(ENTETE), FluxOctets(s_Corps), s_Emetteur.c_str(), v.data());
        return std::string("fini");
    });
}

// n addresses, spread over the domains in turn.
Liste Adresses(int n, const Liste &v_Domaines) {
    Liste v;
    for (int i = 0; i < n; i++)
        v.push_back("u" + std::to_string(i) + "@" + v_Domaines[i % v_Domaines.size()]);
    return v;
}

// 250 recipients over several domains: three commands of 100, 100 and 50,
// grouped by domain across the batches, each fed the whole message.
TEST_F(Commande, LotsDeCentTriesParDomaine) {
    Capture cap;
    Liste v = Adresses(250, {"zz.example", "aa.example", "mm.example"});
    ResultatEnfant r = Envoi("emetteur@ext.example", v);
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(r.s_Retour, "fini");
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 3u);
    Liste v_Tous;
    for (std::size_t k = 0; k < 3; k++) {
        Liste d = a[k].Destinataires();
        EXPECT_EQ(d.size(), k < 2 ? 100u : 50u);
        EXPECT_EQ(Liste(a[k].v_Argv.begin(), a[k].v_Argv.begin() + 5),
                  (Liste{CAPTURE, "-i", "-f", "emetteur@ext.example", "--"}));
        EXPECT_EQ(a[k].s_Entree, MESSAGE);
        v_Tous.insert(v_Tous.end(), d.begin(), d.end());
    }
    // Domains stand together, in domain order; every address once.
    auto f_Dom = [](const std::string &s) { return s.substr(s.find('@')); };
    EXPECT_TRUE(std::is_sorted(
        v_Tous.begin(), v_Tous.end(),
        [&](const std::string &x, const std::string &y) { return f_Dom(x) < f_Dom(y); }));
    std::sort(v_Tous.begin(), v_Tous.end());
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v_Tous, v);
}

// A hundred or fewer: one command fed straight from the body stream.
// Empty entries take a place among the hundred but show in no command.
TEST_F(Commande, EntreesVidesEtLotUnique) {
    Capture cap;
    Liste v(99, "");
    v.insert(v.end(), {"a@x.example", "b@x.example"});
    ResultatEnfant r = Envoi("emetteur@ext.example", v);
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[0].Destinataires(), Liste{"a@x.example"});
    EXPECT_EQ(a[1].Destinataires(), Liste{"b@x.example"});

    Capture cap2;
    r = Envoi("", {"c@y.example", "", "d@y.example"});
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    a = cap2.Appels();
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0].v_Argv, (Liste{CAPTURE, "-i", "-f", "", "--", "c@y.example", "d@y.example"}));
    EXPECT_EQ(a[0].s_Entree, MESSAGE);
}

// Quotes, dollars, backquotes, semicolons, spaces and leading dashes reach
// the command as single literal arguments, and nothing of them is run.
TEST_F(Commande, AdressesHostilesVerbatim) {
    Capture cap;
    const std::string s_Temoin = cap.s_Rep + "/pirate";
    Liste v = {
        "\"; touch " + s_Temoin + "; \"@x.example",
        "$(touch " + s_Temoin + ")@x.example",
        "`touch " + s_Temoin + "`@x.example",
        "a b\\\"c'd@x.example",
        "-oQ/tmp@x.example",
    };
    const std::string s_Emetteur = "\"$(touch " + s_Temoin + ")\"@ext.example";
    ResultatEnfant r = Envoi(s_Emetteur, v);
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0].v_Argv[3], s_Emetteur);
    Liste d = a[0].Destinataires();
    std::sort(d.begin(), d.end());
    std::sort(v.begin(), v.end());
    EXPECT_EQ(d, v);
    EXPECT_NE(access(s_Temoin.c_str(), F_OK), 0);
}

// The 8000-byte command text bounds a batch; an address that cannot fit
// even alone is refused by name (level -3) and the others still go.
TEST_F(Commande, LimiteDuTexteDeCommande) {
    Capture cap;
    Liste v;
    for (int i = 0; i < 10; i++) v.push_back(std::string(989, 'a' + i) + "@d.example");
    v.push_back(std::string(TAILLE_COMMANDE, 'g') + "@d.example");
    ResultatEnfant r = Envoi("e@x.example", v);
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_NE(r.s_Erreur.find(" !ERR:-3, v1.1.0/1952: EnvoiMessage, adresse trop longue pour la "
                              "commande, destinataire refuse (8010 caracteres) <ggg"),
              std::string::npos)
        << r.s_Erreur.substr(0, 300);
    // Each address takes its length + 3 (blank, two quotes) after the fixed
    // part; the text and its NUL fit TAILLE_COMMANDE.
    const std::size_t t_Fixe = ("exec " + CAPTURE + " -i -f \"e@x.example\" -- ").size();
    const std::size_t t_ParLot = (TAILLE_COMMANDE - 1 - t_Fixe) / 1001;
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), (10 + t_ParLot - 1) / t_ParLot);
    std::size_t t_Total = 0;
    for (const Appel &x : a) {
        EXPECT_LE(x.Destinataires().size(), t_ParLot);
        t_Total += x.Destinataires().size();
        EXPECT_EQ(x.s_Entree, MESSAGE);
    }
    EXPECT_EQ(t_Total, 10u);
}

// A failed batch stops the later ones, and a command that cannot be
// started is a retry.  (What each exit status makes of the run is proved
// on the whole program, with the list's notice.)
TEST_F(Commande, EchecsQuiArretentLaSoumission) {
    // A failure in a batch stops the later ones.
    Capture cap;
    cap.StatutAppel(2, 75);
    ResultatEnfant r = Envoi("e@x.example", Adresses(250, {"d.example"}));
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_EQ(cap.Appels().size(), 2u);

    // No such command.
    r = ExecuteEnFils([]() {
        char pc_Absent[] = "/nonexistent/sendmail";
        char *tpc[] = {pc_Absent, nullptr};
        DelivreMessage(ListeLignes(ENTETE), nullptr, "exec /nonexistent/sendmail", tpc, nullptr);
        return std::string("fini");
    });
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_NE(r.s_Erreur.find(" !ERR:2, v1.1.0/1835: Erreur popen commande, errno=2 "),
              std::string::npos)
        << r.s_Erreur;
}

// With a status slot the exit code comes back and nothing is reported; a
// null body stream sends exactly the list.
TEST_F(Commande, CaseDeStatutEtListeSeule) {
    Capture cap;
    setenv("CAPTURE_STATUT", "67", 1);
    ResultatEnfant r = ExecuteEnFils([]() {
        std::string s_Cmd = CAPTURE;
        char *tpc[] = {s_Cmd.data(), const_cast<char *>("liste'; rm -rf /"), nullptr};
        int i_Statut = 12345;
        DelivreMessage(ListeLignes({"To: x@y\n", "\n", "corps\n"}), nullptr, "exec queue 'liste'", tpc,
                       &i_Statut);
        return std::to_string(i_Statut);
    });
    EXPECT_EQ(r.i_Statut, 0);
    EXPECT_EQ(r.s_Retour, "67");
    EXPECT_EQ(r.s_Erreur, "");
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0].v_Argv, (Liste{CAPTURE, "liste'; rm -rf /"}));
    EXPECT_EQ(a[0].s_Entree, "To: x@y\n\ncorps\n");
}

// A command that stops reading and exits 0 never leads to status 0, whether
// the message filled the pipe or fitted in it: it is a retry.
TEST_F(Commande, CommandeQuiCesseDeLire) {
    for (std::size_t t_Corps : {std::size_t{4} << 20, std::size_t{100}}) {
        Capture cap;
        setenv("CAPTURE_LIMITE", "10", 1);
        ResultatEnfant r = Envoi("e@x.example", {"a@b.example"}, std::string(t_Corps, 'x'));
        EXPECT_EQ(r.i_Statut, 75);
        EXPECT_NE(r.s_Erreur.find("v1.1.0/1893: Commande <exec "), std::string::npos) << r.s_Erreur;
    }
}

// The run's time budget spent while the message is still being piped (its
// body never ends): the command is killed before it could see an end of
// input, and the process leaves the message with Postfix.
TEST_F(Commande, BudgetEpuisePendantLaCommande) {
    Capture cap;
    ResultatEnfant r = ExecuteEnFils([]() {
        gi_BudgetExecution = 1;
        ArmeBudgetExecution();
        int t_Tube[2];
        if (pipe(t_Tube) != 0) return std::string("pipe");
        ssize_t n = write(t_Tube[1], "debut\n", 6);  // and never closed
        (void)n;
        std::string s_Dest = "a@b.example";
        char *tpc[] = {s_Dest.data(), nullptr};
        EnvoiMessage(ListeLignes(ENTETE), fdopen(t_Tube[0], "r"), "e@x.example", tpc);
        return std::string("fini");
    });
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_NE(r.s_Erreur.find("v1.1.0/3652"), std::string::npos) << r.s_Erreur;
    ASSERT_EQ(cap.Appels().size(), 1u);
    EXPECT_NE(access((cap.s_Rep + "/appel-1.fin").c_str(), F_OK), 0);
}

}  // namespace
