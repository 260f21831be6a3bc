// Submission through a command, with the capture program standing in for
// sendmail: the argument vectors and input each batch receives, the exit
// status the process ends with, and the commands that misbehave.  Every
// submission runs in a child process (levels 2 and 3 end it).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "driver/deploiement.h"
#include "driver/driver.h"
#include "processus.h"
#include "serveur_lmtp.h"
#include "transport/transport.h"

namespace {

const std::string CAPTURE = std::string(REPERTOIRE_BIN_ESSAI) + "/capture-commande";

// One recorded call of the capture program.
struct Appel {
    std::vector<std::string> v_Argv;
    std::string s_Entree;
};

// A fresh capture directory, removed with its records.
class Capture {
public:
    Capture() {
        char pc[] = "/tmp/capture-essai.XXXXXX";
        s_Rep = mkdtemp(pc);
        setenv("CAPTURE_REPERTOIRE", s_Rep.c_str(), 1);
    }
    ~Capture() {
        for (const std::string &s : FichiersCommencantPar(s_Rep, "")) unlink(s.c_str());
        rmdir(s_Rep.c_str());
        unsetenv("CAPTURE_REPERTOIRE");
        unsetenv("CAPTURE_STATUT");
        unsetenv("CAPTURE_LIMITE");
    }
    // The calls recorded, in order.
    std::vector<Appel> Appels() const {
        std::vector<Appel> v;
        for (int k = 1;; k++) {
            std::string s_Base = s_Rep + "/appel-" + std::to_string(k);
            if (access((s_Base + ".argv").c_str(), F_OK) != 0) break;
            Appel a;
            std::string s = LitFichier(s_Base + ".argv");
            for (std::size_t p = 0; p < s.size();) {
                std::size_t q = s.find('\0', p);
                a.v_Argv.push_back(s.substr(p, q - p));
                p = q + 1;
            }
            a.s_Entree = LitFichier(s_Base + ".entree");
            v.push_back(a);
        }
        return v;
    }
    std::string s_Rep;
};

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

const std::vector<std::string> ENTETE = {"From: a@b.example\n", "Subject: essai\n", "\n"};
const std::string ENTETE_TEXTE = "From: a@b.example\nSubject: essai\n\n";
const std::string CORPS = "Bonjour\n.\n..\nfin\n";

// Runs EnvoiMessage in a child: header list, body stream, sender, table.
ResultatEnfant Envoi(const std::string &s_Emetteur, std::vector<std::string> v_Dest,
                     const std::string &s_Corps = CORPS) {
    return ExecuteEnFils([&]() {
        std::vector<char *> v;
        for (std::string &s : v_Dest) v.push_back(s.data());
        v.push_back(nullptr);
        Entete *pet = ListeLignes(ENTETE);
        EnvoiMessage(pet, FluxOctets(s_Corps), s_Emetteur.c_str(), v.data());
        return std::string("fini");
    });
}

// The recipients of a call: what follows "--".
std::vector<std::string> Destinataires(const Appel &a) {
    auto it = std::find(a.v_Argv.begin(), a.v_Argv.end(), "--");
    return it == a.v_Argv.end() ? std::vector<std::string>{}
                                : std::vector<std::string>(it + 1, a.v_Argv.end());
}

// ---------------------------------------------------------------------------

// 250 recipients over several domains: three commands of 100, 100 and 50,
// grouped by domain across the batches, each fed the whole message.
TEST_F(Commande, LotsDeCentTriesParDomaine) {
    Capture cap;
    std::vector<std::string> v;
    const char *tpc_Dom[] = {"zz.example", "aa.example", "mm.example"};
    for (int i = 0; i < 250; i++)
        v.push_back("u" + std::to_string(i) + "@" + tpc_Dom[i % 3]);
    ResultatEnfant r = Envoi("emetteur@ext.example", v);
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(r.s_Retour, "fini");
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 3u);
    std::vector<std::string> v_Tous;
    std::size_t t_Tailles[] = {100, 100, 50};
    for (std::size_t k = 0; k < 3; k++) {
        std::vector<std::string> d = Destinataires(a[k]);
        EXPECT_EQ(d.size(), t_Tailles[k]);
        EXPECT_EQ(std::vector<std::string>(a[k].v_Argv.begin(), a[k].v_Argv.begin() + 5),
                  (std::vector<std::string>{CAPTURE, "-i", "-f", "emetteur@ext.example", "--"}));
        EXPECT_EQ(a[k].s_Entree, ENTETE_TEXTE + CORPS);
        v_Tous.insert(v_Tous.end(), d.begin(), d.end());
    }
    // Domains stand together, in domain order; every address once.
    auto f_Dom = [](const std::string &s) { return s.substr(s.find('@')); };
    EXPECT_TRUE(std::is_sorted(v_Tous.begin(), v_Tous.end(),
                               [&](const std::string &x, const std::string &y) {
                                   return f_Dom(x) < f_Dom(y);
                               }));
    std::sort(v_Tous.begin(), v_Tous.end());
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v_Tous, v);
}

