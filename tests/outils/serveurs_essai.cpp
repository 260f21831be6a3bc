// serveurs_essai.cpp - the real servers of the tests through scripts/serveurs.sh
// (see serveurs_essai.h).
#include "serveurs_essai.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "processus.h"

SortieServeurs Serveurs(const std::vector<std::string> &v_Args, const std::string &s_Entree,
                        int i_LimiteSecondes) {
    std::vector<std::string> v = {"/bin/bash", REPERTOIRE_SOURCES "/scripts/serveurs.sh"};
    v.insert(v.end(), v_Args.begin(), v_Args.end());
    ResultatProcessus r = LanceProgramme(v, s_Entree, i_LimiteSecondes);
    SortieServeurs st;
    st.b_Ok = r.i_Statut == 0;
    st.s_Sortie = r.s_Sortie;
    st.s_Erreur = r.b_Expire ? "serveurs.sh " + v_Args[0] + ": no end after " +
                                   std::to_string(i_LimiteSecondes) + " s\n" + r.s_Erreur
                             : r.s_Erreur;
    std::istringstream f(r.s_Sortie);
    for (std::string s; std::getline(f, s);) {
        std::size_t p = s.find('=');
        if (p != std::string::npos) st.m_Valeurs[s.substr(0, p)] = s.substr(p + 1);
    }
    return st;
}

std::string RepertoireServeur(const char *pc_Nom) {
    std::string s = std::string("/tmp/vorane-") + pc_Nom + "-XXXXXX";
    return mkdtemp(s.data()) != nullptr ? s : "";
}

void ArreteServeur(ServeurEssai *pst) {
    if (pst->s_Repertoire.empty()) return;
    Serveurs({"arrete", pst->s_Repertoire});
    // A start refused before the script took the directory leaves it empty.
    std::error_code ec;
    std::filesystem::remove(pst->s_Repertoire, ec);
    pst->s_Repertoire.clear();
    pst->i_Pid = 0;
}

void SuspendServeur(const ServeurEssai &st) { Serveurs({"suspend", st.s_Repertoire}); }

void ReprendServeur(const ServeurEssai &st) { Serveurs({"reprend", st.s_Repertoire}); }

int ValeurEntiere(const SortieServeurs &r, const std::string &s_Nom) {
    auto it = r.m_Valeurs.find(s_Nom);
    return it == r.m_Valeurs.end() ? 0 : atoi(it->second.c_str());
}

