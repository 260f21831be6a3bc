/* plancher_lmtp.c - the least a delivery of one message to one mailbox can
 * cost on this system: the floor against which bench_demarrage sets the
 * program.
 *
 *   plancher-lmtp <directory host:port> <LMTP socket path> <sender> <recipient>
 *
 * with the message on standard input.  It does what a delivery needs and
 * nothing else: the directory session (protocol 3, anonymous simple bind),
 * the sender lookup by ravokVixmailEmission with the sender attributes, the
 * recipient lookup by mail with the recipient attributes, then one LMTP
 * dialogue (greeting, mail from, rcpt to the recipient's uid, DATA, the
 * message dot-stuffed in 64 KiB pieces, "\n.\n", QUIT), the commands ended by
 * a bare line feed as the program writes them.  Plain C linked with libldap
 * alone; the benchmark runs it with SASL_PATH naming an empty directory, so
 * that the SASL library loads no mechanism plug-in.
 *
 * Exit status: 0 delivered, 1 anything else. */
#include <ldap.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define TAILLE_MORCEAU (64 * 1024)

static char s_Morceau[TAILLE_MORCEAU];
/* Room for a piece whose every line begins with a dot. */
static char s_Sortie[2 * TAILLE_MORCEAU + 1];

/* Writes the bytes whole; 0 on failure. */
static int EcritTout(int fd, const char *pc, size_t t) {
    while (t > 0) {
        ssize_t n = write(fd, pc, t);
        if (n <= 0) return 0;
        pc += n;
        t -= (size_t)n;
    }
    return 1;
}

/* Sends a command and reads one reply; 1 when the reply begins with the
 * expected digit. */
static int Echange(int fd, const char *pc_Commande, char c_Attendu) {
    char pc[1024];
    if (pc_Commande != NULL && !EcritTout(fd, pc_Commande, strlen(pc_Commande))) return 0;
    ssize_t n = read(fd, pc, sizeof pc - 1);
    return n > 0 && pc[0] == c_Attendu;
}

/* One search below the empty base: the first value of the wanted attribute
 * copied into pc_Valeur (may be NULL), every value of every attribute read. */
static int Cherche(LDAP *ld, const char *pc_Filtre, char **tpc_Attr, const char *pc_Voulu,
                   char *pc_Valeur, size_t t_Valeur) {
    LDAPMessage *res = NULL;
    if (ldap_search_ext_s(ld, "", LDAP_SCOPE_SUBTREE, pc_Filtre, tpc_Attr, 0, NULL, NULL, NULL,
                          LDAP_NO_LIMIT, &res) != LDAP_SUCCESS)
        return 0;
    int ok = ldap_count_entries(ld, res) == 1;
    LDAPMessage *e = ok ? ldap_first_entry(ld, res) : NULL;
    for (char **pp = tpc_Attr; e != NULL && *pp != NULL; pp++) {
        struct berval **v = ldap_get_values_len(ld, e, *pp);
        if (pc_Voulu != NULL && v != NULL && v[0] != NULL && strcmp(*pp, pc_Voulu) == 0 &&
            v[0]->bv_len < t_Valeur) {
            memcpy(pc_Valeur, v[0]->bv_val, v[0]->bv_len);
            pc_Valeur[v[0]->bv_len] = '\0';
        }
        ldap_value_free_len(v);
    }
    ldap_msgfree(res);
    return ok;
}

int main(int argc, char **argv) {
    if (argc != 5) return 1;
    char *tpc_Emet[] = {"cn", "objectClass", NULL};
    char *tpc_Dest[] = {"uid", "cn", "ravokVixRemise", "ravokVixReponse",
                        "ravokVixServeurPrincipal", "ravokVixRestrictions", "ravokVixMembres",
                        "info", "ravokVixmailEmission", NULL};
    char pc_Texte[1024], pc_Uid[256] = "";

    /* Directory: session, bind, the two lookups. */
    LDAP *ld = NULL;
    snprintf(pc_Texte, sizeof pc_Texte, "ldap://%s", argv[1]);
    int i_Version = LDAP_VERSION3;
    struct berval st_Vide = {0, NULL};
    if (ldap_initialize(&ld, pc_Texte) != LDAP_SUCCESS ||
        ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &i_Version) != LDAP_OPT_SUCCESS ||
        ldap_sasl_bind_s(ld, NULL, LDAP_SASL_SIMPLE, &st_Vide, NULL, NULL, NULL) != LDAP_SUCCESS)
        return 1;
    snprintf(pc_Texte, sizeof pc_Texte, "(ravokVixmailEmission=%s)", argv[3]);
    Cherche(ld, pc_Texte, tpc_Emet, NULL, NULL, 0);
    snprintf(pc_Texte, sizeof pc_Texte, "(mail=%s)", argv[4]);
    if (!Cherche(ld, pc_Texte, tpc_Dest, "uid", pc_Uid, sizeof pc_Uid) || pc_Uid[0] == '\0')
        return 1;
    ldap_unbind_ext_s(ld, NULL, NULL);

    /* LMTP: connection and envelope. */
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un st_Adresse = {.sun_family = AF_UNIX};
    snprintf(st_Adresse.sun_path, sizeof st_Adresse.sun_path, "%s", argv[2]);
    if (fd < 0 || connect(fd, (struct sockaddr *)&st_Adresse, sizeof st_Adresse) != 0) return 1;
    if (!Echange(fd, NULL, '2')) return 1;
    snprintf(pc_Texte, sizeof pc_Texte, "mail from:<%s>\n", argv[3]);
    if (!Echange(fd, pc_Texte, '2')) return 1;
    snprintf(pc_Texte, sizeof pc_Texte, "rcpt to:<%s>\n", pc_Uid);
    if (!Echange(fd, pc_Texte, '2') || !Echange(fd, "DATA\n", '3')) return 1;

    /* The message, every line-leading dot doubled. */
    int b_DebutLigne = 1;
    size_t t_Lu;
    while ((t_Lu = fread(s_Morceau, 1, sizeof s_Morceau, stdin)) > 0) {
        size_t t_Sortie = 0, i = 0;
        while (i < t_Lu) {
            if (b_DebutLigne && s_Morceau[i] == '.') s_Sortie[t_Sortie++] = '.';
            const char *pc_Fin = memchr(s_Morceau + i, '\n', t_Lu - i);
            size_t t_Ligne = pc_Fin != NULL ? (size_t)(pc_Fin - s_Morceau) + 1 - i : t_Lu - i;
            memcpy(s_Sortie + t_Sortie, s_Morceau + i, t_Ligne);
            t_Sortie += t_Ligne;
            i += t_Ligne;
            b_DebutLigne = pc_Fin != NULL;
        }
        if (!EcritTout(fd, s_Sortie, t_Sortie)) return 1;
    }
    if (!Echange(fd, "\n.\n", '2') || !Echange(fd, "QUIT\n", '2')) return 1;
    close(fd);
    return 0;
}