// A hundred or fewer: one command fed straight from the body stream.
// Empty entries take a place among the hundred but show in no command.
TEST_F(Commande, EntreesVidesEtLotUnique) {
    Capture cap;
    std::vector<std::string> v(99, "");
    v.push_back("a@x.example");
    v.push_back("b@x.example");
    ResultatEnfant r = Envoi("emetteur@ext.example", v);
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    std::vector<Appel> a = cap.Appels();
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(Destinataires(a[0]), std::vector<std::string>{"a@x.example"});
    EXPECT_EQ(Destinataires(a[1]), std::vector<std::string>{"b@x.example"});

    Capture cap2;
    r = Envoi("", {"c@y.example", "", "d@y.example"});
    ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
    a = cap2.Appels();
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0].v_Argv, (std::vector<std::string>{CAPTURE, "-i", "-f", "", "--", "c@y.example",
                                                     "d@y.example"}));
    EXPECT_EQ(a[0].s_Entree, ENTETE_TEXTE + CORPS);
}

// Quotes, dollars, backquotes, semicolons, spaces and leading dashes reach
// the command as single literal arguments, and nothing of them is run.
TEST_F(Commande, AdressesHostilesVerbatim) {
    Capture cap;
    const std::string s_Temoin = cap.s_Rep + "/pirate";
    std::vector<std::string> v = {
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
    std::vector<std::string> d = Destinataires(a[0]);
    std::sort(d.begin(), d.end());
    std::sort(v.begin(), v.end());
    EXPECT_EQ(d, v);
    EXPECT_NE(access(s_Temoin.c_str(), F_OK), 0);
}

// The 8000-byte command text bounds a batch; an address that cannot fit
// even alone is refused by name (level -3) and the others still go.
TEST_F(Commande, LimiteDuTexteDeCommande) {
    Capture cap;
    const std::size_t t_Fixe =
        std::string("exec " + CAPTURE + " -i -f \"e@x.example\" -- ").size();
    // Each address takes its length + 3; 1000-byte addresses: as many as fit.
    std::vector<std::string> v;
    for (int i = 0; i < 10; i++) v.push_back(std::string(989, 'a' + i) + "@d.example");
    std::string s_Geant = std::string(TAILLE_COMMANDE, 'g') + "@d.example";
    v.push_back(s_Geant);
    ResultatEnfant r = Envoi("e@x.example", v);
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_NE(r.s_Erreur.find(" !ERR:-3, v1.1.0/1952: EnvoiMessage, adresse trop longue pour la "
                              "commande, destinataire refuse (8010 caracteres) <ggg"),
              std::string::npos)
        << r.s_Erreur.substr(0, 300);
    std::vector<Appel> a = cap.Appels();
    const std::size_t t_ParLot = (TAILLE_COMMANDE - 1 - t_Fixe) / 1001;
    ASSERT_EQ(a.size(), (10 + t_ParLot - 1) / t_ParLot);
    std::size_t t_Total = 0;
    for (const Appel &x : a) {
        EXPECT_LE(Destinataires(x).size(), t_ParLot);
        t_Total += Destinataires(x).size();
        EXPECT_EQ(x.s_Entree, ENTETE_TEXTE + CORPS);
    }
    EXPECT_EQ(t_Total, 10u);
}

// The exit status of the command decides the level: retry codes end the
// process with 75, others refuse the message (65 on the main server), and
// a command that cannot be started is a retry.
TEST_F(Commande, StatutDeSortie) {
    struct Cas {
        const char *pc_Statut;
        int i_Statut;
        const char *pc_Attendu;
    } t[] = {
        {"75", 75, " !ERR:2, v1.1.0/1891: Erreur sur pclose <exec "},
        {"68", 75, "Re-tentative, possibilite de depots repetes"},
        {"67", 65, " !ERR:3, v1.1.0/1891: Erreur sur pclose <exec "},
        {"1", 65, ". Bounce\n"},
    };
    for (const Cas &c : t) {
        Capture cap;
        setenv("CAPTURE_STATUT", c.pc_Statut, 1);
        ResultatEnfant r = Envoi("e@x.example", {"a@b.example"});
        EXPECT_EQ(r.i_Statut, c.i_Statut) << c.pc_Statut << r.s_Erreur;
        EXPECT_EQ(r.s_Retour, "") << c.pc_Statut;
        EXPECT_NE(r.s_Erreur.find(c.pc_Attendu), std::string::npos) << r.s_Erreur;
        EXPECT_NE(r.s_Erreur.find(std::string("cr=") + c.pc_Statut + "(" +
                                  std::to_string(atoi(c.pc_Statut) << 8) + ")"),
                  std::string::npos)
            << r.s_Erreur;
    }
    // A failure in a batch stops the later ones.
    Capture cap;
    FILE *pf = fopen((cap.s_Rep + "/statut-2").c_str(), "w");
    fputs("75\n", pf);
    fclose(pf);
    std::vector<std::string> v;
    for (int i = 0; i < 250; i++) v.push_back("u" + std::to_string(i) + "@d.example");
    ResultatEnfant r = Envoi("e@x.example", v);
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
    EXPECT_EQ(a[0].v_Argv, (std::vector<std::string>{CAPTURE, "liste'; rm -rf /"}));
    EXPECT_EQ(a[0].s_Entree, "To: x@y\n\ncorps\n");
}

// A command that stops reading a large message never leads to status 0:
// the process ends by SIGPIPE (Postfix retries), or for a retry when the
// signal is ignored.
TEST_F(Commande, CommandeQuiCesseDeLire) {
    for (bool b_Ignore : {false, true}) {
        Capture cap;
        setenv("CAPTURE_LIMITE", "10", 1);
        setenv("CAPTURE_STATUT", "0", 1);
        ResultatEnfant r = ExecuteEnFils([&]() {
            if (b_Ignore) signal(SIGPIPE, SIG_IGN);
            std::vector<std::string> v = {"a@b.example"};
            char *tpc[] = {v[0].data(), nullptr};
            EnvoiMessage(ListeLignes(ENTETE), FluxOctets(std::string(4 << 20, 'x')), "e@x.example", tpc);
            return std::string("fini");
        });
        EXPECT_NE(r.i_Statut, 0);
        if (b_Ignore) {
            EXPECT_EQ(r.i_Statut, 75);
            EXPECT_NE(r.s_Erreur.find("v1.1.0/1845: Erreur fputs corps vers commande"),
                      std::string::npos);
        } else {
            EXPECT_EQ(r.i_Signal, SIGPIPE);
        }
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
