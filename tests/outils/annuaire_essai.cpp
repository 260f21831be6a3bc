// annuaire_essai.cpp - slapd (through scripts/serveurs.sh) and silent
// servers for the tests (see annuaire_essai.h).
#include "annuaire_essai.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "serveurs_essai.h"

namespace {

// Socket bound to 127.0.0.1 on any free port, listening when asked; its
// port in *pi_Port.  -1 on failure.
int SocketLocale(int *pi_Port) {
    int i_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in st{};
    st.sin_family = AF_INET;
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t t = sizeof st;
    if (i_Fd < 0 || bind(i_Fd, reinterpret_cast<sockaddr *>(&st), sizeof st) != 0 ||
        getsockname(i_Fd, reinterpret_cast<sockaddr *>(&st), &t) != 0) {
        if (i_Fd >= 0) close(i_Fd);
        return -1;
    }
    *pi_Port = ntohs(st.sin_port);
    return i_Fd;
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

bool DemarreAnnuaire(AnnuaireEssai *pst, const std::string &s_Ldif,
                     const OptionsAnnuaire &st_Options) {
    pst->s_Repertoire = RepertoireServeur("slapd");
    std::vector<std::string> v = {"annuaire", pst->s_Repertoire, "-"};
    if (st_Options.b_RefuseAnonyme) v.push_back("--refuse-anonyme");
    if (!st_Options.s_Renvoi.empty()) v.insert(v.end(), {"--renvoi", st_Options.s_Renvoi});
    SortieServeurs r = Serveurs(v, s_Ldif);
    pst->i_Pid = ValeurEntiere(r, "PID");
    pst->i_Port = ValeurEntiere(r, "PORT");
    pst->s_Hote = r.m_Valeurs["HOTE"];
    pst->s_Url = r.m_Valeurs["URL"];
    pst->s_Erreur = r.s_Erreur;
    return r.b_Ok;
}

void ArreteAnnuaire(AnnuaireEssai *pst) {
    ArreteServeur(&pst->s_Repertoire);
    pst->i_Pid = 0;
}

void SuspendAnnuaire(const AnnuaireEssai &st) { Serveurs({"suspend", st.s_Repertoire}); }

void ReprendAnnuaire(const AnnuaireEssai &st) { Serveurs({"reprend", st.s_Repertoire}); }

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
    pst->i_Ecoute = SocketLocale(&pst->i_Port);
    if (pst->i_Ecoute < 0 || listen(pst->i_Ecoute, b_Plein ? 0 : 16) != 0) return false;
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
