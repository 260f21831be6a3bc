#!/usr/bin/env bash
# demo.sh - builds remise-vorane and shows it at work the way Postfix runs
# it, against a throw-away directory (OpenLDAP slapd) and a throw-away mail
# store (Cyrus lmtpd), both started as plain processes from one temporary
# directory, on loopback and a Unix socket only, and removed at the end.
#
# For every sample message it shows the command (as Postfix's pipe transport
# would run it, the message on standard input with the Return-Path line of
# Postfix's flag R first), the exit status and what it means to Postfix,
# standard error, and where the message landed: the delivered message read
# back from the mailbox files, with its rewritten header.
#
# Needs root (the Cyrus master starts as root and drops to the cyrus user;
# --init creates the spool under /var/vorane/).  Dump files of the runs stay
# in /var/vorane/Erreurs/, as they would on a server.
set -euo pipefail
racine=$(cd "$(dirname "$0")/.." && pwd)
cd "$racine"

if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null; then exec sudo bash "$0" "$@"; fi
  echo "demo.sh: a lancer en root (serveurs de demonstration, --init)" >&2
  exit 1
fi

bash scripts/installe-dependances.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build remise-vorane
prog=$racine/build/remise-vorane

PYTHON=/usr/bin/python3
MASTER=/usr/lib/cyrus/bin/master
MBPATH=/usr/lib/cyrus/bin/mbpath
SUFFIXE=dc=vorane,dc=example

# ---------------------------------------------------------------------------
# Temporary directory, and the clean-up that runs however the script ends.
tmp=$(mktemp -d /tmp/vorane-demo-XXXXXX)
chmod 755 "$tmp"
pid_slapd=""
pid_master=""
en_fin=""

# Stops one server: SIGTERM, then SIGKILL to its process group after 10 s.
arrete() {
  local pid=$1
  [ -n "$pid" ] || return 0
  kill -TERM "$pid" 2>/dev/null || return 0
  for _ in $(seq 100); do
    kill -0 "$pid" 2>/dev/null || { wait "$pid" 2>/dev/null || true; return 0; }
    sleep 0.1
  done
  kill -KILL -- "-$pid" 2>/dev/null || kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
}

fin() {
  local statut=$?
  en_fin=1
  trap '' INT TERM  # a second interruption must not cut the clean-up short
  # The master's own pid file names it too, should the launch have been
  # interrupted before its pid was noted.
  if [ -z "$pid_master" ] && [ -s "$tmp/cyrus/master.pid" ]; then
    pid_master=$(cat "$tmp/cyrus/master.pid")
  fi
  arrete "$pid_master"
  [ -z "$pid_master" ] || kill -KILL -- "-$pid_master" 2>/dev/null || true
  arrete "$pid_slapd"
  rm -rf "$tmp"
  exit "$statut"
}
trap fin EXIT
trap '[ -n "${en_fin:-}" ] || exit 130' INT TERM

