// lmtp.cpp - the LMTP client: one connection, one dialogue, one result.
//
// Remise_LMTP(server, sender, mailboxes, addresses, suffix, header, body,
// &report) delivers the message in progress to the mailboxes of the mail
// store: greeting, "mail from:", one "rcpt to:" per mailbox, "DATA", the
// header and the body dot-stuffed, "\n.\n", one reply per accepted mailbox,
// "QUIT".  Results, messages and limits: see transport.h.
//
// Every blocking call (connect, each write, each read) runs under the alarm
// guard; a guard that fires turns the call's EINTR into ETIMEDOUT.  Writes go
// through send(MSG_NOSIGNAL) so that a server that went away is a failure of
// this attempt, not the end of the process by SIGPIPE.
//
// The data phase sends large gathered writes: long runs of the header and
// body go out from where they lie, short ones (header lines, the extra "."
// of a doubled dot, lines between dot lines) are gathered in a staging area;
// the body is streamed in 256 KiB pieces and never held whole, so memory
// stays flat whatever the message size.  The wire bytes are those of a
// line-by-line sender.
#include "transport/transport.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>
#include <string>
#include <vector>

#include "report/report.h"
#include "socle.h"

namespace {

// Result for a peer that closed the connection without an error number.
constexpr int CODE_CONNEXION_FERMEE = ECONNRESET;
// Result for a host name that has no IPv4 address (the resolver sets no
// errno of its own).
constexpr int CODE_HOTE_INCONNU = EHOSTUNREACH;

// Body pieces are read in this size.  The data goes out as a gather list of
// segments that point into the header texts, the piece in hand or the
// staging area; a list holds at most NB_SEGMENTS segments before it is sent.
// Every send runs under its own alarm guard, whose timer calls cost more
// than the bytes on a virtual machine: at 256 KB a 100 MB body takes 400
// guards instead of 1,600 (a third less wall time there), for half a
// megabyte of buffers that only a large body touches.
constexpr std::size_t TAILLE_MORCEAU = 256 * 1024;
constexpr int NB_SEGMENTS = 512;
// Segments shorter than this are copied into a staging area and merged with
// their neighbours there: many small segments cost the kernel more than the
// copy (a body full of lines that begin with a dot).
constexpr std::size_t SEUIL_COPIE = 1024;
constexpr std::size_t TAILLE_TAMPON = 256 * 1024;

// Fixed texts of the report, ISO-8859-1 bytes (é = \xe9, î = \xee).
constexpr const char *PC_RAPPORT_EMETTEUR =
    "Message rejet\xe9, adresse SMTP d'\xe9mission <%s> non valable";
constexpr const char *PC_RAPPORT_TETE_DEST =
    "Les destinataires suivants n'ont pas recu votre message:\n\n";
constexpr const char *PC_RAPPORT_SURQUOTA =
    "Destinataire <%s>, r\xe9ponse du serveur :\nBo\xeete pleine, message refus\xe9 ...\n";
constexpr const char *PC_RAPPORT_DEST = "Destinataire <%s>, r\xe9ponse du serveur :\n%s\n";
// Stands for the server's reply when a mailbox name cannot be put into a
// command line at all; the sender hears of it like of a refusal.
constexpr const char *PC_BOITE_INUTILISABLE = "Adresse de bo\xeete aux lettres non valable\n";
constexpr const char *PC_RAPPORT_TETE_DATA =
    "Votre message n'a pas pu etre remis\nLa reponse du serveur en fin de DATA est:\n\n";

// Body piece being read (one process, one dialogue at a time).
char s_Morceau[TAILLE_MORCEAU];
// The doubled dot.
char s_Point[] = ".";
// Staging area of the small segments.
char s_Tampon[TAILLE_TAMPON];

// Text or the empty text.
const char *NonNul(const char *pc) { return pc != nullptr ? pc : ""; }

// Length of a written text as quoted in a log line.
int LongCitation(std::size_t t_Long) {
    return t_Long > static_cast<std::size_t>(TAILLE_CITATION_JOURNAL)
               ? TAILLE_CITATION_JOURNAL
               : static_cast<int>(t_Long);
}

// Thirty-two bytes compared at once (GCC vector extension: AVX2 where the
// processor has it, pairs of SSE2 registers otherwise, plain code elsewhere).
// Vectors stay inside one function: none is passed or returned.
using Vecteur32 = unsigned char __attribute__((vector_size(32)));

// Index of the first dot that follows a line feed, looking at line feeds
// from index i on; t_Long when there is none.  Lines that begin with a dot
// are rare and this scan is the whole cost of the data phase above the
// copy itself: the piece is read 64 bytes at a time (each block compared
// with itself shifted by one byte), and byte by byte only around a match
// and in the last bytes.
#if defined(__x86_64__)
__attribute__((target_clones("avx2", "default")))
#endif
std::size_t ProchainPoint(const char *pc, std::size_t i, std::size_t t_Long) {
    const Vecteur32 v_SautLigne = Vecteur32{} + static_cast<unsigned char>('\n');
    const Vecteur32 v_Point = Vecteur32{} + static_cast<unsigned char>('.');
    while (i + 65 <= t_Long) {
        Vecteur32 v_A1, v_B1, v_A2, v_B2;
        memcpy(&v_A1, pc + i, 32);
        memcpy(&v_B1, pc + i + 1, 32);
        memcpy(&v_A2, pc + i + 32, 32);
        memcpy(&v_B2, pc + i + 33, 32);
        auto v_P1 = (v_A1 == v_SautLigne) & (v_B1 == v_Point);
        auto v_P2 = (v_A2 == v_SautLigne) & (v_B2 == v_Point);
        std::uint64_t t_Mots[8];
        memcpy(t_Mots, &v_P1, 32);
        memcpy(t_Mots + 4, &v_P2, 32);
        std::uint64_t u_Tout = 0;
        for (std::uint64_t u : t_Mots) u_Tout |= u;
        if (u_Tout == 0) {
            i += 64;
            continue;
        }
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        // The first byte in memory is the low byte of its word.
        for (std::size_t k = 0; k < 8; k++)
            if (t_Mots[k] != 0)
                return i + 8 * k + static_cast<std::size_t>(__builtin_ctzll(t_Mots[k]) / 8) + 1;
#endif
        break;
    }
    for (; i + 1 < t_Long; i++)
        if (pc[i] == '\n' && pc[i + 1] == '.') return i + 1;
    return t_Long;
}

// Walks a piece of the data: f_Segment(bytes, length) for each run sent as
// it is, f_Point() wherever a line-leading dot is doubled.  The state says
// whether the piece starts a line, and is left for the next piece.
template <typename FSegment, typename FPoint>
void ParcourtTransparence(Transparence *pst_Etat, const char *pc, std::size_t t_Long,
                          FSegment f_Segment, FPoint f_Point) {
    if (t_Long == 0) return;
    if (pst_Etat->b_DebutLigne && pc[0] == '.') f_Point();
    std::size_t t_Debut = 0;
    std::size_t t_Pos;
    while ((t_Pos = ProchainPoint(pc, t_Debut, t_Long)) < t_Long) {
        f_Segment(pc + t_Debut, t_Pos - t_Debut);
        f_Point();
        t_Debut = t_Pos;
    }
    f_Segment(pc + t_Debut, t_Long - t_Debut);
    pst_Etat->b_DebutLigne = pc[t_Long - 1] == '\n';
}

// Deadline of a wait of i_Secondes, on the monotonic clock.
struct timespec Echeance(int i_Secondes) {
    struct timespec st;
    clock_gettime(CLOCK_MONOTONIC, &st);
    st.tv_sec += i_Secondes;
    return st;
}

// Whole seconds left before the deadline, rounded up; 0 once it has passed.
int SecondesRestantes(const struct timespec &st_Echeance) {
    struct timespec st;
    clock_gettime(CLOCK_MONOTONIC, &st);
    long long ll_Nano = (static_cast<long long>(st_Echeance.tv_sec) - st.tv_sec) * 1000000000LL +
                        (st_Echeance.tv_nsec - st.tv_nsec);
    if (ll_Nano <= 0) return 0;
    return static_cast<int>((ll_Nano + 999999999LL) / 1000000000LL);
}

// Sends the segments whole under one guard (the list is consumed); 0, or an
// errno value after logging and closing the connection.  A log line quotes
// the beginning of the first segment.  The limit holds for the whole: a
// send that the alarm interrupts after some bytes went out returns them
// rather than fail, so a store that reads a trickle is stopped by the
// deadline.
int EcritSegments(int i_Fd, struct iovec *pst_Iov, int i_Nb) {
    std::size_t t_Total = 0;
    for (int k = 0; k < i_Nb; k++) t_Total += pst_Iov[k].iov_len;
    if (t_Total == 0) return 0;
    const char *pc_Cite = static_cast<const char *>(pst_Iov[0].iov_base);
    int i_Cite = LongCitation(pst_Iov[0].iov_len);

    std::size_t t_Envoye = 0;
    ssize_t i_Compte = 0;
    int i_Err = 0;
    int k = 0;
    const struct timespec st_Fin = Echeance(gi_DelaiReseau < 1 ? 1 : gi_DelaiReseau);
    _debatt(gi_DelaiReseau);
    while (t_Envoye < t_Total) {
        if (t_Envoye > 0 && SecondesRestantes(st_Fin) == 0) {
            i_Err = ETIMEDOUT;
            break;
        }
        struct msghdr st_Msg = {};
        st_Msg.msg_iov = pst_Iov + k;
        st_Msg.msg_iovlen = static_cast<std::size_t>(i_Nb - k);
        i_Compte = sendmsg(i_Fd, &st_Msg, MSG_NOSIGNAL);
        if (i_Compte <= 0) {
            // EINTR can only come from the guard's alarm: it is the time-out.
            i_Err = errno;
            break;
        }
        t_Envoye += static_cast<std::size_t>(i_Compte);
        // Step over what went out; a segment sent in part keeps its rest.
        std::size_t t_Reste = static_cast<std::size_t>(i_Compte);
        while (k < i_Nb && t_Reste >= pst_Iov[k].iov_len) t_Reste -= pst_Iov[k++].iov_len;
        if (k < i_Nb) {
            pst_Iov[k].iov_base = static_cast<char *>(pst_Iov[k].iov_base) + t_Reste;
            pst_Iov[k].iov_len -= t_Reste;
        }
    }
    errno = i_Err;
    int i_To = _finatt();
    i_Err = errno;
    if (t_Envoye == t_Total) return 0;

    if (i_To == ETIMEDOUT || i_Err == ETIMEDOUT)
        syslog(LOG_WARNING, "v1.1.0/1264: Timeout de %ds atteint sur write(%.*s). %s",
               gi_DelaiReseau, i_Cite, pc_Cite, gPc_InfoMessEnCours);
    else
        syslog(LOG_WARNING,
               "v1.1.0/1266: Erreur sur write(%.*s), cr=%d, errno=%d (%s), at=%d, to=%d. %s",
               i_Cite, pc_Cite, static_cast<int>(i_Compte), i_Err, strerror(i_Err), gi_DelaiReseau,
               i_To, gPc_InfoMessEnCours);
    close(i_Fd);
    if (i_To == ETIMEDOUT) return ETIMEDOUT;
    return i_Err != 0 ? i_Err : EIO;
}

// One read of at most t_Max bytes under a guard of i_Garde seconds: 0 with
// the count (> 0), or, after logging (quoting i_Limite, the limit the
// caller waits for) and closing the connection, a non-zero result: the
// error number, ETIMEDOUT, or CODE_CONNEXION_FERMEE for a peer that closed.
int LectureGardee(int i_Fd, char *pc, std::size_t t_Max, int i_Garde, int i_Limite,
                  std::size_t *pt_Lu) {
    *pt_Lu = 0;
    _debatt(i_Garde);
    ssize_t i_Compte = read(i_Fd, pc, t_Max);
    int i_Err = errno;
    errno = i_Err;
    int i_To = _finatt();
    i_Err = errno;
    if (i_Compte > 0) {
        *pt_Lu = static_cast<std::size_t>(i_Compte);
        return 0;
    }
    if (i_To == ETIMEDOUT)
        syslog(LOG_WARNING, "v1.1.0/1286: Timeout de %ds atteint sur read(). %s", i_Limite,
               gPc_InfoMessEnCours);
    else
        syslog(LOG_WARNING, "v1.1.0/1288: Erreur sur read(), cr=%d, errno=%d (%s), at=%d, to=%d. %s",
               static_cast<int>(i_Compte), i_Err, strerror(i_Err), i_Limite, i_To,
               gPc_InfoMessEnCours);
    close(i_Fd);
    if (i_To == ETIMEDOUT) return ETIMEDOUT;
    if (i_Compte == 0) return CODE_CONNEXION_FERMEE;
    return i_Err != 0 ? i_Err : CODE_CONNEXION_FERMEE;
}

// True for a continuation line of a reply: three digits and a hyphen.
bool LigneDeSuite(const char *pc_Tete, std::size_t t_Ligne) {
    return t_Ligne >= 4 && pc_Tete[0] >= '0' && pc_Tete[0] <= '9' && pc_Tete[1] >= '0' &&
           pc_Tete[1] <= '9' && pc_Tete[2] >= '0' && pc_Tete[2] <= '9' && pc_Tete[3] == '-';
}

// Bytes received and not yet taken by a reply (what follows the end of a
// reply in the same read).
struct Reception {
    char Pc_Octets[TAILLE_DIALOGUE];
    std::size_t t_Debut = 0;
    std::size_t t_Fin = 0;
};

// Reads one whole reply: from the bytes left over by the reads before, then
// from new reads, each guarded by the time left before the deadline (so a
// store that trickles bytes cannot stretch the wait).  0 with the reply, or
// a non-zero result after logging (quoting i_Limite) and closing.  A reply
// left incomplete by a peer that closes is a failure like no reply at all.
int LitReponseEntiere(int i_Fd, Reception *pst_Rec, AssemblageReponse *pst_Rep,
                      const struct timespec &st_Echeance, int i_Limite) {
    *pst_Rep = AssemblageReponse{};
    for (;;) {
        pst_Rec->t_Debut += AssembleReponseLmtp(pst_Rep, pst_Rec->Pc_Octets + pst_Rec->t_Debut,
                                                pst_Rec->t_Fin - pst_Rec->t_Debut);
        if (pst_Rep->b_Complete) return 0;
        int i_Reste = SecondesRestantes(st_Echeance);
        if (i_Reste == 0) {
            syslog(LOG_WARNING, "v1.1.0/1286: Timeout de %ds atteint sur read(). %s", i_Limite,
                   gPc_InfoMessEnCours);
            close(i_Fd);
            return ETIMEDOUT;
        }
        std::size_t t_Lu = 0;
        int i_Res = LectureGardee(i_Fd, pst_Rec->Pc_Octets, sizeof pst_Rec->Pc_Octets, i_Reste,
                                  i_Limite, &t_Lu);
        if (i_Res != 0) return i_Res;
        pst_Rec->t_Debut = 0;
        pst_Rec->t_Fin = t_Lu;
    }
}

// Reads the dialogue's next reply whole into the dialogue buffer (at most
// TAILLE_DIALOGUE - 1 bytes kept): a reply that comes in several reads is
// read to its last line, and what a read brings after it belongs to the
// next command.  A reply is still classed by its beginning, but a store
// that splits one, or answers on several lines, no longer shifts every
// later reply onto the wrong command.
int LitReponseDialogue(int i_Fd, Reception *pst_Rec, char *pc_Dialogue) {
    AssemblageReponse st_Rep;
    int i_Res = LitReponseEntiere(i_Fd, pst_Rec, &st_Rep, Echeance(gi_DelaiReseau), gi_DelaiReseau);
    if (i_Res != 0) return i_Res;
    memcpy(pc_Dialogue, st_Rep.Pc_Texte, st_Rep.t_Long + 1);
    // Nothing is pipelined: bytes after the reply mean a store out of step,
    // whose replies would then be taken for later commands', those after
    // the data included.  Before the data that is a retry, nothing lost.
    if (pst_Rec->t_Debut != pst_Rec->t_Fin) {
        syslog(LOG_WARNING, "v1.1.0/1406: Reponse en trop du serveur <%.*s>. %s",
               static_cast<int>(std::min<std::size_t>(pst_Rec->t_Fin - pst_Rec->t_Debut,
                                                      TAILLE_CITATION_JOURNAL)),
               pst_Rec->Pc_Octets + pst_Rec->t_Debut, gPc_InfoMessEnCours);
        close(i_Fd);
        return 1;
    }
    return 0;
}

// Data phase: the segments gathered so far.
struct FluxDonnees {
    int i_Fd;
    Transparence st_Etat;
    struct iovec t_Iov[NB_SEGMENTS];
    int i_Nb;
    std::size_t t_Tampon;  // bytes used in s_Tampon
    bool b_DernierCopie;   // the last segment ends at the staging tail
    int i_Erreur;  // result of a failed send; nothing more is added then
};

// Sends the gathered segments; 0 or the send's result (connection closed).
int VideFlux(FluxDonnees *pst) {
    if (pst->i_Erreur != 0) return pst->i_Erreur;
    pst->i_Erreur = EcritSegments(pst->i_Fd, pst->t_Iov, pst->i_Nb);
    pst->i_Nb = 0;
    pst->t_Tampon = 0;
    pst->b_DernierCopie = false;
    return pst->i_Erreur;
}

// Adds one segment, sending the list first when it is full.
void AjouteSegment(FluxDonnees *pst, const char *pc, std::size_t t_Long) {
    if (t_Long == 0 || pst->i_Erreur != 0) return;
    if (t_Long < SEUIL_COPIE) {
        if ((pst->t_Tampon + t_Long > TAILLE_TAMPON || pst->i_Nb == NB_SEGMENTS) &&
            VideFlux(pst) != 0)
            return;
        char *pc_Copie = s_Tampon + pst->t_Tampon;
        memcpy(pc_Copie, pc, t_Long);
        pst->t_Tampon += t_Long;
        // Merged with the last segment when that one is the staging tail.
        if (pst->b_DernierCopie) {
            pst->t_Iov[pst->i_Nb - 1].iov_len += t_Long;
            return;
        }
        pst->t_Iov[pst->i_Nb].iov_base = pc_Copie;
        pst->t_Iov[pst->i_Nb].iov_len = t_Long;
        pst->i_Nb++;
        pst->b_DernierCopie = true;
        return;
    }
    if (pst->i_Nb == NB_SEGMENTS && VideFlux(pst) != 0) return;
    pst->b_DernierCopie = false;
    pst->t_Iov[pst->i_Nb].iov_base = const_cast<char *>(pc);
    pst->t_Iov[pst->i_Nb].iov_len = t_Long;
    pst->i_Nb++;
}

// Adds bytes of the message to the data, dot-stuffed.  The bytes must stay
// in place until the next VideFlux.
int AjouteFlux(FluxDonnees *pst, const char *pc, std::size_t t_Long) {
    ParcourtTransparence(
        &pst->st_Etat, pc, t_Long, [pst](const char *p, std::size_t t) { AjouteSegment(pst, p, t); },
        [pst]() { AjouteSegment(pst, s_Point, 1); });
    return pst->i_Erreur;
}

// True when the text can stand inside a command line of the dialogue: no
// line end or other control byte that would end or split the command.
bool TexteDeCommande(const char *pc) {
    for (const unsigned char *pu = reinterpret_cast<const unsigned char *>(pc); *pu != '\0'; pu++)
        if (*pu < 0x20 || *pu == 0x7f) return false;
    return true;
}

// True when the mailbox name can stand between the brackets of a recipient
// command: a command's text, and no blank or angle bracket, which would end
// the address and add parameters of the server's (IGNOREQUOTA, NOTIFY=) to
// the command.
bool NomDeBoite(const char *pc) {
    return TexteDeCommande(pc) && strpbrk(pc, " <>") == nullptr;
}

// Formats a command into the dialogue buffer; false when the values cannot
// make one line of it (control bytes, or too long to fit).
bool FormatCommande(char *pc_Tampon, const char *pc_Modele, const char *pc_A, const char *pc_B) {
    if (!TexteDeCommande(pc_A) || !TexteDeCommande(pc_B)) return false;
    int i_Long = snprintf(pc_Tampon, TAILLE_DIALOGUE, pc_Modele, pc_A, pc_B);
    return i_Long > 0 && static_cast<std::size_t>(i_Long) < TAILLE_DIALOGUE;
}

}  // namespace

