// The LMTP client against a scripted server over real sockets: the bytes on
// the wire, the results, the reports sent to the sender, and the runs that
// must end the process for a retry.  Each attempt runs in a child process:
// level-2 failures end it with status 75.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "serveur_lmtp.h"
#include "socle.h"
#include "transport/transport.h"

namespace {

const std::string CORPS = "Bonjour\n.\n..x\nfin\n";
const std::string MAIL = "mail from:<emetteur@ext.example>\n";
const std::string TETE_DEST = "Les destinataires suivants n'ont pas recu votre message:\n\n";
const EtapeLmtp ACCUEIL = Rep("220 ok\r\n"), OK = Rep("250 ok\r\n"), GO = Rep("354 go\r\n");

// One attempt as the recipient loop makes it.
struct Essai {
    std::vector<std::string> v_Boites = {"alice"};
    std::vector<std::string> v_Adresses = {"alice@vorane.example"};
    std::vector<std::string> v_Entete = {"From: a@b.example\n", "Subject: essai\n", "\n"};
    std::string s_Corps = CORPS;
    bool b_Flux = true;  // body as a stream, or loaded into the list
    const char *pc_Suffixe = "";
    const char *pc_RapportInitial = nullptr;
};

struct Issue {
    ResultatEnfant r;
    int i_Res = -999;  // Remise_LMTP's result when it returned
    bool b_Rapport = false;
    std::string s_Rapport;
};

// Runs one attempt in a child against the designation.
Issue Tente(const std::string &s_Serveur, const Essai &e) {
    auto f_Table = [](const std::vector<std::string> &v) {
        std::vector<char *> v_Table;
        for (const std::string &s : v) v_Table.push_back(const_cast<char *>(s.c_str()));
        v_Table.push_back(nullptr);
        return v_Table;
    };
    Issue is;
    is.r = ExecuteEnFils([&]() {
        std::vector<std::string> v_Lignes = e.v_Entete;
        if (!e.b_Flux) {
            // The body as LitMessage leaves it: pieces of at most 1023 bytes.
            FILE *pf = FluxOctets(e.s_Corps);
            char pc[TAILLE_LECTURE];
            while (fgets(pc, sizeof pc, pf) != nullptr) v_Lignes.emplace_back(pc);
            fclose(pf);
        }
        Entete *pet = ListeLignes(v_Lignes);
        gpet_EnteteMess = pet;
        char *pc_Rapport = e.pc_RapportInitial ? strdup(e.pc_RapportInitial) : nullptr;
        int i = Remise_LMTP(s_Serveur.c_str(), gpc_MailFrom, f_Table(e.v_Boites).data(),
                            f_Table(e.v_Adresses).data(), e.pc_Suffixe, pet,
                            e.b_Flux ? FluxOctets(e.s_Corps) : nullptr, &pc_Rapport);
        return std::to_string(i) + (pc_Rapport ? "|" + std::string(pc_Rapport) : "");
    });
    std::size_t p = is.r.s_Retour.find('|');
    if (!is.r.s_Retour.empty()) is.i_Res = atoi(is.r.s_Retour.c_str());
    is.b_Rapport = p != std::string::npos;
    if (is.b_Rapport) is.s_Rapport = is.r.s_Retour.substr(p + 1);
    return is;
}

// The replies of a dialogue that accepts everything for one recipient.
const std::vector<EtapeLmtp> NOMINAL = {ACCUEIL, OK, OK, GO, OK, Rep("221 2.0.0 bye\r\n")};

class Lmtp : public ::testing::Test {
protected:
    void SetUp() override {
        static char pc_From[] = "emetteur@ext.example";
        gpc_MailFrom = pc_From;
        gpc_RcptTo = "-";
        gi_nbDestLcmd = 2;
        snprintf(gPc_MessageId, sizeof gPc_MessageId, "id.1@ext.example");
        gi_DelaiReseau = 2;
        gi_DelaiFinDonnees = 2;
    }
};

// A reply read as the wrong class: a quota refusal reported as an unknown
// mailbox, a multi-line or cut reply taken as a final refusal.
TEST(ClasseReponse, Table) {
    struct Cas {
        const char *pc;
        ReponseLmtp e;
    } t[] = {
        {"452 4.2.2 Over quota SESSIONID=<x>\r\n", ReponseLmtp::SurQuota},
        {"452 4.2.2 over QUOTA\r\n", ReponseLmtp::SurQuota},
        {"452 4.3.1 Insufficient storage\r\n", ReponseLmtp::Autre},
        {"550 5.1.1 User unknown\r\n", ReponseLmtp::Permanente},
        {"550-Mailbox unknown.\r\n550 5.1.1 User unknown\r\n", ReponseLmtp::Autre},
        {"554 ", ReponseLmtp::Permanente},
        {"554", ReponseLmtp::Autre},
        {"5x0 bad\r\n", ReponseLmtp::Autre},
        {"25", ReponseLmtp::Autre},
        {nullptr, ReponseLmtp::Autre},
    };
    for (const Cas &c : t)
        EXPECT_EQ(ClasseReponseLmtp(c.pc), c.e) << (c.pc ? c.pc : "(null)");
}

// Replies cut or merged at the wrong place: a reply split over reads, a
// continuation line taken as the end or the reverse, a reply over the
// buffer that overflows it or shifts the replies after it.
TEST(AssemblageReponse, Table) {
    const std::string LONGUE = "550-" + std::string(2000, 'x') + "\r\n550 fin\r\n";
    std::vector<std::string> v_Longue;  // the long reply and the next, in 700-byte reads
    for (std::size_t p = 0; p < LONGUE.size() + 14; p += 700)
        v_Longue.push_back((LONGUE + "250 suivante\r\n").substr(p, 700));
    struct Cas {
        const char *pc_Nom;
        std::vector<std::string> v_Lectures;
        std::vector<std::string> v_Reponses;  // complete replies, in order
        std::string s_Reste;                  // the incomplete one at the end
    } t[] = {
        {"coupee_entre_deux_lectures", {"250 2.1.5 Suc", "cess\r\n"}, {"250 2.1.5 Success\r\n"}, ""},
        {"code_coupe_entre_lectures", {"55", "0-a\r\n5", "50", " b\r\n"}, {"550-a\r\n550 b\r\n"}, ""},
        {"trois_dans_une_lecture",
         {"250 a\r\n452 4.2.2 Over quota\r\n250 c\r\n"},
         {"250 a\r\n", "452 4.2.2 Over quota\r\n", "250 c\r\n"},
         ""},
        {"suite_puis_suivante",
         {"550-Mailbox unknown.\r\n550-name\r\n550 5.1.1 User unknown\r\n250 ok\r\n"},
         {"550-Mailbox unknown.\r\n550-name\r\n550 5.1.1 User unknown\r\n", "250 ok\r\n"},
         ""},
        {"tiret_sans_code", {"5x0-a\n-b\n250-\n250 ok\n"}, {"5x0-a\n", "-b\n", "250-\n250 ok\n"}, ""},
        {"code_seul_apres_une_suite", {"250-a\n250\n250 ok\n"}, {"250-a\n250\n", "250 ok\n"}, ""},
        {"ligne_vide", {"\r\n250 ok\r\n"}, {"\r\n", "250 ok\r\n"}, ""},
        {"sans_fin_de_ligne", {"250 ok\r\n221 by", "e"}, {"250 ok\r\n"}, "221 bye"},
        {"trop_longue", {LONGUE + "250 suivante\r\n"}, {LONGUE.substr(0, 1023), "250 suivante\r\n"}, ""},
        {"trop_longue_en_morceaux", v_Longue, {LONGUE.substr(0, 1023), "250 suivante\r\n"}, ""},
    };
    for (const Cas &c : t) {
        std::vector<std::string> v_Reponses;
        AssemblageReponse st;
        for (const std::string &s_Lecture : c.v_Lectures) {
            std::size_t p = 0;
            while (p < s_Lecture.size()) {
                p += AssembleReponseLmtp(&st, s_Lecture.data() + p, s_Lecture.size() - p);
                if (!st.b_Complete) continue;
                v_Reponses.emplace_back(st.Pc_Texte);
                st = AssemblageReponse{};
            }
        }
        EXPECT_EQ(v_Reponses, c.v_Reponses) << c.pc_Nom;
        EXPECT_EQ(st.Pc_Texte, c.s_Reste) << c.pc_Nom;
    }
}

// A designation read as some other server: wrong defaults, a bad port taken
// as another one, a socket path or host cut to fit.
TEST(Designation, FormesEtRefus) {
    struct Cas {
        std::string s;
        int i_Res;
        const char *pc_Hote;  // null: a socket path
        int i_Port;
    } t[] = {
        {"", 0, "localhost", 2003},
        {"store:", 0, "store", 2003},
        {":24", 0, "localhost", 24},
        {"10.1.2.3:2424", 0, "10.1.2.3", 2424},
        {"/" + std::string(106, 'p'), 0, nullptr, 0},  // 107 bytes: fits
        {"/" + std::string(107, 'p'), ENAMETOOLONG, nullptr, 0},
        {std::string(128, 'h'), ENAMETOOLONG, nullptr, 0},
        {"h:abc", EINVAL, nullptr, 0},
        {"h:0", EINVAL, nullptr, 0},
        {"h:65536", EINVAL, nullptr, 0},
        {"h:24:25", EINVAL, nullptr, 0},
    };
    for (const Cas &c : t) {
        ServeurLmtp st;
        ASSERT_EQ(AnalyseServeurLmtp(c.s.c_str(), &st), c.i_Res) << c.s;
        if (c.i_Res != 0) continue;
        EXPECT_EQ(st.b_Unix, c.pc_Hote == nullptr) << c.s;
        if (c.pc_Hote == nullptr) {
            EXPECT_EQ(st.Pc_Chemin, c.s);
        } else {
            EXPECT_STREQ(st.Pc_Hote, c.pc_Hote);
            EXPECT_EQ(st.i_Port, c.i_Port) << c.s;
        }
    }
    ServeurLmtp st;
    EXPECT_EQ(AnalyseServeurLmtp(nullptr, &st), 0);
    EXPECT_EQ(st.i_Port, 2003);
}

// Lines ".", "..", ".x", a 5000-byte line that begins with "." and long
// lines whose later pieces begin with "." come through intact, whether the
// body is streamed or was loaded into the list in 1023-byte pieces; a
// leading Return-Path line is dropped, a later one kept.
TEST_F(Lmtp, TransparenceDesDonnees) {
    std::string s_Corps = ".\n..\n.x\n" + ("." + std::string(4999, 'L')) + "\n";
    s_Corps += std::string(1023, 'a') + ".milieu\n";  // second piece starts with "."
    s_Corps += std::string(2046, 'b') + "..\n";       // third piece is ".."
    // A line-leading dot at every offset of the scan's 64-byte blocks.
    for (int k = 0; k < 140; k++) s_Corps += std::string(k, 'c') + "\n.d\n";
    // Enough of it, and enough short dot lines, to fill the sender's
    // segment lists and staging area several times over.
    std::string s_Motif = s_Corps;
    for (int i = 0; i < 600; i++) s_Motif += ".l" + std::to_string(i) + "\n";
    s_Corps.clear();
    for (int i = 0; i < 40; i++) s_Corps += s_Motif;
    s_Corps += ".\r\nfin sans saut de ligne";
    for (bool b_Flux : {true, false}) {
        ServeurLmtpEssai srv(NOMINAL, false);
        Essai e;
        e.s_Corps = s_Corps;
        e.b_Flux = b_Flux;
        e.v_Entete = {"Return-Path: <x@y>\n", "From: a@b.example\n", "return-path: <z@y>\n",
                      ".Bizarre: en-tete\n", "\n"};
        Issue is = Tente(srv.Designation(), e);
        EXPECT_EQ(is.i_Res, 0) << is.r.s_Erreur;
        bool b_Terminee = false;
        std::string s_Donnees = DonneesRecues(srv.Recu(), &b_Terminee);
        EXPECT_TRUE(b_Terminee);
        EXPECT_EQ(s_Donnees, "From: a@b.example\nreturn-path: <z@y>\n.Bizarre: en-tete\n\n" +
                                 s_Corps + "\n")
            << (b_Flux ? "flux" : "liste");
    }
}

// A refusal before the data taken for the wrong outcome: a retry where the
// sender must hear of it, or a report where the store only asked for later.
TEST_F(Lmtp, RefusAvantLesDonnees) {
    struct Cas {
        const char *pc_Nom;
        std::vector<EtapeLmtp> v_Script;
        int i_Res;
        std::string s_Recu;      // everything the server received
        const char *pc_Rapport;  // null: no report
    } t[] = {
        {"accueil_421", {Rep("421 4.3.2 shutting down\r\n")}, 1, "", nullptr},
        {"emetteur_550", {ACCUEIL, Rep("550 5.1.0 bad sender\r\n")}, 0, MAIL,
         "Message rejet\xe9, adresse SMTP d'\xe9mission <emetteur@ext.example> non valable"},
        {"emetteur_550_suite", {ACCUEIL, Rep("550-first\r\n550 5.1.0 second\r\n")}, 1, MAIL, nullptr},
        {"emetteur_451", {ACCUEIL, Rep("451 4.3.0 later\r\n")}, 1, MAIL, nullptr},
        {"data_451", {ACCUEIL, OK, OK, Rep("451 no data now\r\n")}, 1, MAIL + "rcpt to:<alice>\nDATA\n",
         nullptr},
    };
    for (const Cas &c : t) {
        ServeurLmtpEssai srv(c.v_Script, false);
        Issue is = Tente(srv.Designation(), Essai{});
        EXPECT_EQ(is.r.i_Statut, 0) << c.pc_Nom << is.r.s_Erreur;
        EXPECT_EQ(is.i_Res, c.i_Res) << c.pc_Nom;
        EXPECT_EQ(srv.Recu(), c.s_Recu) << c.pc_Nom;
        EXPECT_EQ(is.b_Rapport, c.pc_Rapport != nullptr) << c.pc_Nom;
        if (c.pc_Rapport) {
            EXPECT_EQ(is.s_Rapport, c.pc_Rapport) << c.pc_Nom;
        }
    }
}

// Every recipient refused (over quota, unknown, later, or a name that would
// break the command line and is never sent): one report line each with the
// reply as received, no DATA, result 0.  The marker of a mailbox exists when
// its command arrives (the server refuses with 599 otherwise).
TEST_F(Lmtp, TousRefuses) {
    const std::string s_Temoin = std::string(RACINE_SPOOL_ESSAI) + "Remises/plein";
    unlink(s_Temoin.c_str());
    EtapeLmtp st_Quota;
    st_Quota.f_Reponse = [s_Temoin](const std::string &) {
        return std::string(access(s_Temoin.c_str(), F_OK) == 0 ? "452 4.2.2 Over quota SESSIONID=<s>\r\n"
                                                                : "599 pas de temoin\r\n");
    };
    ServeurLmtpEssai srv(
        {ACCUEIL, OK, st_Quota, Rep("550 5.1.1 User unknown\r\n"), Rep("451 4.2.0 later\r\n")}, false);
    Essai e;
    e.v_Boites = {"plein", "inconnu", "x>\nrcpt to:<victime", "tard"};
    e.v_Adresses = {"plein@v.example", "inconnu@v.example", "pirate@v.example", "tard@v.example"};
    Issue is = Tente(srv.Designation(), e);
    EXPECT_EQ(is.i_Res, 0) << is.r.s_Erreur;
    EXPECT_EQ(srv.Recu(), MAIL + "rcpt to:<plein>\nrcpt to:<inconnu>\nrcpt to:<tard>\n");
    EXPECT_EQ(is.s_Rapport,
              TETE_DEST +
                  "Destinataire <plein@v.example>, r\xe9ponse du serveur :\n"
                  "Bo\xeete pleine, message refus\xe9 ...\n"
                  "Destinataire <inconnu@v.example>, r\xe9ponse du serveur :\n"
                  "550 5.1.1 User unknown\r\n\n"
                  "Destinataire <pirate@v.example>, r\xe9ponse du serveur :\n"
                  "Adresse de bo\xeete aux lettres non valable\n\n"
                  "Destinataire <tard@v.example>, r\xe9ponse du serveur :\n451 4.2.0 later\r\n\n");
}

// A report left by an earlier attempt: kept and added to over a Unix socket,
// dropped over TCP.
TEST_F(Lmtp, RapportPrecedent) {
    for (bool b_Unix : {true, false}) {
        ServeurLmtpEssai srv({ACCUEIL, OK, OK, GO, Rep("554 5.6.0 Message contains invalid header\r\n")},
                             b_Unix);
        Essai e;
        e.pc_RapportInitial = "avant";
        Issue is = Tente(srv.Designation(), e);
        EXPECT_EQ(is.r.i_Statut, 0);
        EXPECT_EQ(is.i_Res, 0);
        EXPECT_NE(is.r.s_Erreur.find(" !ERR:4, v1.1.0/1551: Message non remis, reponse <554 5.6.0 "),
                  std::string::npos);
        const std::string s_Data =
            "Votre message n'a pas pu etre remis\nLa reponse du serveur en fin de DATA est:\n\n"
            "554 5.6.0 Message contains invalid header\r\n";
        EXPECT_EQ(is.s_Rapport, b_Unix ? "avant\n\n" + s_Data : s_Data);
        // No QUIT after a refusal of the data.
        std::string s_Recu = srv.Recu();
        EXPECT_EQ(s_Recu.substr(s_Recu.size() - 3), "\n.\n");
    }
}

// A server that closes or stalls: before the data the attempt fails with a
// non-zero result; while replies to the data are still due the process ends
// for a retry; once every accepted mailbox has its reply the message is
// delivered and a QUIT left unanswered is only a warning.
TEST_F(Lmtp, FermetureEtBlocage) {
    EtapeLmtp st_DeuxSurTrois = Rep("250 2.1.5 ok\r\n250 2.1.5 ok\r\n");
    st_DeuxSurTrois.b_FermeApres = true;
    struct Cas {
        const char *pc_Nom;
        std::vector<EtapeLmtp> v_Script;
        int i_Res;               // expected result, or -1: the process ends with 75
        const char *pc_Message;  // the one report on standard error, if any
        int i_Boites = 1;
    } t[] = {
        {"ferme_accueil", {Ferme()}, ECONNRESET, nullptr},
        {"ferme_rcpt", {ACCUEIL, OK, Ferme()}, ECONNRESET, nullptr},
        {"bloque_accueil", {Bloque()}, ETIMEDOUT, nullptr},
        {"bloque_mail", {ACCUEIL, Bloque()}, ETIMEDOUT, nullptr},
        {"ferme_fin_donnees", {ACCUEIL, OK, OK, GO, Ferme()}, -1,
         "2, v1.1.0/1542: Erreur Read_LMTP pendant attente reponse <.>, errno=104"},
        {"bloque_fin_donnees", {ACCUEIL, OK, OK, GO, Bloque()}, -1,
         "2, v1.1.0/1542: Erreur Read_LMTP pendant attente reponse <.>, errno=110"},
        {"ferme_apres_deux_reponses_sur_trois", {ACCUEIL, OK, OK, OK, OK, GO, st_DeuxSurTrois}, -1,
         "2, v1.1.0/1542: Erreur Read_LMTP pendant attente reponse <.>, errno=104 (Connection "
         "reset by peer). message-id=<id.1@ext.example>, from=<emetteur@ext.example>, "
         "to=<->(-/2). Possibilite de depots repetes\n",
         3},
        {"451_fin_donnees", {ACCUEIL, OK, OK, GO, Rep("451 4.3.0 later\r\n")}, -1,
         "2, v1.1.0/1570: Reponse <.>=<451 4.3.0 later\r\n>"},
        {"ferme_quit", {ACCUEIL, OK, OK, GO, OK, Ferme()}, 0,
         "4, v1.1.0/1581: Erreur Read_LMTP pendant attente reponse quit, errno=104 (Connection "
         "reset by peer). message-id=<id.1@ext.example>, from=<emetteur@ext.example>, "
         "to=<->(-/2)\n"},
        {"bloque_quit", {ACCUEIL, OK, OK, GO, OK, Bloque()}, 0,
         "4, v1.1.0/1581: Erreur Read_LMTP pendant attente reponse quit, errno=110"},
    };
    gi_DelaiReseau = 1;
    gi_DelaiFinDonnees = 1;
    for (const Cas &c : t) {
        ServeurLmtpEssai srv(c.v_Script, false);
        Essai e;
        for (int k = 1; k < c.i_Boites; k++) {
            e.v_Boites.push_back("b" + std::to_string(k));
            e.v_Adresses.push_back("b" + std::to_string(k) + "@vorane.example");
        }
        Issue is = Tente(srv.Designation(), e);
        EXPECT_EQ(is.r.i_Statut, c.i_Res >= 0 ? 0 : 75) << c.pc_Nom << is.r.s_Erreur;
        if (c.i_Res >= 0) {
            EXPECT_EQ(is.i_Res, c.i_Res) << c.pc_Nom;
            EXPECT_FALSE(is.b_Rapport) << c.pc_Nom;
        }
        std::size_t p = is.r.s_Erreur.find(" !ERR:");
        if (c.pc_Message == nullptr) {
            EXPECT_EQ(p, std::string::npos) << c.pc_Nom << ": " << is.r.s_Erreur;
            continue;
        }
        EXPECT_EQ(is.r.s_Erreur.find(std::string(" !ERR:") + c.pc_Message), p)
            << c.pc_Nom << ": " << is.r.s_Erreur;
        EXPECT_EQ(is.r.s_Erreur.find(" !ERR:", p + 1), std::string::npos) << c.pc_Nom;
    }
}

// No server to talk to: the error number comes back for a later attempt,
// and a designation that would have to be cut is refused before any
// connection.
TEST_F(Lmtp, ConnexionImpossible) {
    // A loopback port that nothing listens on any more.
    std::string s_Ferme;
    {
        ServeurLmtpEssai srv({Ferme()}, false);
        s_Ferme = srv.Designation();
    }
    struct Cas {
        std::string s_Designation;
        int i_Res;
    } t[] = {
        {s_Ferme, ECONNREFUSED},
        {"/nonexistent/lmtp", ENOENT},
        {"nonexistent.invalid:24", EHOSTUNREACH},
        {"127.0.0.1:99999", EINVAL},
        {"/" + std::string(120, 's'), ENAMETOOLONG},
    };
    for (const Cas &c : t) {
        Issue is = Tente(c.s_Designation, Essai{});
        EXPECT_EQ(is.r.i_Statut, 0) << c.s_Designation;
        EXPECT_EQ(is.i_Res, c.i_Res) << c.s_Designation;
    }
}

// A server that stops reading during a large body: the write guard fires
// and the process ends for a retry, never with the message taken as sent.
TEST_F(Lmtp, ServeurQuiNeLitPlus) {
    gi_DelaiReseau = 1;
    EtapeLmtp st_Donnees = GO;
    st_Donnees.b_BloqueApres = true;
    ServeurLmtpEssai srv({ACCUEIL, OK, OK, st_Donnees}, true);
    Essai e;
    e.s_Corps = std::string(8 << 20, 'x');  // beyond any socket buffer
    Issue is = Tente(srv.Designation(), e);
    EXPECT_EQ(is.r.i_Statut, 75);
    EXPECT_NE(is.r.s_Erreur.find(" !ERR:2, v1.1.0/1531: Erreur Write_LMTP pendant envoi du corps "
                                 "du message, errno=110"),
              std::string::npos)
        << is.r.s_Erreur;
}

}  // namespace