# A TCP port of 127.0.0.1 that nothing listens on right now.
port_libre() {
  "$PYTHON" -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

echec() {
  echo "demo.sh: $1" >&2
  shift
  for f in "$@"; do [ -f "$f" ] && sed 's/^/    /' "$f" >&2; done
  exit 1
}

# Section title, in bold on a terminal.
if [ -t 1 ]; then
  titre() { printf '\n\033[1m== %s\033[0m\n' "$1"; }
else
  titre() { printf '\n== %s\n' "$1"; }
fi

# ---------------------------------------------------------------------------
titre "Programme et spool"
echo "\$ $prog --version"
"$prog" --version || true
echo "\$ $prog --init      # cree /var/vorane/{Absences,Remises,Erreurs}/"
"$prog" --init || true

# ---------------------------------------------------------------------------
titre "Annuaire de demonstration (slapd, schema/vorane.schema)"
mkdir -p "$tmp/ldap/db"
cat >"$tmp/ldap/slapd.conf" <<EOF
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include /etc/ldap/schema/inetorgperson.schema
include $racine/schema/vorane.schema
pidfile $tmp/ldap/slapd.pid
modulepath /usr/lib/ldap
moduleload back_mdb
defaultsearchbase $SUFFIXE
loglevel 0
database mdb
maxsize 104857600
suffix "$SUFFIXE"
rootdn "cn=admin,$SUFFIXE"
directory $tmp/ldap/db
index mail,ravokVixmailEmission eq
access to * by * read
EOF

# One mailbox entry: uid, display name, delivery kind.
boite() {
  cat <<EOF
dn: uid=$1,$SUFFIXE
objectClass: inetOrgPerson
objectClass: ravokVixBoite
uid: $1
cn: $2
sn: $1
mail: $1@vorane.example
ravokVixRemise: $3

EOF
}
{
  printf 'dn: %s\nobjectClass: dcObject\nobjectClass: organization\ndc: vorane\no: vorane\n\n' "$SUFFIXE"
  boite alice "Alice Martin" LMTP
  boite bob "Bob Durand" LMTP
  boite nouveau "Nouvel Arrivant" LMTP   # no mailbox in the store yet
  boite ancien "Ancien Compte" NULL
  boite migration "Boite en Migration" ATTENTE
  cat <<EOF
dn: uid=jdupont,$SUFFIXE
objectClass: inetOrgPerson
uid: jdupont
cn: Jean Dupont
sn: Dupont
mail: jean.dupont@partenaire.example

EOF
} >"$tmp/ldap/entrees.ldif"
/usr/sbin/slapadd -q -f "$tmp/ldap/slapd.conf" -l "$tmp/ldap/entrees.ldif" 2>"$tmp/ldap/slapadd.log" ||
  echec "slapadd a echoue" "$tmp/ldap/slapadd.log"
# slapd in the foreground on a free port; another port if that one was
# taken in between.
for essai in 1 2 3; do
  port_ldap=$(port_libre)
  /usr/sbin/slapd -d 0 -f "$tmp/ldap/slapd.conf" -h "ldap://127.0.0.1:$port_ldap/" \
    </dev/null >"$tmp/ldap/slapd.log" 2>&1 &
  pid_slapd=$!
  for _ in $(seq 100); do
    ldapsearch -x -LLL -H "ldap://127.0.0.1:$port_ldap" -b "$SUFFIXE" -s base dn >/dev/null 2>&1 && break 2
    kill -0 "$pid_slapd" 2>/dev/null || break
    sleep 0.1
  done
  arrete "$pid_slapd"
  pid_slapd=""
  [ "$essai" -lt 3 ] || echec "slapd ne demarre pas" "$tmp/ldap/slapd.log"
done
echo "slapd sur ldap://127.0.0.1:$port_ldap/, entrees:"
ldapsearch -x -LLL -H "ldap://127.0.0.1:$port_ldap" -b "$SUFFIXE" "(mail=*)" mail ravokVixRemise |
  awk '/^mail:/ {m=$2} /^ravokVixRemise:/ {r=$2} /^$/ && m {printf "  %-32s %s\n", m, (r ? r : "(expediteur externe)"); m=r=""}'

# ---------------------------------------------------------------------------
titre "Magasin de demonstration (Cyrus lmtpd)"
c=$tmp/cyrus
mkdir -p "$c"/{config,spool,socket,proc,lock,tmp,sieve}
port_imap=$(port_libre)
mdp="demo-$$-$RANDOM$RANDOM"
cat >"$c/imapd.conf" <<EOF
configdirectory: $c/config
defaultpartition: default
partition-default: $c/spool
lmtpsocket: $c/socket/lmtp
idlesocket: $c/socket/idle
notifysocket: $c/socket/notify
proc_path: $c/proc
mboxname_lockpath: $c/lock
temp_path: $c/tmp
sievedir: $c/sieve
servername: vorane-demo
admins: cyrus
altnamespace: no
unixhierarchysep: no
hashimapspool: false
lmtp_downcase_rcpt: yes
idlemethod: poll
allowplaintext: yes
sasl_pwcheck_method: auxprop
sasl_auxprop_plugin: sasldb
sasl_sasldb_path: $c/sasldb2
sasl_mech_list: PLAIN
EOF
cat >"$c/cyrus.conf" <<EOF
START {
}
SERVICES {
  imap cmd="imapd -C $c/imapd.conf" listen="127.0.0.1:$port_imap" prefork=0
  lmtpunix cmd="lmtpd -C $c/imapd.conf" listen="$c/socket/lmtp" prefork=0
}
EVENTS {
}
EOF
printf '%s' "$mdp" | saslpasswd2 -p -c -f "$c/sasldb2" -u vorane-demo cyrus
chown -R cyrus:mail "$c"
chmod 755 "$c"
# Its own session and process group, so that the clean-up can reach its
# services too.
setsid "$MASTER" -C "$c/imapd.conf" -M "$c/cyrus.conf" -p "$c/master.pid" -L "$c/master.log" \
  </dev/null >"$c/master.out" 2>&1 &
pid_master=$!
for _ in $(seq 100); do
  [ -S "$c/socket/lmtp" ] && break
  kill -0 "$pid_master" 2>/dev/null || echec "le master Cyrus s'est arrete" "$c/master.out" "$c/master.log"
  sleep 0.1
done
[ -S "$c/socket/lmtp" ] || echec "pas de socket LMTP" "$c/master.out" "$c/master.log"
# Mailboxes, over IMAP as the administrator.
"$PYTHON" - "$port_imap" "$mdp" alice bob <<'EOF' || echec "creation des boites impossible" "$c/master.log"
import imaplib, sys, time
port, mdp, boites = int(sys.argv[1]), sys.argv[2], sys.argv[3:]
for _ in range(100):
    try:
        m = imaplib.IMAP4("127.0.0.1", port)
        break
    except OSError:
        time.sleep(0.1)
else:
    sys.exit("imapd ne repond pas")
m.login("cyrus", mdp)
for b in boites:
    typ, rep = m.create("user." + b)
    if typ != "OK":
        sys.exit("CREATE user.%s: %s" % (b, rep))
m.logout()
EOF
socket_lmtp=$c/socket/lmtp
echo "lmtpd sur $socket_lmtp, boites user.alice et user.bob"
echo "(nouveau@vorane.example est LMTP dans l'annuaire mais n'a pas encore de boite)"

# ---------------------------------------------------------------------------
# Postfix runs the command as its pipe user with a bare environment.  The
# demo does the same when that user can reach the program.
lanceur=()
if runuser -u nobody -- test -x "$prog" 2>/dev/null; then
  lanceur=(runuser -u nobody --)
  utilisateur=nobody
else
  utilisateur=$(id -un)
fi

# Number of stored messages of a mailbox.
nb_messages() {
  local d
  d=$("$MBPATH" -C "$c/imapd.conf" "user.$1" 2>/dev/null) || { echo 0; return; }
  find "$d" -maxdepth 1 -name '[0-9]*.' | wc -l
}

# Meaning of an exit status for Postfix.
sens() {
  case $1 in
    0) echo "message traite: Postfix le considere comme remis" ;;
    75) echo "echec temporaire: Postfix garde le message et reessaiera" ;;
    65) echo "erreur: Postfix renvoie le message a l'emetteur avec le texte d'erreur" ;;
    *) echo "statut inattendu" ;;
  esac
}

