// serveurs_essai.h - the real servers of the tests: slapd, Cyrus and Postfix.
//
// They are started and stopped through scripts/serveurs.sh only (the demo
// and the benchmarks use the same script), run as a child with an argument
// vector (never a shell line), each from a directory of its own.  The script
// ties every server it starts to its caller, the test process: when that
// process ends, however it ends, a guardian stops the servers and removes
// their directory.
#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

struct SortieServeurs {
    bool b_Ok = false;                              // the script ended with 0
    std::map<std::string, std::string> m_Valeurs;   // its NAME=VALUE lines
    std::string s_Sortie;                           // standard output, whole
    std::string s_Erreur;                           // why it failed
};

// Runs "serveurs.sh <arguments>" with the text on its standard input.
SortieServeurs Serveurs(const std::vector<std::string> &v_Args, const std::string &s_Entree = "",
                        int i_LimiteSecondes = 120);

// A new empty directory /tmp/vorane-<nom>-XXXXXX for one server ("" when
// it cannot be made).
std::string RepertoireServeur(const char *pc_Nom);

// What every server of the tests has: its directory, its main process and
// why the last operation failed.
struct ServeurEssai {
    std::string s_Repertoire;
    pid_t i_Pid = 0;
    std::string s_Erreur;
};

// Stops the server (its processes) and removes its directory; harmless
// twice.
void ArreteServeur(ServeurEssai *pst);
// Freezes / thaws the running server, every process of it (returns once
// every thread is stopped): a peer that has accepted the session and then
// stops answering.
void SuspendServeur(const ServeurEssai &st);
void ReprendServeur(const ServeurEssai &st);

// The integer value of a NAME=VALUE line (0 when absent or not a number).
int ValeurEntiere(const SortieServeurs &r, const std::string &s_Nom);

// DemarreAnnuaire starts Debian's slapd through scripts/serveurs.sh
// ("annuaire"): listening only on ldap://127.0.0.1:<free port>, with the
// core, cosine and inetorgperson schemas and the project's
// schema/vorane.schema, suffix dc=vorane,dc=example (the base entry is added
// by the fixture) with defaultsearchbase set so that searches from the
// empty base work, read access for everyone, and the given LDIF entries
// loaded offline.  ArreteServeur stops it and removes its directory.  The
// server dies with the test process.
//
// DemarreServeurMuet stands in for a directory host that never answers:
//   ModeMuet::Accepte     TCP connections are established (and what the
//                         client writes is taken), nothing is ever written;
//   ModeMuet::FilePleine  a listening socket whose accept queue is full, so
//                         that a new connection is never established (the
//                         connect itself hangs).
constexpr const char *SUFFIXE_ANNUAIRE_ESSAI = "dc=vorane,dc=example";

struct AnnuaireEssai : ServeurEssai {
    int i_Port = 0;
    std::string s_Hote;  // "127.0.0.1:<port>", as -l takes it
};

// Starts slapd with the entries; false (and s_Erreur) when it cannot.
bool DemarreAnnuaire(AnnuaireEssai *pst, const std::string &s_Ldif);

// Changes entries of the running slapd (ldapmodify as its administrator,
// LDIF change records such as "dn: ...\nchangetype: modify\nreplace: x\n
// x: v\n"); false when the server refuses them.
bool ModifieAnnuaire(const AnnuaireEssai &st, const std::string &s_Changements);

// LDIF text of one entry under the suffix: "dn: <rdn>,<suffix>" then the
// given lines ("attribute: value", one per line), then a blank line.
std::string EntreeLdif(const std::string &s_Rdn, const std::string &s_Lignes);

enum class ModeMuet { Accepte, FilePleine };

struct ServeurMuet {
    int i_Port = 0;
    int i_Ecoute = -1;   // listening socket, never accepted from
    int i_Bouchon = -1;  // connection that fills the queue
    std::string s_Hote;  // "127.0.0.1:<port>"
};

bool DemarreServeurMuet(ServeurMuet *pst, ModeMuet e_Mode);
void ArreteServeurMuet(ServeurMuet *pst);

