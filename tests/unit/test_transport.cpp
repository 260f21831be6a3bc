// The transports against fake peers over real sockets and pipes: the LMTP
// client against a scripted server, submission with the capture program
// standing in for sendmail.  The bytes each peer receives, the results, the
// reports for the sender, and the runs that must end the process for a retry:
// each attempt runs in a child process, where level-2 failures end it with 75.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "capture_essai.h"
#include "serveur_lmtp.h"
#include "driver/driver.h"
#include "socle.h"
#include "transport/transport.h"

namespace {

using Liste = std::vector<std::string>;
const EtapeLmtp ACCUEIL = Rep("220 ok\r\n"), OK = Rep("250 ok\r\n"), GO = Rep("354 go\r\n");

// A text table of the strings (valid while they are).
std::vector<char *> Table(const Liste &v) {
    std::vector<char *> v_Table;
    for (const std::string &s : v) v_Table.push_back(const_cast<char *>(s.c_str()));
    v_Table.push_back(nullptr);
    return v_Table;
}

// One attempt as the recipient loop makes it.
struct Essai {
    Liste v_Boites = {"alice"}, v_Adresses = {"alice@vorane.example"};
    Liste v_Entete = {"Return-Path: <x@y>\n", "From: a@b.example\n", "return-path: <z@y>\n", ".Bizarre: x\n", "\n"};
    std::string s_Corps = "Bonjour\n.\nfin\n";
    bool b_Flux = true;  // body as a stream, or loaded into the list in 1023-byte pieces
    bool b_Budget = false;  // under a run budget (1 s) shorter than the replies' limit (3 s)
};

// Runs one attempt in a child against the designation; its result, then
// "|" and the report when there is one.
ResultatEnfant Tente(const std::string &s_Serveur, const Essai &e) {
    return ExecuteEnFils([&]() {
        gpc_MailFrom = const_cast<char *>("emetteur@ext.example");
        gpc_RcptTo = "-";
        gi_nbDestLcmd = 2;
        snprintf(gPc_MessageId, sizeof gPc_MessageId, "id.1@ext.example");
        gi_DelaiReseau = gi_DelaiFinDonnees = 1;
        if (e.b_Budget) gi_DelaiReseau = 3, gi_BudgetExecution = 1, ArmeBudgetExecution();
        Liste v_Lignes = e.v_Entete;
        FILE *pf = FluxOctets(e.s_Corps);
        char pc[TAILLE_LECTURE];
        while (!e.b_Flux && fgets(pc, sizeof pc, pf) != nullptr) v_Lignes.emplace_back(pc);
        gpet_EnteteMess = ListeLignes(v_Lignes);
        char *pc_Rapport = strdup("avant");  // a report of an earlier attempt
        int i = Remise_LMTP(s_Serveur.c_str(), gpc_MailFrom, Table(e.v_Boites).data(),
                            Table(e.v_Adresses).data(), "", gpet_EnteteMess, e.b_Flux ? pf : nullptr,
                            &pc_Rapport);
        return std::to_string(i) + (pc_Rapport ? "|" + std::string(pc_Rapport) : "");
    });
}

// A designation read as another server: a bad port taken as another one, a
// socket path or host cut to fit.
TEST(Designation, FormesEtRefus) {
    const std::string PATH = "/" + std::string(106, 'p');  // 107 bytes: fits
    const struct {
        std::string s, s_Lu;  // host:port or socket path, or the error
    } t[] = {{"store:", "store:2003"}, {":24", "localhost:24"},     {PATH, PATH},
             {PATH + "p", "36"},       {std::string(128, 'h'), "36"}, {"h:65536", "22"}};
    for (const auto &c : t) {
        ServeurLmtp st;
        int i = AnalyseServeurLmtp(c.s.c_str(), &st);
        EXPECT_EQ(i ? std::to_string(i) : st.b_Unix ? st.Pc_Chemin : st.Pc_Hote + (":" + std::to_string(st.i_Port)), c.s_Lu);
    }
}

// Lines ".", "..", ".x", a 5000-byte line that begins with ".", long lines
// whose later pieces begin with ".", a dot line at every offset of a 64-byte
// scan block, and enough of them to fill the sender's buffers many times:
// all come through intact, the body streamed or loaded into the list.  A
// leading Return-Path line is dropped, a later one kept.
TEST(Lmtp, TransparenceDesDonnees) {
    std::string s_Motif = ".\n..\n.x\n." + std::string(4999, 'L') + "\n" + std::string(1023, 'a') +
                          ".milieu\n" + std::string(2046, 'b') + "..\n";
    for (int k = 0; k < 140; k++) s_Motif += std::string(k, 'c') + "\n.d\n";
    for (int i = 0; i < 600; i++) s_Motif += ".l" + std::to_string(i) + "\n";
    Essai e;
    e.s_Corps.clear();
    for (int i = 0; i < 40; i++) e.s_Corps += s_Motif;
    e.s_Corps += ".\r\nfin sans saut de ligne";
    for (bool b_Flux : {true, false}) {
        SCOPED_TRACE(b_Flux ? "flux" : "liste");
        ServeurLmtpEssai srv({ACCUEIL, OK, OK, GO, OK, Rep("221 bye\r\n")}, false);
        e.b_Flux = b_Flux;
        EXPECT_EQ(Tente(srv.Designation(), e).s_Sortie, "0");
        bool b_Terminee = false;
        EXPECT_TRUE(DonneesRecues(srv.Recu(), &b_Terminee) ==
                    "From: a@b.example\nreturn-path: <z@y>\n.Bizarre: x\n\n" + e.s_Corps + "\n");
        EXPECT_TRUE(b_Terminee);
    }
}

// Each way a dialogue can go wrong (a store that stops reading the data or
// reads a trickle of it included), with the result and report (one of an
// earlier attempt is dropped over TCP, kept and added to over a Unix socket;
// a reply to the data over the buffer is cut to it, its rest not taken for
// the next; a reply that comes in several reads is read whole, and none
// is taken for the next command's: a store that says more than asked is
// out of step, and the attempt ends before the data)
// or, for "75", the end of the process for a retry, and the one line on
// standard error.  Before the data a failure is a result for a later attempt;
// while replies to the data are due the process ends; once every accepted
// mailbox has its reply the message is delivered and a lost QUIT is only a
// warning, and the run's budget spent then ends it with 0, unless a notice
// is still to be sent.  A first reply to the data that is not 250 retries
// the message only when no other mailbox took it; a continued 5xx reply is
// a refusal.
TEST(Lmtp, IssuesDuDialogue) {
    EtapeLmtp st_DeuxSurTrois = Rep("250 2.1.5 ok\r\n250 2.1.5 ok\r\n"), st_NeLitPlus = GO, st_Lent = GO;
    st_DeuxSurTrois.b_FermeApres = true;
    st_NeLitPlus.b_BloqueApres = true;
    st_Lent.b_LentApres = true;
    const std::string LONGUE = "250-" + std::string(2000, 'x') + "\r\n250 fin\r\n";
    const EtapeLmtp REFUS = Rep("554 5.6.0 Message contains invalid header\r\n");
    const std::string s_Fin554 = "|Votre message n'a pas pu etre remis\nLa reponse du serveur en fin de DATA "
                                 "est:\n\n554 5.6.0 Message contains invalid header\r\n";
    const struct {
        std::vector<EtapeLmtp> v_Script;
        std::string s_Retour;
        const char *pc_Err;  // null: none
        int i_Boites = 1;
        bool b_Unix = false;
        bool b_Budget = false;
    } t[] = {
        {{Rep("421 4.3.2 shutting down\r\n")}, "1", nullptr},
        {{ACCUEIL, Rep("550 5.1.0 bad sender\r\n")},
         "0|Message rejet\xe9, adresse SMTP d'\xe9mission <emetteur@ext.example> non valable", nullptr},
        {{ACCUEIL, Rep("550-first\r\n550 5.1.0 second\r\n")}, "1", nullptr},
        {{ACCUEIL, OK, OK, Rep("354 go\r\n250 de trop\r\n")}, "1", nullptr},
        {{Rep("220-hi\r\n\x01" "220 ready\r\n"), OK, Rep("550-a\r\n\x01" "550 5.1.1 b\r\n"), OK,
          Rep("354 go\x01 ahead\r\n"), OK, OK},
         "0|Les destinataires suivants n'ont pas recu votre message:\n\nDestinataire <alice@vorane.example>, "
         "r\xe9ponse du serveur :\n550-a\r\n550 5.1.1 b\r\n\n", nullptr, 2},
        {{ACCUEIL, OK, Ferme()}, "104", nullptr},
        {{ACCUEIL, OK, OK, OK, GO, Rep(LONGUE + "250 ok\r\n"), OK}, "0", nullptr, 2},
        {{ACCUEIL, OK, OK, st_NeLitPlus}, "75",
         "2, v1.1.0/1531: Erreur Write_LMTP pendant envoi du corps du message, errno=110", 1, true},
        {{ACCUEIL, OK, OK, st_Lent}, "75",
         "2, v1.1.0/1531: Erreur Write_LMTP pendant envoi du corps du message, errno=110"},
        {{ACCUEIL, OK, OK, GO, Bloque()}, "75", "2, v1.1.0/1542: Erreur Read_LMTP pendant attente reponse <.>, errno=110"},
        {{ACCUEIL, OK, OK, OK, OK, GO, st_DeuxSurTrois}, "75",
         "2, v1.1.0/1542: Erreur Read_LMTP pendant attente reponse <.>, errno=104 (Connection reset by "
         "peer). message-id=<id.1@ext.example>, from=<emetteur@ext.example>, to=<->(-/2). Possibilite "
         "de depots repetes\n", 3},
        {{ACCUEIL, OK, OK, GO, Rep("451 4.3.0 later\r\n")}, "75", "2, v1.1.0/1570: Reponse <.>=<451 4.3.0 later\r\n>"},
        {{ACCUEIL, OK, OK, OK, GO, Rep("451 4.3.0 later\r\n250 ok\r\n"), OK},
         "0|Les destinataires suivants n'ont pas recu votre message:\n\nDestinataire <alice@vorane.example>, "
         "r\xe9ponse du serveur :\n451 4.3.0 later\r\n\n", nullptr, 2},
        {{ACCUEIL, OK, OK, OK, GO, Rep("550 5.1.1 gone\r\n250 ok\r\n"), OK},
         "0|Les destinataires suivants n'ont pas recu votre message:\n\nDestinataire <alice@vorane.example>, "
         "r\xe9ponse du serveur :\n550 5.1.1 gone\r\n\n", nullptr, 2},
        {{ACCUEIL, OK, OK, GO, Rep("550-5.6.0 one\r\n550 5.6.0 two\r\n")},
         "0|Votre message n'a pas pu etre remis\nLa reponse du serveur en fin de DATA est:\n\n"
         "550-5.6.0 one\r\n550 5.6.0 two\r\n", "4, v1.1.0/1551: "},
        {{ACCUEIL, OK, OK, GO, REFUS}, "0" + s_Fin554, "4, v1.1.0/1551: Message non remis, reponse <554 5.6.0 "},
        {{ACCUEIL, OK, OK, GO, REFUS}, "0|avant\n\n" + s_Fin554.substr(1), "4, v1.1.0/1551: ", 1, true},
        {{ACCUEIL, OK, OK, GO, OK, Ferme()}, "0",
         "4, v1.1.0/1581: Erreur Read_LMTP pendant attente reponse quit, errno=104 (Connection reset by "
         "peer). message-id=<id.1@ext.example>, from=<emetteur@ext.example>, to=<->(-/2)\n"},
        {{ACCUEIL, OK, OK, GO, OK, Bloque()}, "",
         "4, v1.1.0/3654: Duree maximale d'execution atteinte (1 s) apres la remise", 1, false, true},
        {{ACCUEIL, OK, OK, Rep("550 5.1.1 unknown\r\n"), GO, OK, Bloque()}, "75", "2, v1.1.0/3652: ", 2, false, true},
    };
    for (const auto &c : t) {
        SCOPED_TRACE(c.s_Retour);
        ServeurLmtpEssai srv(c.v_Script, c.b_Unix);
        Essai e;
        for (int i = 1; i < c.i_Boites; i++) e.v_Boites.push_back("b"), e.v_Adresses.push_back("b@x");
        e.b_Budget = c.b_Budget;
        if (c.pc_Err && strstr(c.pc_Err, "1531")) e.s_Corps.assign(8 << 20, 'x');  // beyond any socket buffer
        ResultatEnfant r = Tente(srv.Designation(), e);
        EXPECT_EQ(r.i_Statut == 75 ? "75" : r.s_Sortie, c.s_Retour) << r.s_Erreur;
        std::size_t p = r.s_Erreur.find(" !ERR:");
        EXPECT_EQ(p, c.pc_Err ? r.s_Erreur.find(std::string(" !ERR:") + c.pc_Err) : std::string::npos) << r.s_Erreur;
        EXPECT_EQ(r.s_Erreur.find(" !ERR:", p + 1), std::string::npos);
    }
}

// The senders the store cannot read in its sender command (sent as the
// null sender) and those it reads, as the real store answered them;
// brackets, colons and "@" of a quoted local part included.
TEST(Lmtp, EmetteurLisible) {
    for (const auto &[pc, b] : std::initializer_list<std::pair<const char *, bool>>{
             {"a@b.example", true}, {"", true}, {"u@[192.0.2.1]", true}, {"\"a[b:c]\"@x.test", true},
             {"\"[a:b]\"@x.test", true}, {"j\xc3\xb6hn@x.test", false}, {"a\x80@x.test", false},
             {"u@[ipv6:2001:db8::1]", false}, {"\"x@y\"@[IPv6:::1]", false}, {"a@b_c.example", false},
             {"a@b.c@d", false}, {"\"x@y\"@z.example", true}, {"a@-b.example.", true}})
        EXPECT_EQ(EmetteurLisibleLmtp(pc), b) << pc;
}

// Every recipient refused (over quota, unknown, later, or a name that would
// break the command line and is never sent): one report line each with the
// reply as received, no DATA, result 0.  The marker of a mailbox exists when
// its command arrives (the server refuses with 599 otherwise).
TEST(Lmtp, TousRefuses) {
    const std::string s_Temoin = std::string(RACINE_SPOOL_ESSAI) + "Remises/quota";
    unlink(s_Temoin.c_str());
    EtapeLmtp st_Quota;
    st_Quota.f_Reponse = [s_Temoin](const std::string &) {
        return access(s_Temoin.c_str(), F_OK) == 0 ? "452 4.2.2 Over quota SESSIONID=<s>\r\n" : "599 non\r\n";
    };
    ServeurLmtpEssai srv({ACCUEIL, OK, st_Quota, Rep("550 5.1.1 User unknown\r\n"), Rep("451 4.2.0 later\r\n")},
                         false);
    Essai e;
    e.v_Boites = {"quota", "inconnu", "x\nRSET", "bob> IGNOREQUOTA", "tard"};
    e.v_Adresses = {"plein@v.example", "inconnu@v.example", "pirate@v.example", "bob@v.example", "tard@v.example"};
    EXPECT_EQ(Tente(srv.Designation(), e).s_Sortie,
              "0|Les destinataires suivants n'ont pas recu votre message:\n\n"
              "Destinataire <plein@v.example>, r\xe9ponse du serveur :\n"
              "Bo\xeete pleine, message refus\xe9 ...\n"
              "Destinataire <inconnu@v.example>, r\xe9ponse du serveur :\n"
              "550 5.1.1 User unknown\r\n\n"
              "Destinataire <pirate@v.example>, r\xe9ponse du serveur :\n"
              "Adresse de bo\xeete aux lettres non valable\n\n"
              "Destinataire <bob@v.example>, r\xe9ponse du serveur :\n"
              "Adresse de bo\xeete aux lettres non valable\n\n"
              "Destinataire <tard@v.example>, r\xe9ponse du serveur :\n451 4.2.0 later\r\n\n");
    EXPECT_EQ(srv.Recu(), "mail from:<emetteur@ext.example>\nrcpt to:<quota>\nrcpt to:<inconnu>\nrcpt to:<tard>\n");
}

const Liste ENTETE = {"From: a@b.example\n", "\n"};
const std::string CORPS = "Bonjour\n.\n..\nfin\n", MESSAGE = "From: a@b.example\n\n" + CORPS;

// Runs EnvoiMessage in a child: sender, table, body stream, under the run's
// time budget (1 s) or not.
ResultatEnfant Envoi(const std::string &s_Emetteur, Liste v_Dest, FILE *pf_Corps = FluxOctets(CORPS),
                     bool b_Budget = false) {
    return ExecuteEnFils([&]() {
        gpc_MailFrom = const_cast<char *>("emetteur@ext.example");
        gi_OnEstSurServeurPrincipal = 1;
        if (b_Budget) gi_BudgetExecution = 1, ArmeBudgetExecution();
        EnvoiMessage(ListeLignes(ENTETE), pf_Corps, s_Emetteur.c_str(), Table(v_Dest).data());
        return std::string("fini");
    });
}

// Batches of at most a hundred addresses, grouped by domain across batches,
// each with every address once, the sender as one argument, and the whole
// message.  Quotes, dollars,
// backquotes, blanks and leading dashes reach sendmail literally, and nothing
// of them is run.  The 8000-byte command text bounds a batch (three of the
// long addresses would leave no room for its NUL), and an address that cannot
// fit even alone is refused by name while the others still go.
TEST(Commande, Lots) {
    Capture cap;
    const std::string s_Pirate = cap.s_Rep + "/pirate", s_Hostile = "\"$(touch " + s_Pirate + ")\"@x";
    std::string s_Long = "e";
    auto f_Fixe = [&] { return ("exec " + CAPTURE + " -i -f \"" + s_Long + "\" -- ").size(); };
    while ((TAILLE_COMMANDE - f_Fixe()) % 3 != 0) s_Long += 'e';
    Liste v_250, v_Longues;
    for (int i = 0; i < 250; i++) v_250.push_back("u" + std::to_string(i) + "@" + Liste{"zz", "aa", "mm"}[i % 3]);
    for (int i = 0; i < 10; i++) v_Longues.push_back(std::string((TAILLE_COMMANDE - f_Fixe()) / 3 - 5, 'a' + i) + "@d");
    const struct {
        std::string s_Emetteur;
        Liste v;
        std::vector<std::size_t> v_Lots;
    } t[] = {
        {"emetteur@ext.example", v_250, {100, 100, 50}},
        {s_Hostile, {"\"; touch " + s_Pirate + "; \"@x", "`touch " + s_Pirate + "`@x", "a b\\\"c'd@x", "-oQ/tmp@x"}, {4}},
        {s_Long, v_Longues, {2, 2, 2, 2, 2}},
    };
    for (const auto &c : t) {
        SCOPED_TRACE(c.s_Emetteur);
        Capture cap_Cas;
        Liste v = c.v;
        if (&c == &t[2]) v.push_back(std::string(TAILLE_COMMANDE, 'g') + "@d");
        ResultatEnfant r = Envoi(c.s_Emetteur, v);
        ASSERT_EQ(r.i_Statut, 0) << r.s_Erreur;
        EXPECT_EQ(r.s_Erreur.find(" !ERR:"), &c != &t[2] ? std::string::npos : r.s_Erreur.find(
            " !ERR:-3, v1.1.0/1952: EnvoiMessage, adresse trop longue pour la commande, destinataire refuse "
            "(8002 caracteres) <ggg"));
        std::vector<Appel> a = cap_Cas.Appels();
        ASSERT_EQ(a.size(), c.v_Lots.size());
        Liste v_Tous;
        for (std::size_t k = 0; k < a.size(); k++) {
            Liste d = a[k].Destinataires();
            EXPECT_EQ(d.size(), c.v_Lots[k]);
            EXPECT_EQ(Liste(a[k].v_Argv.begin(), a[k].v_Argv.begin() + 5), (Liste{CAPTURE, "-i", "-f", c.s_Emetteur, "--"}));
            EXPECT_EQ(a[k].s_Entree, MESSAGE);
            v_Tous.insert(v_Tous.end(), d.begin(), d.end());
        }
        EXPECT_TRUE(std::is_sorted(v_Tous.begin(), v_Tous.end(), [](const std::string &x, const std::string &y) {
            return x.substr(x.rfind('@')) < y.substr(y.rfind('@'));
        }));
        EXPECT_EQ(std::multiset<std::string>(v_Tous.begin(), v_Tous.end()),
                  std::multiset<std::string>(c.v.begin(), c.v.end()));
    }
    EXPECT_NE(access(s_Pirate.c_str(), F_OK), 0);
}

// A command that writes warnings, more of them than a pipe holds, before
// and after it reads its input: it is fed the whole message and succeeds,
// and none of its output reaches this process's standard output or error
// (Postfix's, under the pipe service, which stops reading them after a few
// kilobytes).
TEST(Commande, SortieDeLaCommande) {
    Capture cap;
    setenv("CAPTURE_BAVARD", "300000", 1);
    const std::string s_Corps(std::size_t{1} << 20, 'x');
    ResultatEnfant r = Envoi("e", {"a@b"}, FluxOctets(s_Corps));
    unsetenv("CAPTURE_BAVARD");
    EXPECT_EQ(r.i_Statut, 0) << r.s_Erreur;
    EXPECT_EQ(r.s_Erreur.find("bavard"), std::string::npos);
    ASSERT_EQ(cap.Appels().size(), 1u);
    EXPECT_EQ(cap.Appels()[0].s_Entree, MESSAGE.substr(0, MESSAGE.size() - CORPS.size()) + s_Corps);
}

// Runs that must leave the message with Postfix (75): a failed batch, which
// also stops the later ones; a command that cannot be started; a command that
// stops reading and exits 0, whether the message filled the pipe or fitted
// in it; the run's time budget spent while the body is still being piped,
// where the command is killed before it could see an end of input.
TEST(Commande, EchecsEnReessai) {
    Capture cap;
    cap.StatutAppel(2, 75);
    EXPECT_EQ(Envoi("e", Liste(250, "u@d")).i_Statut, 75);
    EXPECT_EQ(cap.Appels().size(), 2u);

    ResultatEnfant r = ExecuteEnFils([]() {
        char *tpc[] = {const_cast<char *>("/nonexistent/sendmail"), nullptr};
        DelivreMessage(ListeLignes(ENTETE), nullptr, "exec /nonexistent/sendmail", tpc, nullptr);
        return std::string();
    });
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_NE(r.s_Erreur.find(" !ERR:2, v1.1.0/1835: Erreur popen commande, errno=2 "), std::string::npos);

    for (std::size_t t_Corps : {std::size_t{4} << 20, std::size_t{100}}) {
        Capture cap_Lit;
        setenv("CAPTURE_LIMITE", "10", 1);
        r = Envoi("e", {"a@b"}, FluxOctets(std::string(t_Corps, 'x')));
        EXPECT_EQ(r.i_Statut, 75);
        EXPECT_NE(r.s_Erreur.find(" !ERR:2, v1.1.0/1893: Commande <exec "), std::string::npos) << r.s_Erreur;
    }

    Capture cap_Budget;
    int t_Tube[2];
    ASSERT_TRUE(pipe(t_Tube) == 0 && write(t_Tube[1], "debut\n", 6) == 6);
    r = Envoi("e", {"a@b"}, fdopen(t_Tube[0], "r"), true);  // a body that never ends
    EXPECT_EQ(r.i_Statut, 75);
    EXPECT_NE(r.s_Erreur.find("v1.1.0/3652"), std::string::npos) << r.s_Erreur;
    ASSERT_EQ(cap_Budget.Appels().size(), 1u);
    EXPECT_NE(access((cap_Budget.s_Rep + "/appel-1.fin").c_str(), F_OK), 0);
}

}  // namespace
