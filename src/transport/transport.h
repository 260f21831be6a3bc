// transport.h - the two ways a message leaves the program: an LMTP dialogue
// with the mail store, and a command that reads the message on its standard
// input (sendmail for list members and composed mail, the Sympa queue
// programs).
//
// LMTP client (lmtp.cpp)
//   Remise_LMTP(server, sender, mailboxes, addresses, suffix, header, body,
//               &report) -> 0 done (data taken for at least one mailbox, or a
//               permanent refusal of everything: *report says what the sender
//               is to hear, mailboxes refused before or after the data
//               included), 1 unexpected reply before the data (try again),
//               else an errno value (socket, look-up, connect, transfer:
//               try again).  ECONNRESET stands for a peer that closed the
//               connection, EHOSTUNREACH for a host name without an IPv4
//               address, ENAMETOOLONG / EINVAL for a designation that cannot
//               be used as given (too long, bad port).
//   Server designation: "/path" (Unix-domain socket, at most 107 bytes), or
//   host, host:port, :port, "" (defaults localhost and 2003); at most 127
//   bytes.  Longer designations are refused, never cut.
//   Commands end with a bare line feed; no LHLO, RSET or pipelining.  The
//   data is dot-stuffed (a line that begins with "." goes out with the dot
//   doubled), across node and read-piece boundaries; the final "\n.\n" is
//   always added.  A first header line "Return-Path:" is not sent.
//   Delivery marker <spool>Remises/<mailbox> is created or truncated before
//   each recipient command (a mailbox name that is not a plain file name gets
//   none).
//   Write_LMTP(fd, text) -> 0, or errno (connection closed).  The whole text
//   is sent or the call fails; a time-out is ETIMEDOUT.
//   Read_LMTP(fd, buffer, size, limit) -> 0 with one read's bytes
//   NUL-terminated, or non-zero (connection closed): the guarded read
//   alone; the dialogue itself reads its replies whole, as follows.
//   Every reply of the dialogue is assembled by lines (AssembleReponseLmtp)
//   up to its last line, so that a reply split over several reads, or
//   several replies in one read, are each read as one and none is taken
//   for the next command's; a reply is still classed by its beginning
//   ("550-..." to the sender command is no permanent failure).  Bytes left
//   after a reply before the data (nothing is pipelined: a store out of
//   step) end the attempt with 1 (1406, LOG_WARNING).  After the
//   data the store answers once per accepted recipient, in the order of
//   the recipient commands.
//   All are read before any is acted on; a continued reply ("550-...") is
//   classed by its code.  The first accepted recipient's reply decides for
//   the message: 250 goes on, a permanent failure (5xx) is a warning and the
//   end-of-data report (no QUIT), anything else a retry of the whole
//   message, unless another mailbox answered 250 (the message is delivered
//   there, and a retry would deliver it again): the first is then reported
//   by name like a later one.  Each later
//   one that is not 250 is one recipient line of the report, like a refusal
//   of its recipient command.  Once every reply is in, the store holds the
//   message: a QUIT that cannot be written or answered is only a warning,
//   and, when the report is empty, the run's outcome is settled
//   (gi_IssueAcquise).
//   Time limits: gi_DelaiReseau (120 s) for connect, every write and reply;
//   gi_DelaiFinDonnees (360 s) for all the replies after the end of data
//   together (to the second).
//   Dialogue buffer TAILLE_DIALOGUE (1024): a reply is at most 1023 bytes; a
//   longer one is cut there.
//   Messages, system log only (returned to the caller): 1264 1266 1286 1288
//     1339 1354 1364 1376 1388 1404 1406 1437 1451 1463 1566 (LOG_WARNING/INFO),
//     1429 (LOG_ERR), 1341 1342 (designation refused, LOG_WARNING),
//     1428 (sender unusable on the wire, LOG_ERR), 1426 (sender the store
//     cannot read, sent as the null sender, LOG_WARNING), 1462 (mailbox
//     unusable on the wire: a control byte, a blank or an angle bracket,
//     LOG_WARNING).
//   Reports: level 2 1431 1470 1477 1484 1531 1533 1537 1542 1557 1563 1570;
//     level 4 1551 1577 1581.
//
// Submission through a command (commande.cpp)
//   DelivreMessage(message, body, action, argv, status slot): starts argv[0]
//   (an absolute path; no shell, no PATH search) with the argument vector
//   argv, pipes every node of the message then the body stream into it, and
//   waits for it.  The action text is what the logs and reports show as the
//   command ("exec ... '%s'" as the callers format it); it is never run.
//   Without a status slot a non-zero exit is reported: exit codes 68 71 72
//   74 75 77 78 at level 2 (retry), anything else, death by a signal
//   included, at level 3 (refusal).  With a slot: -1 at the start, then the
//   exit code, nothing reported for it.
//   EnvoiMessage(message, body, sender, recipients): sorts the recipients by
//   domain and runs sendmail -i -f sender -- rcpt... in batches of at most
//   MAX_DEST_LOT entries whose action text fits TAILLE_COMMANDE bytes (the
//   explain form counts them with CompteLotsEnvoi, same cut); when a
//   further batch is needed and a body stream is given, the body is loaded
//   into the message once, before the first batch.  An address too long to
//   fit a command on its own is refused (level -3, 1952) and skipped.
//   A command that ends with status 0 before reading its whole input is a
//   temporary failure (level 2, 1893): it never counts as a delivery.  A
//   non-zero status is mapped as above whether or not the command read
//   everything (a refusal stays a refusal).  (This process keeps the read
//   end of the command's input to count what was left unread, so no
//   SIGPIPE reaches it.)
//   A body stream that fails to read stops the command (SIGKILL) before its
//   input is closed, so that it never sends a cut message (level 2, 1847).
//   The command's standard output and error go to a pipe of this process,
//   read while the command runs (a chatty command never blocks), and their
//   first 512 bytes are logged (1895, LOG_WARNING): Postfix closes the
//   program's own output after a few kilobytes, and a command writing there
//   then would die by SIGPIPE.
//   Messages: 1826 (LOG_INFO), 1895 (LOG_WARNING), 1950 (LOG_NOTICE); reports: level 2 1835
//     1839 1845 1847 1893, level 2 or 3 1891, level 3 1951 (sender too long for
//     any command), level -3 1952.
#pragma once