n=0
# Runs one sample: title, what to look at, sender, recipients; the message
# on standard input.
exemple() {
  local titre_ex=$1 note=$2 emetteur=$3
  shift 3
  n=$((n + 1))
  local message=$tmp/message-$n.txt
  cat >"$message"
  titre "Message $n: $titre_ex"
  echo "$note" | fold -s -w 76 | sed 's/ *$//; s/^/  /'
  echo "--- message (entree standard), tel que Postfix le passe:"
  iconv -f ISO-8859-1 -t UTF-8 "$message" | sed 's/^/    /'
  declare -A avant
  for b in alice bob; do avant[$b]=$(nb_messages "$b"); done
  echo "--- commande (utilisateur $utilisateur):"
  echo "    $prog -r $socket_lmtp -l 127.0.0.1:$port_ldap -e $emetteur -d $* < message-$n.txt"
  local statut=0
  "${lanceur[@]}" env -i LANG=C PATH=/usr/bin:/bin \
    "$prog" -r "$socket_lmtp" -l "127.0.0.1:$port_ldap" -e "$emetteur" -d "$@" \
    <"$message" >"$tmp/sortie-$n" 2>"$tmp/erreur-$n" || statut=$?
  echo "--- statut de sortie: $statut ($(sens "$statut"))"
  echo "--- erreur standard:"
  # Texts for people are ISO-8859-1; shown here in the terminal's UTF-8.
  iconv -f ISO-8859-1 -t UTF-8 "$tmp/erreur-$n" | sed 's/\r$//; s/^/    /'
  echo "--- arrivee:"
  local rien=1
  for b in alice bob; do
    local apres
    apres=$(nb_messages "$b")
    if [ "$apres" -gt "${avant[$b]}" ]; then
      rien=0
      local d premier=$((${avant[$b]} + 1))
      d=$("$MBPATH" -C "$c/imapd.conf" "user.$b")
      for ((k = premier; k <= apres; k++)); do
        echo "    boite user.$b, fichier $d/$k. :"
        tr -d '\r' <"$d/$k." | sed 's/^/      | /'
      done
    fi
  done
  [ "$rien" = 0 ] || echo "    rien n'a ete depose dans les boites"
}

