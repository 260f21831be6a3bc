// rules.h - rules and automatic messages.
//
// Origin zone (origine.cpp): where a message entered the organisation's
// mail system, from the relay address literals and webmail clauses found in
// its Received lines.
//   ZoneOrigine(header)   the index of the first zone (table order) whose
//       pattern matches one of the header's Received lines, NB_ZONES - 1
//       when none does.  The patterns are site data (socle.h), compiled
//       case-insensitively, unanchored, once per process.
//   VerifPassageZone(header, pattern)  1 when a line beginning "received:"
//       (any case) matches the compiled pattern, else 0.
//   gtpc_LibelleZone / gtpc_MarqueZone: the label written into X-ravokOrigine
//       and the From display name, and the mark put in front of that name.
// Messages: 3357 pattern does not compile, 3335 matching error (level 3).
#pragma once

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "message/message.h"

constexpr int NB_ZONES = 18;  // rows 0-16 and the "no zone" row
constexpr int ZONE_AUCUNE = NB_ZONES - 1;
extern const char *const gtpc_LibelleZone[NB_ZONES];
extern const char *const gtpc_MarqueZone[NB_ZONES];

int ZoneOrigine(Entete *pet_Entete);
int VerifPassageZone(Entete *pet_Entete, const pcre2_code *pst_Motif);
