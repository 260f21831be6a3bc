// postfix_essai.cpp - a private Postfix instance for the tests, through
// scripts/serveurs.sh (see postfix_essai.h).
#include "postfix_essai.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "processus.h"
#include "serveurs_essai.h"

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

bool DemarrePostfix(PostfixEssai *pst, const OptionsPostfix &st_Options) {
    pst->s_Repertoire = RepertoireServeur("postfix");
    std::vector<std::string> v = {"postfix", pst->s_Repertoire, "--utilisateur",
                                  st_Options.s_Utilisateur};
    for (const std::string &s : st_Options.v_Domaines) v.insert(v.end(), {"--domaine", s});
    if (st_Options.i_DelaiCommande > 0)
        v.insert(v.end(), {"--delai-commande", std::to_string(st_Options.i_DelaiCommande)});
    if (st_Options.l_TailleMax > 0)
        v.insert(v.end(), {"--taille-max", std::to_string(st_Options.l_TailleMax)});
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
    pst->s_Conf = r.m_Valeurs["CONF"];
    pst->s_Journal = r.m_Valeurs["JOURNAL"];
    pst->s_Capture = r.m_Valeurs["CAPTURE"];
    pst->s_Erreur = r.s_Erreur;
    return r.b_Ok;
}

void ArretePostfix(PostfixEssai *pst) {
    ArreteServeur(&pst->s_Repertoire);
    pst->i_Pid = 0;
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