// True when the store can read the sender in its command.  The store
// offers no SMTPUTF8 and answers 501 to what Postfix accepts from the
// network: 8-bit bytes (an internationalised address), a second "@" outside
// quotes, and a domain other than letters, digits, dots and hyphens or an
// address literal of digits and dots (an underscore, an IPv6 literal).
// Brackets, colons and "@" inside a quoted local part are the store's to
// read.
bool EmetteurLisibleLmtp(const char *pc) {
    const char *pc_Domaine = nullptr;
    bool b_Guillemets = false;
    for (const char *p = pc; *p != '\0'; p++) {
        if (static_cast<unsigned char>(*p) >= 0x80) return false;
        if (*p == '\\' && p[1] != '\0') {
            p++;
        } else if (*p == '"') {
            b_Guillemets = !b_Guillemets;
        } else if (*p == '@' && !b_Guillemets) {
            if (pc_Domaine != nullptr) return false;
            pc_Domaine = p + 1;
        }
    }
    if (pc_Domaine == nullptr) return true;
    const bool b_Litteral = pc_Domaine[0] == '[';
    const char *p = pc_Domaine + (b_Litteral ? 1 : 0);
    for (; *p != '\0' && *p != ']'; p++) {
        bool b_Chiffre = *p >= '0' && *p <= '9';
        bool b_Lettre = (*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z');
        if (!b_Chiffre && *p != '.' && (b_Litteral || (!b_Lettre && *p != '-'))) return false;
    }
    return b_Litteral ? p[0] == ']' && p[1] == '\0' : *p == '\0';
}

namespace {

// Replaces the report by the sender-refusal text.
void RapportEmetteur(char **ppc_Rapport, const char *pc_Emetteur) {
    char *pc_Nouveau = nullptr;
    if (asprintf(&pc_Nouveau, PC_RAPPORT_EMETTEUR, pc_Emetteur) < 0)
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/1431: Erreur asprintf, errno=%d (%s). %s", errno,
                         strerror(errno), gPc_InfoMessEnCours);
    free(*ppc_Rapport);
    *ppc_Rapport = pc_Nouveau;
}

// Adds one line for a refused recipient, starting the report when needed.
void RapportDestinataire(char **ppc_Rapport, const char *pc_Adresse, const char *pc_Reponse,
                         bool b_SurQuota) {
    char *pc_Ligne = nullptr;
    int i_Res = b_SurQuota ? asprintf(&pc_Ligne, PC_RAPPORT_SURQUOTA, pc_Adresse)
                           : asprintf(&pc_Ligne, PC_RAPPORT_DEST, pc_Adresse, pc_Reponse);
    if (i_Res < 0)
        TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/1470: Erreur sur asprintf(), errno=%d (%s). %s",
                         errno, strerror(errno), gPc_InfoMessEnCours);
    std::size_t t_Ligne = strlen(pc_Ligne);
    if (*ppc_Rapport == nullptr) {
        std::size_t t_Tete = strlen(PC_RAPPORT_TETE_DEST);
        char *pc = static_cast<char *>(malloc(t_Tete + t_Ligne + 1));
        if (pc == nullptr)
            TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/1477: Erreur sur malloc(), errno=%d (%s). %s",
                             errno, strerror(errno), gPc_InfoMessEnCours);
        memcpy(pc, PC_RAPPORT_TETE_DEST, t_Tete);
        memcpy(pc + t_Tete, pc_Ligne, t_Ligne + 1);
        *ppc_Rapport = pc;
    } else {
        std::size_t t_Avant = strlen(*ppc_Rapport);
        char *pc = static_cast<char *>(realloc(*ppc_Rapport, t_Avant + t_Ligne + 1));
        if (pc == nullptr)
            TraitementErreur(NIVEAU_CRITIQUE, "v1.1.0/1484: Erreur sur realloc(), errno=%d (%s). %s",
                             errno, strerror(errno), gPc_InfoMessEnCours);
        memcpy(pc + t_Avant, pc_Ligne, t_Ligne + 1);
        *ppc_Rapport = pc;
    }
    free(pc_Ligne);
}

