// capture_essai.cpp - the capture program's records (see capture_essai.h).
#include "capture_essai.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <unistd.h>

#include "processus.h"

const std::string CAPTURE = std::string(REPERTOIRE_BIN_ESSAI) + "/capture-commande";

std::vector<std::string> Appel::Destinataires() const {
    auto it = std::find(v_Argv.begin(), v_Argv.end(), "--");
    return it == v_Argv.end() ? std::vector<std::string>{}
                              : std::vector<std::string>(it + 1, v_Argv.end());
}

Capture::Capture() {
    char pc[] = "/tmp/capture-essai.XXXXXX";
    s_Rep = mkdtemp(pc);
    setenv("CAPTURE_REPERTOIRE", s_Rep.c_str(), 1);
}

Capture::~Capture() {
    for (const std::string &s : FichiersCommencantPar(s_Rep, "")) unlink(s.c_str());
    rmdir(s_Rep.c_str());
    for (const char *pc : {"CAPTURE_REPERTOIRE", "CAPTURE_LIMITE"}) unsetenv(pc);
}

std::vector<Appel> Capture::Appels() const {
    std::vector<Appel> v;
    for (int k = 1;; k++) {
        std::string s_Base = s_Rep + "/appel-" + std::to_string(k);
        if (access((s_Base + ".argv").c_str(), F_OK) != 0) return v;
        Appel a{{}, LitFichier(s_Base + ".entree")};
        std::string s = LitFichier(s_Base + ".argv");
        for (std::size_t p = 0, q; (q = s.find('\0', p)) != std::string::npos; p = q + 1)
            a.v_Argv.push_back(s.substr(p, q - p));
        v.push_back(a);
    }
}

void Capture::StatutAppel(int k, int i_Statut) const {
    std::ofstream(s_Rep + "/statut-" + std::to_string(k)) << i_Statut << "\n";
}
