// journal_essai.h - a system logger for timed runs of the program.
//
// On a machine without a syslog daemon (no /dev/log) every line the program
// logs goes to the console (LOG_CONS), a serial line here that takes a
// millisecond or more a line: timed runs would measure the console.
// JournalPrive(dir) moves this process into a mount namespace of its own
// (its mounts never reach the host) where /dev shows the host's device
// nodes, through links into a bind mount of the host's /dev, and a /dev/log
// served by a child that reads and drops every line.  Programs started
// afterwards log there.  It returns what the runs log to, for a report.
// RetireJournalPrive(dir) undoes it (nothing of the host's /dev is touched).
// With a /dev/log present, nothing is done.
//
// With b_Garde the lines are kept instead of dropped (a test that checks
// what the program logs): LignesJournal(dir) returns every line received so
// far, one per line as the program sent it ("<priority>date ident[pid]:
// message"), once the reader has taken everything sent before the call.
// b_Garde needs the private logger: false when it cannot be set up, or
// when the host has a logger of its own.
#pragma once

#include <string>

std::string JournalPrive(const std::string &s_Rep);
bool JournalPrive(const std::string &s_Rep, bool b_Garde);
std::string LignesJournal(const std::string &s_Rep);
void RetireJournalPrive(const std::string &s_Rep);
