// enfant_essai.h - runs a piece of the program in a forked child.
//
// Operations that end the process (reports of level 2 and 3) are tested by
// running them in a child: ExecuteDansEnfant forks, runs the function with
// standard error captured, ends the child with status 0 if the function
// returns, and gives back the status and the standard error.  A child still
// running after the limit is killed and marked expired: a hang becomes a
// failed assertion, not a stuck test.
#pragma once

#include <functional>

#include "processus.h"

ResultatProcessus ExecuteDansEnfant(const std::function<void()> &fn, int i_LimiteSecondes = 30);
