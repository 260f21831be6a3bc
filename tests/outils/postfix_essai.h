// postfix_essai.h - a private Postfix instance for the tests.
//
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
// ArretePostfix stops it, undoes that, removes the directory; the instance
// also stops when the test process dies.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct OptionsPostfix {
    // The pipe's command; Postfix expands "${sender}" and "${recipient}"
    // (several recipients of one transaction in one call).  No blank
    // inside an argument.
    std::vector<std::string> v_Pipe;
    std::vector<std::string> v_Domaines;   // routed to the pipe (none: vorane.example)
    std::string s_Utilisateur = "nobody";  // the pipe's user
    int i_DelaiCommande = 0;  // the pipe's time limit in seconds (0: Postfix's 1000)
    long l_TailleMax = 0;     // message_size_limit in bytes (0: Postfix's 10,240,000)
};

struct PostfixEssai {
    std::string s_Repertoire;  // the instance's directory
    std::string s_Conf;        // its configuration directory (postfix -c, MAIL_CONFIG)
    std::string s_Journal;     // Postfix's log
    std::string s_Capture;     // mbox of the messages for other domains
    int i_Port = 0;            // smtpd on 127.0.0.1
    pid_t i_Pid = 0;           // the master
    std::string s_Erreur;      // why the last operation failed
};

// Starts the instance; false (and s_Erreur, with Postfix's log) when it
// cannot.  Needs root.
bool DemarrePostfix(PostfixEssai *pst, const OptionsPostfix &st_Options);
// Stops the instance and removes its directory; harmless twice.
void ArretePostfix(PostfixEssai *pst);

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