namespace {

// The sanitizer options of this process (a sanitizer build's test run) as
// NAME=VALUE arguments of env, without their log_path: the pipe gives the
// command only LANG, PATH and MAIL_CONFIG, and its user may not write where
// the tests collect reports.  A report then goes to the command's standard
// error, which Postfix quotes in its log and in a bounce: the case fails
// with the report in view.
std::vector<std::string> OptionsSanitizers() {
    std::vector<std::string> v;
    for (const char *pc_Nom : {"ASAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char *pc = getenv(pc_Nom);
        if (pc == nullptr) continue;
        std::string s_Valeur;
        std::istringstream f(pc);
        for (std::string s; std::getline(f, s, ':');)
            if (!s.empty() && s.rfind("log_path=", 0) != 0)
                s_Valeur += (s_Valeur.empty() ? "" : ":") + s;
        v.push_back(std::string(pc_Nom) + "=" + s_Valeur);
    }
    return v;
}

}  // namespace

int PortLibre() {
    int i_Port = 0, i_Fd = SocketLocale(&i_Port);
    if (i_Fd >= 0) close(i_Fd);
    return i_Port;
}

std::string EntreeLdif(const std::string &s_Rdn, const std::string &s_Lignes) {
    std::string s = "dn: " + s_Rdn + "," + SUFFIXE_ANNUAIRE_ESSAI + "\n" + s_Lignes;
    if (!s.empty() && s.back() != '\n') s += "\n";
    return s + "\n";
}

bool DemarreAnnuaire(AnnuaireEssai *pst, const std::string &s_Ldif) {
    pst->s_Repertoire = RepertoireServeur("slapd");
    SortieServeurs r = Serveurs({"annuaire", pst->s_Repertoire, "-"}, s_Ldif);
    pst->i_Pid = ValeurEntiere(r, "PID");
    pst->i_Port = ValeurEntiere(r, "PORT");
    pst->s_Hote = r.m_Valeurs["HOTE"];
    pst->s_Erreur = r.s_Erreur;
    return r.b_Ok;
}

bool ModifieAnnuaire(const AnnuaireEssai &st, const std::string &s_Changements) {
    return Serveurs({"modifie", st.s_Repertoire}, s_Changements).b_Ok;
}

bool DemarreServeurMuet(ServeurMuet *pst, ModeMuet e_Mode) {
    // Nothing ever accepts: the kernel completes the handshakes up to the
    // backlog by itself, so a client connects, writes and waits for an
    // answer that never comes.  A backlog of 0 leaves room for one
    // connection, which the fixture takes itself in ModeMuet::FilePleine;
    // the kernel then drops every new SYN.
    const bool b_Plein = e_Mode == ModeMuet::FilePleine;
    pst->i_Ecoute = SocketLocale(&pst->i_Port, b_Plein ? 0 : 16);
    if (pst->i_Ecoute < 0) return false;
    pst->s_Hote = "127.0.0.1:" + std::to_string(pst->i_Port);
    if (!b_Plein) return true;
    pst->i_Bouchon = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in st{};
    st.sin_family = AF_INET;
    st.sin_port = htons(static_cast<uint16_t>(pst->i_Port));
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(pst->i_Bouchon, reinterpret_cast<sockaddr *>(&st), sizeof st);
    usleep(50000);
    return pst->i_Bouchon >= 0;
}

void ArreteServeurMuet(ServeurMuet *pst) {
    if (pst->i_Bouchon >= 0) close(pst->i_Bouchon);
    if (pst->i_Ecoute >= 0) close(pst->i_Ecoute);
    pst->i_Bouchon = pst->i_Ecoute = -1;
}

bool DemarreCyrus(CyrusEssai *pst, const std::vector<std::string> &v_Boites, bool b_QuotaStrict) {
    pst->s_Repertoire = RepertoireServeur("cyrus");
    std::vector<std::string> v = {"cyrus", pst->s_Repertoire};
    if (b_QuotaStrict) v.push_back("--quota-strict");
    for (const std::string &s : v_Boites) v.insert(v.end(), {"--boite", s});
    SortieServeurs r = Serveurs(v);
    pst->i_Pid = ValeurEntiere(r, "PID");
    pst->s_Socket = r.m_Valeurs["SOCKET"];
    pst->s_Erreur = r.s_Erreur;
    return r.b_Ok;
}

std::vector<std::string> MessagesStockes(const CyrusEssai &st, const std::string &s_Boite) {
    std::vector<std::string> v;
    std::istringstream f(Serveurs({"messages", st.s_Repertoire, s_Boite}).s_Sortie);
    for (std::string s; std::getline(f, s);) v.push_back(LitFichier(s));
    return v;
}

std::string SansCr(const std::string &s) {
    std::string s_Res;
    s_Res.reserve(s.size());
    for (std::size_t i = 0; i < s.size(); i++)
        if (!(s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n')) s_Res += s[i];
    return s_Res;
}

bool DemarrePostfix(PostfixEssai *pst, const OptionsPostfix &st_Options) {
    pst->s_Repertoire = RepertoireServeur("postfix");
    std::vector<std::string> v = {"postfix", pst->s_Repertoire, "--utilisateur",
                                  st_Options.s_Utilisateur};
    for (const std::string &s : st_Options.v_Domaines) v.insert(v.end(), {"--domaine", s});
    if (st_Options.i_DelaiCommande > 0)
        v.insert(v.end(), {"--delai-commande", std::to_string(st_Options.i_DelaiCommande)});
    v.push_back("--");
    std::vector<std::string> v_Env = OptionsSanitizers();
    if (!v_Env.empty()) {
        v.push_back("/usr/bin/env");
        v.insert(v.end(), v_Env.begin(), v_Env.end());
    }
    v.insert(v.end(), st_Options.v_Pipe.begin(), st_Options.v_Pipe.end());
    SortieServeurs r = Serveurs(v);
    pst->i_Pid = ValeurEntiere(r, "PID");
    pst->i_Port = ValeurEntiere(r, "PORT");
    pst->s_Journal = r.m_Valeurs["JOURNAL"];
    pst->s_Capture = r.m_Valeurs["CAPTURE"];
    pst->s_Erreur = r.s_Erreur;
    return r.b_Ok;
}

std::string SoumetSmtp(PostfixEssai *pst, const std::string &s_Emetteur,
                       const std::vector<std::string> &v_Dest, const std::string &s_Message) {
    std::vector<std::string> v = {"smtp", pst->s_Repertoire, s_Emetteur};
    v.insert(v.end(), v_Dest.begin(), v_Dest.end());
    SortieServeurs r = Serveurs(v, s_Message);
    pst->s_Erreur = r.s_Erreur;
    std::istringstream f(r.s_Sortie);
    for (std::string s; std::getline(f, s);)
        if (s.compare(0, 6, "REFUS=") == 0) pst->s_Erreur += s.substr(6) + "\n";
    return r.b_Ok ? r.m_Valeurs["ID"] : "";
}

bool RelanceFile(PostfixEssai *pst) {
    SortieServeurs r = Serveurs({"relance", pst->s_Repertoire});
    pst->s_Erreur = r.s_Erreur;
    return r.b_Ok;
}

std::string FilePostfix(const PostfixEssai &st) {
    return Serveurs({"file", st.s_Repertoire}).s_Sortie;
}

std::string JournalPostfix(const PostfixEssai &st) { return LitFichier(st.s_Journal); }

std::string AttendMessage(const PostfixEssai &st, const std::string &s_Id, int i_LimiteSecondes,
                          std::size_t t_Depuis) {
    const std::string s_Marque = ": " + s_Id + ": ";
    auto t_Fin = std::chrono::steady_clock::now() + std::chrono::seconds(i_LimiteSecondes);
    for (;;) {
        std::string s_Lignes;
        bool b_Fini = false;
        std::string s_Journal = JournalPostfix(st);
        std::istringstream f(s_Journal.substr(std::min(t_Depuis, s_Journal.size())));
        for (std::string s; std::getline(f, s);)
            if (!s_Id.empty() && s.find(s_Marque) != std::string::npos) {
                s_Lignes += s + "\n";
                b_Fini = b_Fini || s.find(s_Marque + "removed") != std::string::npos ||
                         s.find("status=deferred") != std::string::npos;
            }
        if (b_Fini || std::chrono::steady_clock::now() > t_Fin) return s_Lignes;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

bool AttendFileVide(const PostfixEssai &st, int i_LimiteSecondes) {
    auto t_Fin = std::chrono::steady_clock::now() + std::chrono::seconds(i_LimiteSecondes);
    for (;;) {
        SortieServeurs r = Serveurs({"file", st.s_Repertoire});
        if (r.b_Ok && r.s_Sortie.empty()) return true;
        if (std::chrono::steady_clock::now() > t_Fin) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}