// Adds the end-of-data refusal to the report.
void RapportFinDonnees(char **ppc_Rapport, const char *pc_Reponse) {
    std::size_t t_Tete = strlen(PC_RAPPORT_TETE_DATA);
    std::size_t t_Rep = strlen(pc_Reponse);
    if (*ppc_Rapport == nullptr) {
        char *pc = static_cast<char *>(malloc(t_Tete + t_Rep + 1));
        if (pc == nullptr)
            TraitementErreur(NIVEAU_CRITIQUE,
                             "v1.1.0/1557: Erreur sur malloc(), errno=%d (%s). %s. Possibilite de "
                             "depots repetes",
                             errno, strerror(errno), gPc_InfoMessEnCours);
        memcpy(pc, PC_RAPPORT_TETE_DATA, t_Tete);
        memcpy(pc + t_Tete, pc_Reponse, t_Rep + 1);
        *ppc_Rapport = pc;
        return;
    }
    std::size_t t_Avant = strlen(*ppc_Rapport);
    char *pc = static_cast<char *>(realloc(*ppc_Rapport, t_Avant + 2 + t_Tete + t_Rep + 1));
    if (pc == nullptr)
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/1563: Erreur sur realloc(), errno=%d (%s). %s. Possibilite de "
                         "depots repetes",
                         errno, strerror(errno), gPc_InfoMessEnCours);
    memcpy(pc + t_Avant, "\n\n", 2);
    memcpy(pc + t_Avant + 2, PC_RAPPORT_TETE_DATA, t_Tete);
    memcpy(pc + t_Avant + 2 + t_Tete, pc_Reponse, t_Rep + 1);
    *ppc_Rapport = pc;
}

