// cyrus_essai.h - a Cyrus mail store for the tests.
//
// DemarreCyrus starts Debian's Cyrus master as a plain child process (as
// root, in the foreground) from a fresh temporary directory: lmtpd on a
// Unix-domain socket of that directory, imapd on a free loopback port for
// the administrator "cyrus" (password in a private sasldb), hierarchy
// separator ".", duplicate suppression off.  It then creates the mailboxes
// given over IMAP (user.<name>), with a quota of 1 KB for those listed as
// small.  ArreteCyrus stops the master and its children and removes the
// directory.  MessagesCyrus reads back what a mailbox holds.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct CyrusEssai {
    std::string s_Repertoire;  // configuration, spool, sockets, log
    std::string s_SocketLmtp;  // designation for Remise_LMTP
    int i_PortImap = 0;
    pid_t i_Pid = 0;
    std::string s_Erreur;      // why the start failed
};

// Starts the store with the mailboxes; false (and s_Erreur) when it cannot
// (not root, Cyrus not installed, no answer).
bool DemarreCyrus(CyrusEssai *pst, const std::vector<std::string> &v_Boites,
                  const std::vector<std::string> &v_BoitesPetites = {});
// Stops the master (SIGTERM, waits) and removes the directory; harmless twice.
void ArreteCyrus(CyrusEssai *pst);
// The messages stored in the mailbox, in order, with their line ends as
// stored (CRLF).
std::vector<std::string> MessagesCyrus(const CyrusEssai &st, const std::string &s_Boite);
