// cyrus_essai.h - a real Cyrus mail store for the tests.
//
// DemarreCyrus starts Debian's Cyrus master (/usr/lib/cyrus/bin/master, in
// the foreground) as root from a fresh temporary directory that holds its
// own imapd.conf, cyrus.conf, configuration directory, partition, private
// sasldb and sockets.  Two services run: lmtpd on a Unix-domain socket in
// that directory (pre-authenticated, the socket path is what -r takes) and
// imapd on a free 127.0.0.1 port, used only by the fixture to create
// mailboxes and set quotas as the administrator "cyrus".  The master drops
// to the cyrus user for its services; the directory is owned by cyrus:mail
// and reachable (0755) so that any user can reach the LMTP socket.
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
// ArreteCyrus sends SIGTERM to the master (it stops its services, about a
// second), SIGKILL to its process group if it lingers, and removes the
// directory.  The master also gets SIGTERM when the test process dies (a
// small guardian process that stays root passes it on).
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct CyrusEssai {
    std::string s_Repertoire;  // temporary directory of the instance
    std::string s_Conf;        // its imapd.conf
    std::string s_Socket;      // LMTP Unix-domain socket, as -r takes it
    std::string s_MotDePasse;  // the administrator's
    int i_PortImap = 0;        // administration only
    pid_t i_Pid = 0;           // the master's guardian (see ArreteCyrus)
    std::string s_Erreur;      // why the last operation failed
};

// Starts the store; false (and s_Erreur, with the master's own log) when it
// cannot.  Needs root.
bool DemarreCyrus(CyrusEssai *pst);
// Stops the store and removes its directory; harmless twice.
void ArreteCyrus(CyrusEssai *pst);

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