// Creates or truncates the delivery marker of the mailbox.  The name comes
// from the directory: one that is not a plain file name (empty, ".", "..",
// holding a "/") or that makes the path too long gets no marker, and a
// symbolic link planted in the shared directory is not followed.
void PoseTemoin(const char *pc_Boite) {
    if (pc_Boite[0] == '\0' || strchr(pc_Boite, '/') != nullptr || strcmp(pc_Boite, ".") == 0 ||
        strcmp(pc_Boite, "..") == 0)
        return;
    char Pc_Chemin[TAILLE_TEXTE];
    int i_Long = snprintf(Pc_Chemin, sizeof Pc_Chemin, "%sRemises/%s", gpc_RacineSpool, pc_Boite);
    if (i_Long < 0 || static_cast<std::size_t>(i_Long) >= sizeof Pc_Chemin) return;
    int i_Fd = open(Pc_Chemin, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                    0666);
    if (i_Fd >= 0) close(i_Fd);
}

// Sets the description of the message in progress for recipient i_Rang
// (counting from 1), or the "(-/n)" form with the recipient in hand.  The
// description is a bounded text: a long message id is cut, by design.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
#endif
void InfoDestinataire(const char *pc_Adresse, int i_Rang) {
    if (i_Rang > 0)
        snprintf(gPc_InfoMessEnCours, sizeof gPc_InfoMessEnCours,
                 "message-id=<%s>, from=<%s>, to=<%s>(%d/%d)", gPc_MessageId, NonNul(gpc_MailFrom),
                 NonNul(pc_Adresse), i_Rang, gi_nbDestLcmd);
    else
        snprintf(gPc_InfoMessEnCours, sizeof gPc_InfoMessEnCours,
                 "message-id=<%s>, from=<%s>, to=<%s>(-/%d)", gPc_MessageId, NonNul(gpc_MailFrom),
                 NonNul(gpc_RcptTo), gi_nbDestLcmd);
}
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// Connects to the Unix-domain socket; 0 with the descriptor, or errno.
int ConnecteUnix(const ServeurLmtp &st, int *pi_Fd) {
    int i_Fd = socket(PF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (i_Fd < 0) {
        int i_Err = errno;
        syslog(LOG_WARNING, "v1.1.0/1376: Erreur sur socket(PF_UNIX,SOCK_STREAM), errno=%d (%s). %s",
               i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        return i_Err;
    }
    struct sockaddr_un st_Adresse = {};
    st_Adresse.sun_family = AF_UNIX;
    std::size_t t_Long = strlen(st.Pc_Chemin);  // < sizeof sun_path, checked by the analysis
    memcpy(st_Adresse.sun_path, st.Pc_Chemin, t_Long + 1);
    _debatt(gi_DelaiReseau);
    int i_Res = connect(i_Fd, reinterpret_cast<struct sockaddr *>(&st_Adresse),
                        static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + t_Long));
    int i_Err = errno;
    errno = i_Err;
    _finatt();
    i_Err = errno;
    if (i_Res != 0) {
        if (i_Err == 0) i_Err = ECONNREFUSED;
        syslog(LOG_WARNING, "v1.1.0/1388: Erreur sur connect(%s), errno=%d (%s). %s", st.Pc_Chemin,
               i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        close(i_Fd);
        return i_Err;
    }
    *pi_Fd = i_Fd;
    return 0;
}

// Connects over TCP to the host and port; 0 with the descriptor, or errno.
int ConnecteTcp(const ServeurLmtp &st, int *pi_Fd) {
    int i_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (i_Fd < 0) {
        int i_Err = errno;
        syslog(LOG_WARNING, "v1.1.0/1339: Erreur sur socket(AF_INET,SOCK_STREAM), errno=%d (%s). %s",
               i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        return i_Err;
    }
    struct sockaddr_in st_Adresse = {};
    st_Adresse.sin_family = AF_INET;
    st_Adresse.sin_port = htons(st.i_Port);
    // A dotted address first, then the first IPv4 address of the name.
    if (inet_aton(st.Pc_Hote, &st_Adresse.sin_addr) == 0) {
        struct addrinfo st_Indices = {};
        st_Indices.ai_family = AF_INET;
        st_Indices.ai_socktype = SOCK_STREAM;
        struct addrinfo *pst_Liste = nullptr;
        errno = 0;
        int i_Gai = getaddrinfo(st.Pc_Hote, nullptr, &st_Indices, &pst_Liste);
        if (i_Gai != 0 || pst_Liste == nullptr) {
            int i_Err = i_Gai == EAI_SYSTEM && errno != 0 ? errno : CODE_HOTE_INCONNU;
            if (pst_Liste != nullptr) freeaddrinfo(pst_Liste);
            syslog(LOG_WARNING, "v1.1.0/1354: Erreur sur inet_addr(%s), errno=%d (%s). %s",
                   st.Pc_Hote, i_Err, strerror(i_Err), gPc_InfoMessEnCours);
            close(i_Fd);
            return i_Err;
        }
        st_Adresse.sin_addr = reinterpret_cast<struct sockaddr_in *>(pst_Liste->ai_addr)->sin_addr;
        freeaddrinfo(pst_Liste);
    }
    _debatt(gi_DelaiReseau);
    int i_Res = connect(i_Fd, reinterpret_cast<struct sockaddr *>(&st_Adresse), sizeof st_Adresse);
    int i_Err = errno;
    errno = i_Err;
    _finatt();
    i_Err = errno;
    if (i_Res != 0) {
        if (i_Err == 0) i_Err = ECONNREFUSED;
        syslog(LOG_WARNING, "v1.1.0/1364: Erreur sur connect(%s:%s), errno=%d (%s). %s", st.Pc_Hote,
               st.Pc_Port, i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        close(i_Fd);
        return i_Err;
    }
    *pi_Fd = i_Fd;
    return 0;
}

}  // namespace

// Classifies the beginning of one reply.
ReponseLmtp ClasseReponseLmtp(const char *pc_Reponse) {
    const char *pc = NonNul(pc_Reponse);
    if (strncasecmp(pc, "220", 3) == 0) return ReponseLmtp::Accueil;
    if (strncasecmp(pc, "250", 3) == 0) return ReponseLmtp::Ok;
    if (strncasecmp(pc, "354", 3) == 0) return ReponseLmtp::Donnees;
    if (strncasecmp(pc, "452 4.2.2 Over quota", 20) == 0) return ReponseLmtp::SurQuota;
    if (_expjok("5[0-9][0-9] *", pc) != 0) return ReponseLmtp::Permanente;
    return ReponseLmtp::Autre;
}

namespace {

// Classifies a whole reply, gathered to its final line after the data: a
// continued reply ("550-...") is complete there, and its code speaks as a
// final line's would.
ReponseLmtp ClasseReponseEntiere(const char *pc_Reponse) {
    ReponseLmtp e = ClasseReponseLmtp(pc_Reponse);
    if (e == ReponseLmtp::Autre && _expjok("5[0-9][0-9]-*", pc_Reponse) != 0)
        return ReponseLmtp::Permanente;
    return e;
}

}  // namespace

// Splits the designation; see the header for the results.
int AnalyseServeurLmtp(const char *pc_Designation, ServeurLmtp *pst) {
    *pst = ServeurLmtp{};
    const char *pc = NonNul(pc_Designation);
    std::size_t t_Long = strlen(pc);
    if (t_Long >= TAILLE_DESIGNATION) return ENAMETOOLONG;

    if (pc[0] == '/') {
        if (t_Long >= TAILLE_CHEMIN_SOCKET) return ENAMETOOLONG;
        pst->b_Unix = true;
        memcpy(pst->Pc_Chemin, pc, t_Long + 1);
        return 0;
    }

    const char *pc_DeuxPoints = strchr(pc, ':');
    std::size_t t_Hote = pc_DeuxPoints != nullptr ? static_cast<std::size_t>(pc_DeuxPoints - pc)
                                                  : t_Long;
    memcpy(pst->Pc_Hote, pc, t_Hote);
    pst->Pc_Hote[t_Hote] = '\0';
    if (pst->Pc_Hote[0] == '\0') _strncpy(pst->Pc_Hote, HOTE_LMTP_DEFAUT, sizeof pst->Pc_Hote);
    _strncpy(pst->Pc_Port, pc_DeuxPoints != nullptr ? pc_DeuxPoints + 1 : "", sizeof pst->Pc_Port);
    if (pst->Pc_Port[0] == '\0') _strncpy(pst->Pc_Port, PORT_LMTP_DEFAUT, sizeof pst->Pc_Port);

    // A port that is not a plain decimal number in 1..65535 would otherwise
    // be read as some other port (or 0): refuse it.
    unsigned long ul_Port = 0;
    for (const char *pp = pst->Pc_Port; *pp != '\0'; pp++) {
        if (*pp < '0' || *pp > '9') return EINVAL;
        ul_Port = ul_Port * 10 + static_cast<unsigned long>(*pp - '0');
        if (ul_Port > 65535) return EINVAL;
    }
    if (ul_Port == 0) return EINVAL;
    pst->i_Port = static_cast<unsigned short>(ul_Port);
    return 0;
}

// Copies the piece with every line-leading dot doubled.
std::size_t AppliqueTransparence(Transparence *pst_Etat, const char *pc_Piece, std::size_t t_Long,
                                 char *pc_Sortie) {
    std::size_t t_Sortie = 0;
    ParcourtTransparence(
        pst_Etat, pc_Piece, t_Long,
        [&](const char *p, std::size_t t) {
            memcpy(pc_Sortie + t_Sortie, p, t);
            t_Sortie += t;
        },
        [&]() { pc_Sortie[t_Sortie++] = '.'; });
    return t_Sortie;
}

// Sends the text whole under the write guard.
int Write_LMTP(int i_Fd, const char *pc_Texte) {
    if (pc_Texte == nullptr || pc_Texte[0] == '\0') return 0;
    struct iovec st_Iov = {const_cast<char *>(pc_Texte), strlen(pc_Texte)};
    return EcritSegments(i_Fd, &st_Iov, 1);
}

// Reads one reply (one read, at most size - 1 bytes) under a guard.
int Read_LMTP(int i_Fd, char *pc_Tampon, std::size_t t_Taille, int i_Limite) {
    if (t_Taille < 2) {
        if (t_Taille == 1) pc_Tampon[0] = '\0';
        close(i_Fd);
        return EINVAL;
    }
    std::size_t t_Lu = 0;
    int i_Res = LectureGardee(i_Fd, pc_Tampon, t_Taille - 1, i_Limite, i_Limite, &t_Lu);
    pc_Tampon[t_Lu] = '\0';
    return i_Res;
}

// Adds bytes to the reply until its last line is in.
std::size_t AssembleReponseLmtp(AssemblageReponse *pst, const char *pc_Octets, std::size_t t_Long) {
    std::size_t i = 0;
    while (i < t_Long && !pst->b_Complete) {
        char c = pc_Octets[i++];
        if (pst->t_Long < sizeof pst->Pc_Texte - 1) pst->Pc_Texte[pst->t_Long++] = c;
        if (c != '\n') {
            if (pst->t_Ligne < sizeof pst->Pc_Tete) pst->Pc_Tete[pst->t_Ligne] = c;
            pst->t_Ligne++;
            continue;
        }
        pst->b_Complete = !LigneDeSuite(pst->Pc_Tete, pst->t_Ligne);
        pst->t_Ligne = 0;
    }
    pst->Pc_Texte[pst->t_Long] = '\0';
    return i;
}

// One delivery attempt to the mail store.
int Remise_LMTP(const char *pc_Serveur, const char *pc_Emetteur, char *const *tpc_Boites,
                char *const *tpc_Adresses, const char *pc_Suffixe, Entete *pet_Entete,
                FILE *pf_Corps, char **ppc_Rapport) {
    pc_Emetteur = NonNul(pc_Emetteur);
    pc_Suffixe = NonNul(pc_Suffixe);
    char Pc_Dialogue[TAILLE_DIALOGUE];

    // 1-2. Designation and connection.  A designation that does not fit is
    // refused: a cut path or host would reach some other server.
    ServeurLmtp st_Serveur;
    int i_Res = AnalyseServeurLmtp(pc_Serveur, &st_Serveur);
    if (i_Res == ENAMETOOLONG) {
        syslog(LOG_WARNING, "v1.1.0/1341: Designation du serveur LMTP trop longue <%.*s...>. %s",
               TAILLE_CITATION_JOURNAL, NonNul(pc_Serveur), gPc_InfoMessEnCours);
        return i_Res;
    }
    if (i_Res != 0) {
        syslog(LOG_WARNING, "v1.1.0/1342: Port du serveur LMTP non valable <%s>. %s",
               st_Serveur.Pc_Port, gPc_InfoMessEnCours);
        return i_Res;
    }
    int i_Fd = -1;
    if (st_Serveur.b_Unix) {
        i_Res = ConnecteUnix(st_Serveur, &i_Fd);
    } else {
        // Over TCP each attempt starts a new report.
        free(*ppc_Rapport);
        *ppc_Rapport = nullptr;
        i_Res = ConnecteTcp(st_Serveur, &i_Fd);
    }
    if (i_Res != 0) return i_Res;
    Reception st_Rec;  // what one read brought beyond the reply in hand

    // 3. Greeting.
    i_Res = LitReponseDialogue(i_Fd, &st_Rec, Pc_Dialogue);
    if (i_Res != 0) return i_Res;
    if (ClasseReponseLmtp(Pc_Dialogue) != ReponseLmtp::Accueil) {
        syslog(LOG_WARNING, "v1.1.0/1404: Reponse connection=<%s>... %s", Pc_Dialogue,
               gPc_InfoMessEnCours);
        close(i_Fd);
        return 1;
    }

    // 4. Sender.  One that cannot make a command line is refused here, as
    // the server would refuse it for good.  One the store cannot read
    // (EmetteurLisibleLmtp) goes as the null sender, with a warning: the
    // mailboxes get the message, its sender still named in its header,
    // rather than the sender a notice that its address is not valid.
    const char *pc_Envoye = pc_Emetteur;
    if (TexteDeCommande(pc_Emetteur) && !EmetteurLisibleLmtp(pc_Emetteur)) {
        syslog(LOG_WARNING,
               "v1.1.0/1426: Adresse d'emission illisible pour le serveur LMTP <%.*s>, envoyee "
               "vide. %s",
               TAILLE_CITATION_JOURNAL, pc_Emetteur, gPc_InfoMessEnCours);
        pc_Envoye = "";
    }
    if (!FormatCommande(Pc_Dialogue, "mail from:<%s>%s\n", pc_Envoye, "")) {
        syslog(LOG_ERR, "v1.1.0/1428: Adresse d'emission inutilisable en LMTP <%.*s>. %s",
               TAILLE_CITATION_JOURNAL, pc_Emetteur, gPc_InfoMessEnCours);
        RapportEmetteur(ppc_Rapport, pc_Emetteur);
        close(i_Fd);
        return 0;
    }
    i_Res = Write_LMTP(i_Fd, Pc_Dialogue);
    if (i_Res != 0) return i_Res;
    i_Res = LitReponseDialogue(i_Fd, &st_Rec, Pc_Dialogue);
    if (i_Res != 0) return i_Res;
    ReponseLmtp e_Rep = ClasseReponseLmtp(Pc_Dialogue);
    if (e_Rep == ReponseLmtp::Permanente) {
        syslog(LOG_ERR, "v1.1.0/1429: Reponse <%s> a mail from:<%s>. %s", Pc_Dialogue, pc_Emetteur,
               gPc_InfoMessEnCours);
        RapportEmetteur(ppc_Rapport, pc_Emetteur);
        close(i_Fd);
        return 0;
    }
    if (e_Rep != ReponseLmtp::Ok) {
        syslog(LOG_WARNING, "v1.1.0/1437: Reponse <%s> a mail from:<%s>. %s", Pc_Dialogue,
               pc_Emetteur, gPc_InfoMessEnCours);
        close(i_Fd);
        return 1;
    }

    // 5. Recipients, each with its marker; a refusal is one report line.
    // The accepted ones are kept in order: the store answers each of them
    // after the data.
    std::vector<int> v_Acceptes;
    for (int i = 0; tpc_Boites != nullptr && tpc_Boites[i] != nullptr; i++) {
        const char *pc_Boite = tpc_Boites[i];
        const char *pc_Adresse = tpc_Adresses != nullptr ? NonNul(tpc_Adresses[i]) : "";
        InfoDestinataire(pc_Adresse, i + 1);
        syslog(LOG_INFO, "v1.1.0/1451: Remise LMTP vers <%s%s>/<%s>. %s", pc_Boite, pc_Suffixe,
               pc_Adresse, gPc_InfoMessEnCours);
        if (!NomDeBoite(pc_Boite) ||
            !FormatCommande(Pc_Dialogue, "rcpt to:<%s%s>\n", pc_Boite, pc_Suffixe)) {
            syslog(LOG_WARNING, "v1.1.0/1462: Boite inutilisable en LMTP <%.*s>/<%s>. %s",
                   TAILLE_CITATION_JOURNAL, pc_Boite, pc_Adresse, gPc_InfoMessEnCours);
            RapportDestinataire(ppc_Rapport, pc_Adresse, PC_BOITE_INUTILISABLE, false);
            continue;
        }
        PoseTemoin(pc_Boite);
        i_Res = Write_LMTP(i_Fd, Pc_Dialogue);
        if (i_Res != 0) return i_Res;
        i_Res = LitReponseDialogue(i_Fd, &st_Rec, Pc_Dialogue);
        if (i_Res != 0) return i_Res;
        e_Rep = ClasseReponseLmtp(Pc_Dialogue);
        if (e_Rep == ReponseLmtp::Ok) {
            v_Acceptes.push_back(i);
            continue;
        }
        syslog(LOG_WARNING, "v1.1.0/1463: Reponse <%s> a rcpt to: <%s%s>/<%s>. %s", Pc_Dialogue,
               pc_Boite, pc_Suffixe, pc_Adresse, gPc_InfoMessEnCours);
        RapportDestinataire(ppc_Rapport, pc_Adresse, Pc_Dialogue, e_Rep == ReponseLmtp::SurQuota);
    }

    // 6. Nobody to deliver to: no data.
    InfoDestinataire(nullptr, 0);
    if (v_Acceptes.empty()) {
        close(i_Fd);
        return 0;
    }

    // 7. Data command.
    i_Res = Write_LMTP(i_Fd, "DATA\n");
    if (i_Res != 0) return i_Res;
    i_Res = LitReponseDialogue(i_Fd, &st_Rec, Pc_Dialogue);
    if (i_Res != 0) return i_Res;
    if (ClasseReponseLmtp(Pc_Dialogue) != ReponseLmtp::Donnees) {
        syslog(LOG_WARNING, "v1.1.0/1508: Reponse DATA=<%s>... %s", Pc_Dialogue, gPc_InfoMessEnCours);
        close(i_Fd);
        return 1;
    }

    // 8. Header, without a leading Return-Path line (the store writes its
    // own).  It goes out before the body is read: a failure here leaves the
    // data unterminated, so the server keeps nothing and a retry is safe.
    static FluxDonnees st_Flux;
    st_Flux.i_Fd = i_Fd;
    st_Flux.st_Etat = Transparence{};
    st_Flux.i_Nb = 0;
    st_Flux.t_Tampon = 0;
    st_Flux.b_DernierCopie = false;
    st_Flux.i_Erreur = 0;
    Entete *pet = pet_Entete;
    if (pet != nullptr && pet->pc_Ligne != nullptr && strncasecmp(pet->pc_Ligne, "return-path:", 12) == 0)
        pet = pet->pet_Suivant;
    for (; pet != nullptr; pet = pet->pet_Suivant) {
        if (pet->pc_Ligne == nullptr) continue;
        i_Res = AjouteFlux(&st_Flux, pet->pc_Ligne, LongueurLigne(pet));
        if (i_Res != 0) return i_Res;
    }
    i_Res = VideFlux(&st_Flux);
    if (i_Res != 0) return i_Res;

    // 9. Body, streamed.
    if (pf_Corps != nullptr) {
        std::size_t t_Lu;
        while ((t_Lu = fread(s_Morceau, 1, sizeof s_Morceau, pf_Corps)) > 0) {
            i_Res = AjouteFlux(&st_Flux, s_Morceau, t_Lu);
            if (i_Res == 0) i_Res = VideFlux(&st_Flux);  // the piece is about to be reused
            if (i_Res != 0)
                TraitementErreur(NIVEAU_CRITIQUE,
                                 "v1.1.0/1531: Erreur Write_LMTP pendant envoi du corps du message, "
                                 "errno=%d (%s). %s. Possibilite de depots repetes",
                                 i_Res, strerror(i_Res), gPc_InfoMessEnCours);
        }
        if (ferror(pf_Corps)) {
            // The data is not terminated: the server drops it when the
            // connection closes, and Postfix keeps the whole message.
            int i_Err = errno;
            close(i_Fd);
            TraitementErreur(NIVEAU_CRITIQUE,
                             "v1.1.0/1533: Erreur lecture du corps du message, errno=%d (%s). %s",
                             i_Err, strerror(i_Err), gPc_InfoMessEnCours);
        }
    }

    // 10. End of data.
    i_Res = Write_LMTP(i_Fd, "\n.\n");
    if (i_Res != 0)
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/1537: Erreur Write_LMTP envoi <.>, errno=%d (%s). %s. Possibilite "
                         "de depots repetes",
                         i_Res, strerror(i_Res), gPc_InfoMessEnCours);

    // 11. One reply per accepted recipient, in the order of the recipient
    // commands, all within the end-of-data limit; every one is read before
    // any is acted on.  A missing one leaves the store's state unknown:
    // retry, at the risk of a second copy.
    AssemblageReponse st_Rep;
    const struct timespec st_FinDonnees = Echeance(gi_DelaiFinDonnees);
    std::vector<std::string> v_Reponses;
    bool b_UneRemise = false;  // some mailbox answered 250
    for (std::size_t k = 0; k < v_Acceptes.size(); k++) {
        i_Res = LitReponseEntiere(i_Fd, &st_Rec, &st_Rep, st_FinDonnees, gi_DelaiFinDonnees);
        if (i_Res != 0)
            TraitementErreur(NIVEAU_CRITIQUE,
                             "v1.1.0/1542: Erreur Read_LMTP pendant attente reponse <.>, errno=%d "
                             "(%s). %s. Possibilite de depots repetes",
                             i_Res, strerror(i_Res), gPc_InfoMessEnCours);
        v_Reponses.emplace_back(st_Rep.Pc_Texte);
        b_UneRemise = b_UneRemise || ClasseReponseEntiere(st_Rep.Pc_Texte) == ReponseLmtp::Ok;
    }
    // The first reply speaks for the message: 250 goes on, a permanent
    // failure is the message's refusal (reported to the sender, no QUIT).
    // Anything else (over quota included) retries the message whole.  When
    // another mailbox took it, neither holds: the sender would be told the
    // message was not delivered, or a retry would deliver it there again;
    // the first is then reported by name like any later one.
    bool b_Refuse = false;  // the message itself was refused: no QUIT
    e_Rep = ClasseReponseEntiere(v_Reponses[0].c_str());
    if (e_Rep == ReponseLmtp::Permanente && !b_UneRemise) {
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/1551: Message non remis, reponse <%s> en fin de DATA. %s",
                         v_Reponses[0].c_str(), gPc_InfoMessEnCours);
        RapportFinDonnees(ppc_Rapport, v_Reponses[0].c_str());
        b_Refuse = true;
    } else if (e_Rep != ReponseLmtp::Ok && !b_UneRemise) {
        close(i_Fd);
        TraitementErreur(NIVEAU_CRITIQUE,
                         "v1.1.0/1570: Reponse <.>=<%s>. %s. Possibilite de depots repetes",
                         v_Reponses[0].c_str(), gPc_InfoMessEnCours);
    }
    for (std::size_t k = b_Refuse ? 1 : 0; k < v_Reponses.size(); k++) {
        // A recipient answered anything but 250 did not get the message,
        // and the sender is told as for a refused recipient command.  A
        // temporary failure (4xx) or a reply that makes no sense counts the
        // same: the exit status speaks for every recipient at once, so a
        // retry for this one would deliver the message again to those that
        // took it.  The notice quotes the store's reply, so nothing is lost
        // without a word and nothing is delivered twice.
        e_Rep = ClasseReponseEntiere(v_Reponses[k].c_str());
        if (e_Rep == ReponseLmtp::Ok) continue;
        int i = v_Acceptes[k];
        const char *pc_Adresse = tpc_Adresses != nullptr ? NonNul(tpc_Adresses[i]) : "";
        syslog(LOG_WARNING, "v1.1.0/1566: Reponse <%s> en fin de DATA pour <%s%s>/<%s>. %s",
               v_Reponses[k].c_str(), tpc_Boites[i], pc_Suffixe, pc_Adresse, gPc_InfoMessEnCours);
        RapportDestinataire(ppc_Rapport, pc_Adresse, v_Reponses[k].c_str(),
                            e_Rep == ReponseLmtp::SurQuota);
    }
    if (b_Refuse) {
        close(i_Fd);
        return 0;
    }

    // 12. Quit.  Every accepted recipient has its answer, so the store
    // holds the message: a QUIT that cannot be written or answered ends
    // nothing but the session, and is only a warning (a retry would deliver
    // the message twice).  Its reply is QUIT's own, and is not examined.
    // This is the run's last delivery: with nothing to report, nothing that
    // remains can change its outcome.
    if (*ppc_Rapport == nullptr) gi_IssueAcquise = 1;
    i_Res = Write_LMTP(i_Fd, "QUIT\n");
    if (i_Res != 0) {
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/1577: Erreur Write_LMTP envoi quit, errno=%d (%s). %s", i_Res,
                         strerror(i_Res), gPc_InfoMessEnCours);
        return 0;
    }
    i_Res = LitReponseEntiere(i_Fd, &st_Rec, &st_Rep, Echeance(gi_DelaiReseau), gi_DelaiReseau);
    if (i_Res != 0) {
        TraitementErreur(NIVEAU_AVERTISSEMENT,
                         "v1.1.0/1581: Erreur Read_LMTP pendant attente reponse quit, errno=%d "
                         "(%s). %s",
                         i_Res, strerror(i_Res), gPc_InfoMessEnCours);
        return 0;
    }
    close(i_Fd);
    return 0;
}
