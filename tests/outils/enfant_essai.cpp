// enfant_essai.cpp - a function run in a forked child (see enfant_essai.h),
// through the child runner of the transport tests.
#include "enfant_essai.h"

#include <string>

#include "serveur_lmtp.h"

ResultatProcessus ExecuteDansEnfant(const std::function<void()> &fn, int i_LimiteSecondes) {
    ResultatEnfant e = ExecuteEnFils(
        [&] {
            fn();
            return std::string();
        },
        i_LimiteSecondes);
    ResultatProcessus r;
    r.i_Statut = e.i_Statut;
    r.i_Signal = e.i_Signal;
    r.b_Expire = e.b_Expire;
    r.s_Erreur = e.s_Erreur;
    return r;
}
