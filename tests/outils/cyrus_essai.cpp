// cyrus_essai.cpp - a real Cyrus mail store for the tests, through
// scripts/serveurs.sh (see cyrus_essai.h).
#include "cyrus_essai.h"

#include <sstream>

#include "processus.h"
#include "serveurs_essai.h"

bool DemarreCyrus(CyrusEssai *pst, const std::vector<std::string> &v_Boites) {
    pst->s_Repertoire = RepertoireServeur("cyrus");
    std::vector<std::string> v = {"cyrus", pst->s_Repertoire};
    for (const std::string &s : v_Boites) v.insert(v.end(), {"--boite", s});
    SortieServeurs r = Serveurs(v);
    pst->i_Pid = ValeurEntiere(r, "PID");
    pst->i_PortImap = ValeurEntiere(r, "PORT_IMAP");
    pst->s_Socket = r.m_Valeurs["SOCKET"];
    pst->s_Conf = r.m_Valeurs["CONF"];
    pst->s_Erreur = r.s_Erreur;
    return r.b_Ok;
}

void ArreteCyrus(CyrusEssai *pst) {
    ArreteServeur(&pst->s_Repertoire);
    pst->i_Pid = 0;
}

void SuspendCyrus(const CyrusEssai &st) { Serveurs({"suspend", st.s_Repertoire}); }

void ReprendCyrus(const CyrusEssai &st) { Serveurs({"reprend", st.s_Repertoire}); }

bool CommandesImap(CyrusEssai *pst, const std::vector<std::string> &v_Commandes) {
    std::vector<std::string> v = {"imap", pst->s_Repertoire};
    v.insert(v.end(), v_Commandes.begin(), v_Commandes.end());
    SortieServeurs r = Serveurs(v);
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

MessageStocke DecoupeMessage(const std::string &s_Stocke) {
    std::string s = SansCr(s_Stocke);
    std::size_t p = s.find("\n\n");
    if (p == std::string::npos) return {s, ""};
    return {s.substr(0, p + 1), s.substr(p + 2)};
}