// A 127.0.0.1 port on which nothing listens at the time of the call.
int PortLibre();

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
// ArreteServeur stops the master and its services and removes the directory;
// the store also stops when the test process dies.
struct CyrusEssai : ServeurEssai {
    std::string s_Socket;  // LMTP Unix-domain socket, as -r takes it
};

// Starts the store with the mailboxes given ("alice", "alice.Spam",
// "plein:1" for a 1 KB quota); false (and s_Erreur, with the master's own
// log) when it cannot.  Needs root.
// With b_QuotaStrict lmtpd also weighs the message itself against the
// quota after the data, and refuses it there for that mailbox alone.
bool DemarreCyrus(CyrusEssai *pst, const std::vector<std::string> &v_Boites = {},
                  bool b_QuotaStrict = false);

// The stored messages of a mailbox ("alice", "alice.Spam"), oldest first,
// as stored (CRLF line ends); empty when it has none or does not exist.
std::vector<std::string> MessagesStockes(const CyrusEssai &st, const std::string &s_Boite);
// The text with every CRLF turned into LF (lone CRs are kept).
std::string SansCr(const std::string &s);

// DemarrePostfix starts Debian's Postfix through scripts/serveurs.sh
// ("postfix") from a directory of its own (configuration, queue, log):
// smtpd on a free 127.0.0.1 port, relaying for loopback clients; mail for
// vorane.example goes to the pipe service that runs the given command as an
// unprivileged user (flags Rq, null_sender=, so the null sender arrives as
// an empty argument), every other destination into a capture mbox, so that
// nothing leaves the machine.  Postfix logs into its own file.  The
// configuration directory is listed in /etc/postfix/main.cf's
// alternate_config_directories while the instance runs, so that the
// sendmail of a command it runs (MAIL_CONFIG) reaches this instance.  In a
// sanitizer build's test run the command gets the sanitizer options of the
// test process (through env, reports on its standard error).
// ArreteServeur stops it, undoes that, removes the directory; the instance
// also stops when the test process dies.
struct OptionsPostfix {
    // The pipe's command; Postfix expands "${sender}" and "${recipient}"
    // (several recipients of one transaction in one call).  No blank
    // inside an argument.
    std::vector<std::string> v_Pipe;
    std::vector<std::string> v_Domaines;   // routed to the pipe (none: vorane.example)
    std::string s_Utilisateur = "nobody";  // the pipe's user
    int i_DelaiCommande = 0;  // the pipe's time limit in seconds (0: Postfix's 1000)
};

struct PostfixEssai : ServeurEssai {
    std::string s_Journal;  // Postfix's log
    std::string s_Capture;  // mbox of the messages for other domains
    int i_Port = 0;         // smtpd on 127.0.0.1
};

// Starts the instance; false (and s_Erreur, with Postfix's log) when it
// cannot.  Needs root.
bool DemarrePostfix(PostfixEssai *pst, const OptionsPostfix &st_Options);

// Submits the message (LF line ends are sent as CRLF, dots stuffed) in one
// SMTP transaction; its queue id, or "" when it was refused (s_Erreur: the
// reply).  Recipients refused one by one are named in s_Erreur even when
// the message was queued for the others.
std::string SoumetSmtp(PostfixEssai *pst, const std::string &s_Emetteur,
                       const std::vector<std::string> &v_Dest, const std::string &s_Message);
// Asks Postfix to try every queued message now (postqueue -f).
bool RelanceFile(PostfixEssai *pst);
// The queue: one JSON object per message, as postqueue -j prints it.
std::string FilePostfix(const PostfixEssai &st);
// Postfix's log so far.
std::string JournalPostfix(const PostfixEssai &st);
// Waits (at most the limit) until the log shows what became of the queued
// message: removed (every recipient done) or deferred.  The log lines of
// that queue id; those so far when the limit is reached.  With t_Depuis,
// only the log from that byte on counts (a message tried again).
std::string AttendMessage(const PostfixEssai &st, const std::string &s_Id,
                          int i_LimiteSecondes = 30, std::size_t t_Depuis = 0);
// Waits (at most the limit) until the queue is empty, maildrop included
// (the mail that commands run by the pipe have submitted); false when it
// is not by then.
bool AttendFileVide(const PostfixEssai &st, int i_LimiteSecondes = 30);