#include <cstddef>
#include <cstdio>

#include "message/message.h"

// Dialogue buffer of one LMTP call.
constexpr std::size_t TAILLE_DIALOGUE = 1024;
// Server designation: at most 127 bytes; Unix-domain path at most 107.
constexpr std::size_t TAILLE_DESIGNATION = 128;
constexpr std::size_t TAILLE_CHEMIN_SOCKET = 108;
constexpr const char *PORT_LMTP_DEFAUT = "2003";
constexpr const char *HOTE_LMTP_DEFAUT = "localhost";

// At most this many bytes of a text that may be long (a written buffer, a
// batch's command line) are quoted in a log line.
constexpr int TAILLE_CITATION_JOURNAL = 200;

// Command text of one sendmail batch, terminator included, and the most
// entries one batch takes.
constexpr std::size_t TAILLE_COMMANDE = 8000;
constexpr int MAX_DEST_LOT = 100;

// What an LMTP reply's beginning says, tested in this order: "220", "250",
// "354" (first three characters, any case), "452 4.2.2 Over quota" (first
// twenty), the permanent-failure joker "5[0-9][0-9] *", anything else.
enum class ReponseLmtp { Accueil, Ok, Donnees, SurQuota, Permanente, Autre };

// Classifies one reply (null reads as an empty reply).
ReponseLmtp ClasseReponseLmtp(const char *pc_Reponse);

// One reply being assembled from the bytes received: its lines, each ended
// by a line feed, up to the first line that is not a continuation line
// ("NNN-": three digits and a hyphen).  At most TAILLE_DIALOGUE - 1 bytes
// are kept; the rest of a longer reply is dropped while its lines are still
// followed, so the next reply starts where it should.  Start each reply
// from a fresh value.
struct AssemblageReponse {
    char Pc_Texte[TAILLE_DIALOGUE] = "";  // the reply kept, NUL-terminated
    std::size_t t_Long = 0;               // bytes kept
    char Pc_Tete[4] = {};                 // first bytes of the line in hand
    std::size_t t_Ligne = 0;              // bytes of the line in hand so far
    bool b_Complete = false;
};

// Adds received bytes to the reply until it is complete; returns how many
// it took (none once complete): the rest belongs to the replies after it.
std::size_t AssembleReponseLmtp(AssemblageReponse *pst_Reponse, const char *pc_Octets,
                                std::size_t t_Long);

// A server designation split into its parts.
struct ServeurLmtp {
    bool b_Unix = false;                        // Unix-domain socket
    char Pc_Chemin[TAILLE_CHEMIN_SOCKET] = "";  // socket path
    char Pc_Hote[TAILLE_DESIGNATION] = "";      // host (defaulted)
    char Pc_Port[TAILLE_DESIGNATION] = "";      // port text (defaulted)
    unsigned short i_Port = 0;                  // port, host order
};

// Splits a designation (null reads as ""); 0, ENAMETOOLONG (designation or
// socket path too long) or EINVAL (port not a number in 1..65535).
int AnalyseServeurLmtp(const char *pc_Designation, ServeurLmtp *pst_Serveur);

// Dot-stuffing state carried across the pieces of one data phase.
struct Transparence {
    bool b_DebutLigne = true;  // the next byte begins a line
};

// Appends to the output the bytes of the piece with every line-leading dot
// doubled; returns the number of bytes written, at most 2 * t_Long.
std::size_t AppliqueTransparence(Transparence *pst_Etat, const char *pc_Piece,
                                 std::size_t t_Long, char *pc_Sortie);

// Sends the text whole; 0, or an errno value after closing the connection.
int Write_LMTP(int i_Fd, const char *pc_Texte);
// Reads one reply into the buffer; 0, or non-zero after closing.
int Read_LMTP(int i_Fd, char *pc_Tampon, std::size_t t_Taille, int i_Limite);

// True when the store can read the sender in "mail from:" (no 8-bit byte,
// no IPv6 address literal); otherwise the null sender is sent.
bool EmetteurLisibleLmtp(const char *pc_Emetteur);

// One LMTP delivery attempt; see the heading for the results.
int Remise_LMTP(const char *pc_Serveur, const char *pc_Emetteur, char *const *tpc_Boites,
                char *const *tpc_Adresses, const char *pc_Suffixe, Entete *pet_Entete,
                FILE *pf_Corps, char **ppc_Rapport);

// Pipes the message into the command argv (argv[0] an absolute path).
void DelivreMessage(Entete *pet_Message, FILE *pf_Corps, const char *pc_Action,
                    char *const *tpc_Argv, int *pi_Statut);
// Submits the message to the recipients through sendmail, in batches.
void EnvoiMessage(Entete *pet_Message, FILE *pf_Corps, const char *pc_Emetteur,
                  char **tpc_Destinataires);
// Number of batches EnvoiMessage would run for the recipients (sorted in
// place as it sorts them); nothing is run.
int CompteLotsEnvoi(const char *pc_Emetteur, char **tpc_Destinataires);