RECU="Received: from mx.partenaire.example (mx.partenaire.example [10.0.1.77])
	by relais.vorane.example (Postfix) with ESMTP id 4B1C2D3E4F"

exemple "une boite, expediteur externe connu de l'annuaire" \
  "Le From est reconstruit avec le nom de l'annuaire et la zone d'origine (relais Internet), l'en-tete de trace X-Remise-Vorane garde le From d'origine; le Return-Path de Postfix n'est pas transmis, Cyrus met le sien." \
  jean.dupont@partenaire.example \
  alice@vorane.example <<EOF
Return-Path: <jean.dupont@partenaire.example>
$RECU
Date: Sun, 22 Nov 2026 10:00:00 +0100
Message-ID: <demo-1-$$@partenaire.example>
From: "Dupont, Jean" <jean.dupont@partenaire.example>
To: alice@vorane.example
Subject: Reunion de lundi

Bonjour Alice,
la reunion est confirmee.
EOF

exemple "deux boites, une transaction LMTP; sujet accentue; lignes qui commencent par un point" \
  "L'enveloppe differe du From: ligne X-ravokFromDifferent et depot dans le nom affiche. Le sujet 8 bits est encode, l'original reste dans la trace (Cyrus y remplace chaque octet 8 bits par X). Les lignes du corps arrivent intactes." \
  robot@envoi.example alice@vorane.example Bob@Vorane.Example <<EOF
Return-Path: <robot@envoi.example>
$RECU
Date: Sun, 22 Nov 2026 10:05:00 +0100
Message-ID: <demo-2-$$@envoi.example>
From: Lettre d'information <info@envoi.example>
To: alice@vorane.example, bob@vorane.example
Subject: $(printf 'Caf\xe9 cr\xe8me et cr\xeapes')

Le corps passe tel quel, meme ces lignes:
.
..
.point
EOF

exemple "un destinataire NULL, un inconnu de l'annuaire et une boite" \
  "NULL est abandonne sans bruit (journal systeme seulement); l'inconnu est signale au niveau -3 et la boucle continue; la boite recoit le message." \
  jean.dupont@partenaire.example \
  ancien@vorane.example inconnu@vorane.example bob@vorane.example <<EOF
Return-Path: <jean.dupont@partenaire.example>
$RECU
Message-ID: <demo-3-$$@partenaire.example>
From: Jean Dupont <jean.dupont@partenaire.example>
Subject: Trois destinataires

Un seul arrive.
EOF

exemple "une boite que le magasin ne connait pas (refus de lmtpd)" \
  "lmtpd refuse nouveau (550) et accepte alice: le message est remis a alice, le refus forme le rapport destine a l'emetteur." \
  jean.dupont@partenaire.example \
  nouveau@vorane.example alice@vorane.example <<EOF
Return-Path: <jean.dupont@partenaire.example>
$RECU
Message-ID: <demo-4-$$@partenaire.example>
From: Jean Dupont <jean.dupont@partenaire.example>
Subject: Bienvenue

Bienvenue !
EOF

exemple "un destinataire ATTENTE (boite en migration)" \
  "ATTENTE arrete la remise (journal systeme seulement) avant toute transaction LMTP: bob ne recoit rien dans ce passage, Postfix representera le message entier plus tard." \
  jean.dupont@partenaire.example \
  bob@vorane.example migration@vorane.example <<EOF
Return-Path: <jean.dupont@partenaire.example>
$RECU
Message-ID: <demo-5-$$@partenaire.example>
From: Jean Dupont <jean.dupont@partenaire.example>
Subject: Plus tard

Ce message attendra.
EOF

titre "Fin"
echo "Serveurs arretes et $tmp supprime a la sortie; fichiers de vidage dans /var/vorane/Erreurs/."
