// cyrus_essai.h - a real Cyrus mail store for the tests.
//
// DemarreCyrus starts Debian's Cyrus master through scripts/serveurs.sh
// ("cyrus"), as root, from a directory of its own that holds its
// configuration, partition, private sasldb and sockets.  Two services run:
// lmtpd on a Unix-domain socket in that directory (pre-authenticated, the
// socket path is what -r takes; any user can reach it) and imapd on a free
// 127.0.0.1 port, used only to administer mailboxes as "cyrus".
//
// Settings worth knowing (the rest are Cyrus's defaults):
//   - "user.alice" names alice's INBOX (dot as hierarchy separator, the
//     standard namespace), so "rcpt to:<alice>" reaches it and
//     "rcpt to:<alice+Dossier>" reaches user.alice.Dossier when that folder
//     grants "p" to anyone, and INBOX otherwise;
//   - duplicate suppression is OFF: a message delivered twice is stored
//     twice, so a test that counts stored messages sees a double delivery
//     instead of having Cyrus hide it;
//   - 8-bit bytes in header fields are stored as "X" (munge8bit, Cyrus's
//     default);
//   - lmtpd prepends its own Return-Path, Received, X-Cyrus-Session-Id and
//     X-Sieve lines, and adds a Date when there is none; stored messages
//     have CRLF line ends.
//
// Stored messages are read back through Cyrus's own mbpath: the numbered
// files "1.", "2.", ... of the mailbox's folder, in delivery order.
//
// ArreteCyrus stops the master and its services and removes the directory;
// the store also stops when the test process dies.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct CyrusEssai {
    std::string s_Repertoire;  // the store's directory
    std::string s_Conf;        // its imapd.conf
    std::string s_Socket;      // LMTP Unix-domain socket, as -r takes it
    int i_PortImap = 0;        // administration only
    pid_t i_Pid = 0;           // the master
    std::string s_Erreur;      // why the last operation failed
};

// Starts the store with the mailboxes given ("alice", "alice.Spam",
// "plein:1" for a 1 KB quota); false (and s_Erreur, with the master's own
// log) when it cannot.  Needs root.
bool DemarreCyrus(CyrusEssai *pst, const std::vector<std::string> &v_Boites = {});
// Stops the store and removes its directory; harmless twice.
void ArreteCyrus(CyrusEssai *pst);

// Freezes / thaws the running store, master and services (returns once
// every thread is stopped): a store that accepts connections and never
// answers.
void SuspendCyrus(const CyrusEssai &st);
void ReprendCyrus(const CyrusEssai &st);

// Runs IMAP commands as the administrator, in one session, each expected
// to end "OK" (e.g. "CREATE user.alice", "SETQUOTA user.bob (STORAGE 1)",
// "SETACL user.alice.Spam anyone p" to let LMTP deliver to "alice+Spam").
// false and s_Erreur (the command and the server's answer) at the first
// that does not.
bool CommandesImap(CyrusEssai *pst, const std::vector<std::string> &v_Commandes);

// The stored messages of a mailbox ("alice", "alice.Spam"), oldest first,
// as stored (CRLF line ends); empty when it has none or does not exist.
std::vector<std::string> MessagesStockes(const CyrusEssai &st, const std::string &s_Boite);
// The text with every CRLF turned into LF (lone CRs are kept).
std::string SansCr(const std::string &s);
// Header and body of a stored message (LF line ends), split at the first
// empty line; the body is what follows that line.
struct MessageStocke {
    std::string s_Entete;  // header lines, each with its line feed
    std::string s_Corps;
};
MessageStocke DecoupeMessage(const std::string &s_Stocke);
