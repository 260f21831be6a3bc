#!/usr/bin/env bash
# serveurs.sh - the throw-away servers of the tests, the demo and the
# benchmarks: OpenLDAP slapd, the Cyrus master (lmtpd, imapd) and a private
# Postfix instance, each run as plain processes from a directory of its own,
# listening on loopback and Unix sockets only, and stopped with everything
# it created.  Needs root (Cyrus and Postfix drop to their own users).
#
# Starting (DIR is created and must be absent or empty; one server per DIR):
#   serveurs.sh annuaire DIR LDIF|- [--garde PID]
#       slapd with schema/vorane.schema and the core, cosine and inetorgperson
#       schemas; suffix dc=vorane,dc=example (its base entry is added here),
#       defaultsearchbase, read access for all; the LDIF (a file, or standard
#       input for "-") loaded offline.
#       Prints PID PORT HOTE (127.0.0.1:port, as -l takes it) URL.
#   serveurs.sh cyrus DIR [--boite NOM[:QUOTA]]... [--acl "BOITE QUI DROITS"]... [--quota-strict]
#                         [--garde PID]
#       The Cyrus master: lmtpd on a Unix socket of DIR (pre-authenticated),
#       imapd on a loopback port for administration only; dot separator,
#       standard namespace (user.alice is alice's INBOX), duplicate
#       suppression off.  --boite creates user.NOM (quota in KB if given),
#       --acl "alice.Spam anyone p" runs SETACL user.alice.Spam anyone p.
#       --quota-strict makes lmtpd weigh the message itself against the
#       quota after the data (lmtp_strict_quota), not only at the recipient.
#       Prints PID SOCKET PORT_IMAP CONF.
#   serveurs.sh postfix DIR [--domaine D]... [--utilisateur U] [--delai-commande S]
#                           [--garde PID] -- PROGRAMME ARG...
#       A private instance (configuration DIR/etc): smtpd on a loopback port,
#       the domains (vorane.example by default) routed to the pipe service
#       "vorane" running PROGRAMME ARG... (Postfix expands ${sender},
#       ${recipient}) as user U (nobody), with flags Rq and null_sender=;
#       every other destination captured into the mbox file DIR/capture/mbox,
#       so nothing leaves the machine; log in DIR/log/maillog.
#       Prints PID PORT CONF JOURNAL CAPTURE.
# The NAME=VALUE lines go to standard output and stay in DIR/serveur.env.
# A start that fails says why on standard error (with the server's own
# log), stops what it started, removes DIR and exits 1.
#
# Then, for a started DIR:
#   serveurs.sh arrete DIR            stops the server (SIGTERM, SIGKILL to
#                                     its process group if it lingers), undoes
#                                     the change to /etc/postfix/main.cf,
#                                     removes DIR; harmless twice
#   serveurs.sh suspend|reprend DIR   freezes (SIGSTOP, returns once every
#                                     thread is stopped) / thaws the server's
#                                     process group: a peer that stops answering
#   serveurs.sh modifie DIR <ldif     ldapmodify on the running slapd as its
#                                     administrator (changes in LDIF)
#   serveurs.sh imap DIR COMMANDE...  IMAP commands in one administrator
#                                     session, each must answer OK
#   serveurs.sh messages DIR BOITE    paths of the messages stored in
#                                     user.BOITE, oldest first (via mbpath)
#   serveurs.sh smtp DIR EMETTEUR DEST... <message
#                                     submits over SMTP (LF turned to CRLF,
#                                     dots stuffed); prints ID=<queue id> and
#                                     REFUS=<dest> <reply> per refused recipient;
#                                     1 when the message is refused
#   serveurs.sh relance DIR           flushes the Postfix queue
#   serveurs.sh file DIR              the queue, as postqueue -j prints it
#   serveurs.sh journal DIR           Postfix's log
#
# Servers die with their owner: a guardian process waits for the end of the
# process named by --garde (by default the caller of this script: the test
# process, the demo, the benchmark) and then runs "arrete DIR", so a run
# killed half-way leaves no server behind.
set -euo pipefail
script=$0
[[ $script = /* ]] || script=$PWD/$script
racine=${script%/scripts/*}
PYTHON=(/usr/bin/python3 -I -S)
SUFFIXE=dc=vorane,dc=example
CYRUS=/usr/lib/cyrus/bin
NOM_CYRUS=vorane-magasin  # servername, and the realm of the administrator in the sasldb
ATTENTE=750             # start and stop waits, in steps of 0.02 s

# Says why and ends with 1; the files given (logs) follow, indented.
echec() {
  echo "serveurs.sh: $1" >&2
  shift
  local f
  for f in "$@"; do [ -s "$f" ] && sed 's/^/    /' "$f" >&2; done
  exit 1
}

# The waits below use shell built-ins only: a fork costs more here than
# the steps they wait for.  pause N waits N seconds (a read that nothing
# ever answers).
pause() {
  [ -n "${attente:-}" ] || exec {attente}<> <(:)
  read -rt "$1" -u "$attente" _ || true
}

# Writes standard input (a here-document) into the file.
ecrit() {
  local texte
  IFS= read -rd '' texte || true
  printf '%s' "$texte" >"$1"
}

# True while the process exists and has not ended (a zombie has ended).
vivant() {
  local s
  [[ $1 =~ ^[1-9][0-9]*$ ]] || return 1
  { read -r s <"/proc/$1/stat"; } 2>/dev/null || return 1
  s=${s##*) }
  [ "${s:0:1}" != Z ]
}

# True when something accepts connections on the loopback port.
ecoute() {
  local fd
  { exec {fd}<>"/dev/tcp/127.0.0.1/$1"; } 2>/dev/null || return 1
  exec {fd}<&-
}

# Sets port to a loopback port nothing listens on, outside the range the
# system hands out to outgoing connections; a server that cannot bind it is
# started again on another one.
port_libre() {
  while :; do
    port=$((10000 + RANDOM % 22000))
    ecoute "$port" || return 0
  done
}

# Stops a process and its process group: SIGCONT (a suspended server must
# see the SIGTERM), SIGTERM, then SIGKILL to the group if it lingers.
termine() {
  local pid=$1 i
  [[ $pid =~ ^[1-9][0-9]*$ ]] && [ "$pid" -gt 1 ] || return 0
  kill -CONT -- "-$pid" 2>/dev/null || true
  kill -TERM "$pid" 2>/dev/null || true
  for ((i = 0; i < ATTENTE; i++)); do vivant "$pid" || break; pause 0.02; done
  kill -KILL -- "-$pid" 2>/dev/null || true
}

# Sets ligne to the first line of the file ("" when it cannot be read).
lit() {
  ligne=""
  { read -r ligne <"$1"; } 2>/dev/null || true
}

# The value of NAME in DIR/serveur.env.
valeur() {
  sed -n "s/^$2=//p" "$1/serveur.env" 2>/dev/null
}

# Runs python, the program text first.
py() {
  local texte=$1
  shift
  "${PYTHON[@]}" -c "$texte" "$@"
}

# ---------------------------------------------------------------------------
# Postfix programs wait until a configuration file they read is two seconds
# old (a file being edited must not be read half-way): every file written
# here for them is dated a minute back, which saves about two seconds on
# every command.
ANCIEN="1 minute ago"

# /etc/postfix/main.cf: `postfix -c DIR` (and the sendmail of a program that
# Postfix runs with MAIL_CONFIG=DIR) needs DIR in its
# alternate_config_directories.  PY_ALTERNATE + DIR adds it, - DIR removes
# it, under a lock on /etc/postfix (instances start and stop side by side).
# A main.cf created here carries the first line below and is removed with
# the last directory listed.  Postfix's own syntax: a line that begins with
# white space continues the parameter's value.
PY_ALTERNATE='
import fcntl, os, re, sys, time
action, rep = sys.argv[1], sys.argv[2]
chemin = "/etc/postfix/main.cf"
marque = "# Cree par serveurs.sh pour ses instances privees de Postfix.\n"
verrou = os.open("/etc/postfix", os.O_RDONLY)
fcntl.flock(verrou, fcntl.LOCK_EX)
try:
    with open(chemin) as f:
        lignes = f.readlines()
except FileNotFoundError:
    if action == "-":
        sys.exit(0)
    lignes = [marque]
if lignes and not lignes[-1].endswith("\n"):
    lignes[-1] += "\n"
debut, fin, valeur = len(lignes), len(lignes), ""
for i, l in enumerate(lignes):
    m = re.match(r"alternate_config_directories\s*=(.*)", l, re.S)
    if m:
        debut, fin, valeur = i, i + 1, m.group(1)
        while fin < len(lignes) and lignes[fin][:1] in " \t" and lignes[fin].strip() \
                and not lignes[fin].lstrip().startswith("#"):
            valeur += " " + lignes[fin]
            fin += 1
        break
liste = [d for d in re.split(r"[\s,]+", valeur) if d and d != rep]
if action == "+":
    liste.append(rep)
lignes[debut:fin] = ["alternate_config_directories = " + " ".join(liste) + "\n"] if liste else []
if lignes == [marque]:
    os.unlink(chemin)
else:
    with open(chemin + ".serveurs", "w") as f:
        f.writelines(lignes)
    t = time.time() - 60
    os.utime(chemin + ".serveurs", (t, t))
    os.replace(chemin + ".serveurs", chemin)
'

# ---------------------------------------------------------------------------
# Stopping.

arrete() {
  local rep=$1 garde pid verrou
  [[ $rep = /* ]] || rep=$PWD/$rep
  # Only a directory this script started from (it holds the lock file) is
  # ever removed.
  [ -e "$rep/.verrou" ] || return 0
  # A start still under way (the owner died during it: no serveur.env yet)
  # is waited for, so that what it starts is stopped too; a start that
  # fails stops itself.
  if [ -z "${demarrage:-}" ] && [ ! -e "$rep/serveur.env" ] && { exec {verrou}<"$rep/.verrou"; } 2>/dev/null; then
    flock -w 60 "$verrou" || true
    [ -d "$rep" ] || return 0
  fi
  lit "$rep/garde.pid"
  garde=$ligne
  lit "$rep/serveur.pid"
  # A Postfix start cut short leaves the master's own pid file only.
  [ -n "$ligne" ] || lit "$rep/queue/pid/master.pid"
  pid=$ligne
  # The guardian runs this very command when the owner has gone.
  if [[ $garde =~ ^[1-9][0-9]*$ ]] && [ "$garde" != $$ ]; then kill -TERM "$garde" 2>/dev/null || true; fi
  if [ -f "$rep/etc/main.cf" ]; then
    ! vivant "$pid" || postfix -c "$rep/etc" stop >/dev/null 2>&1 || true
  fi
  termine "$pid"
  [ ! -f "$rep/etc/main.cf" ] || py "$PY_ALTERNATE" - "$rep/etc"
  rm -rf "$rep"
}

# ---------------------------------------------------------------------------
# Starting: the directory, the guardian, the way out on failure.

# The guardian: waits for the owner's end (through a pidfd, exact even if
# the pid is reused), then becomes "serveurs.sh arrete DIR" unless DIR has
# been stopped in between.
PY_GARDE='
import os, select, sys
proprietaire, script, rep = int(sys.argv[1]), sys.argv[2], sys.argv[3]
try:
    os.setsid()
except OSError:
    pass
try:
    select.select([os.pidfd_open(proprietaire)], [], [])
except ProcessLookupError:
    pass
try:
    with open(rep + "/garde.pid") as f:
        if f.read().strip() != str(os.getpid()):
            sys.exit(0)
except OSError:
    sys.exit(0)
os.execv("/bin/bash", ["bash", script, "arrete", rep])
'

# Sets rep (absolute), starts the guardian of the owner.
prepare() {
  rep=$1
  garde=$2
  [[ $rep = /* ]] || rep=$PWD/$rep
  mkdir -p "$rep"
  local contenu
  shopt -s nullglob dotglob
  contenu=("$rep"/*)
  shopt -u nullglob dotglob
  [ ${#contenu[@]} -eq 0 ] || { echo "serveurs.sh: $rep n'est pas vide" >&2; exit 1; }
  # Pid 1 never ends: the caller was gone before this script started.
  [[ $garde =~ ^[1-9][0-9]*$ ]] && [ "$garde" != 1 ] ||
    { echo "serveurs.sh: --garde $garde: pas un processus a suivre" >&2; exit 1; }
  # Held until this script ends: a stop waits for the start to finish.
  # Nothing that outlives the script may inherit it (each launch below
  # closes it).
  demarrage=1
  exec {verrou}>"$rep/.verrou"
  flock "$verrou"
  # Run directly (not through py) so that $! is its own pid.
  "${PYTHON[@]}" -c "$PY_GARDE" "$garde" "$script" "$rep" </dev/null >/dev/null 2>&1 {verrou}>&- &
  echo $! >"$rep/garde.pid"
  # From here on, a failed start stops what it started and removes DIR.
  trap '[ $? -eq 0 ] || arrete "$rep"' EXIT
}

# Launches a server in a session and process group of its own (a Ctrl-C at
# the terminal does not reach it; the stop reaches all its processes),
# output into a file of DIR; its pid in DIR/serveur.pid.
lance() {
  local sortie=$1
  shift
  setsid "$@" </dev/null >>"$sortie" 2>&1 {verrou}>&- &
  pid=$!
  echo "$pid" >"$rep/serveur.pid"
}

# Prints the NAME=VALUE lines and keeps them in DIR/serveur.env.
annonce() {
  printf '%s\n' "$@" >"$rep/serveur.env"
  printf '%s\n' "$@"
}

# ---------------------------------------------------------------------------
# slapd.

demarre_annuaire() {
  local ldif=$1
  [ $# -eq 1 ] || echec "annuaire: option inconnue $2"
  mkdir "$rep/db"
  ecrit "$rep/slapd.conf" <<EOF
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include /etc/ldap/schema/inetorgperson.schema
include $racine/schema/vorane.schema
pidfile $rep/slapd.pid
modulepath /usr/lib/ldap
moduleload back_mdb
defaultsearchbase $SUFFIXE
loglevel 0
database mdb
maxsize 104857600
suffix "$SUFFIXE"
rootdn "cn=admin,$SUFFIXE"
rootpw secret
directory $rep/db
index objectClass,mail,ravokVixmailEmission eq
access to * by * read
EOF
  {
    printf 'dn: %s\nobjectClass: dcObject\nobjectClass: organization\ndc: vorane\no: vorane\n\n' "$SUFFIXE"
    if [ "$ldif" = - ]; then cat; else cat -- "$ldif"; fi
  } >"$rep/entrees.ldif"
  /usr/sbin/slapadd -q -f "$rep/slapd.conf" -l "$rep/entrees.ldif" >"$rep/slapadd.log" 2>&1 ||
    echec "slapadd a echoue" "$rep/slapadd.log"
  local port
  for _ in 1 2 3 4 5; do
    port_libre
    lance "$rep/slapd.log" /usr/sbin/slapd -d 0 -f "$rep/slapd.conf" -h "ldap://127.0.0.1:$port/"
    for ((i = 0; i < ATTENTE * 2; i++)); do
      if ecoute "$port"; then
        annonce "PID=$pid" "PORT=$port" "HOTE=127.0.0.1:$port" "URL=ldap://127.0.0.1:$port/"
        return
      fi
      vivant "$pid" || break
      pause 0.01
    done
    termine "$pid"
  done
  echec "slapd ne demarre pas" "$rep/slapd.log"
}

# ---------------------------------------------------------------------------
# Cyrus.

# The IMAP administrator's client: waits (mode "attend") until the master
# serves the LMTP greeting on its socket and the Cyrus IMAP greeting on its
# port, then runs the commands in one session; exit 3 when the port answers
# but is not this Cyrus (taken by another program: start again elsewhere).
PY_IMAP='
import os, socket, sys, time
mode, rep, port, pid = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
commandes = sys.argv[5:]
def vivant():
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(") ", 1)[1][0] != "Z"
    except OSError:
        return False
def salutation(famille, adresse):
    s = socket.socket(famille, socket.SOCK_STREAM)
    s.settimeout(20)
    try:
        s.connect(adresse)
    except OSError:
        s.close()
        return None, None, ""
    f = s.makefile("rb")
    return s, f, f.readline().decode("latin-1")
fin = time.monotonic() + 15
lmtp = mode != "attend"
while True:
    if mode == "attend" and not vivant():
        sys.exit("le master Cyrus s est arrete")
    if time.monotonic() > fin:
        sys.exit("pas de service " + ("IMAP" if lmtp else "LMTP"))
    if not lmtp:
        s, f, l = salutation(socket.AF_UNIX, rep + "/socket/lmtp")
        if l.startswith("220 "):
            s.sendall(b"QUIT\r\n")
            lmtp = True
        if s:
            s.close()
    if lmtp:
        s, f, l = salutation(socket.AF_INET, ("127.0.0.1", port))
        if s and not (l.startswith("* OK") and "Cyrus" in l):
            print("port %d: %s" % (port, l.strip()), file=sys.stderr)
            sys.exit(3)
        if s:
            break
    time.sleep(0.02)
def commande(n, texte):
    etiquette = "a%d" % n
    s.sendall(("%s %s\r\n" % (etiquette, texte)).encode("latin-1"))
    while True:
        l = f.readline().decode("latin-1")
        if not l:
            sys.exit("IMAP: connexion fermee apres " + texte)
        if l.startswith(etiquette + " "):
            if not l[len(etiquette) + 1:].startswith("OK"):
                sys.exit("%s: %s" % (texte, l.strip()))
            return
with open(rep + "/admin.mdp") as m:
    commande(0, "LOGIN cyrus \"%s\"" % m.read())
for n, c in enumerate(commandes, 1):
    commande(n, c)
commande(len(commandes) + 1, "LOGOUT")
'

demarre_cyrus() {
  local commandes=() nom quota strict=""
  while [ $# -gt 0 ]; do
    case $1 in
      --quota-strict) strict="lmtp_strict_quota: 1"; shift; continue ;;
      --boite)
        nom=${2%%:*}
        commandes+=("CREATE user.$nom")
        [ "$nom" = "$2" ] || { quota=${2#*:}; commandes+=("SETQUOTA user.$nom (STORAGE $quota)"); }
        shift ;;
      --acl) commandes+=("SETACL user.$2"); shift ;;
      *) echec "cyrus: option inconnue $1" ;;
    esac
    shift
  done
  local d
  for d in config spool socket proc lock tmp sieve; do mkdir "$rep/$d"; done
  local mdp="essai-$$-$RANDOM$RANDOM$RANDOM"
  printf '%s' "$mdp" >"$rep/admin.mdp"
  chmod 600 "$rep/admin.mdp"
  printf '%s' "$mdp" | /usr/sbin/saslpasswd2 -p -c -f "$rep/sasldb2" -u "$NOM_CYRUS" cyrus ||
    echec "saslpasswd2 a echoue"
  ecrit "$rep/imapd.conf" <<EOF
configdirectory: $rep/config
defaultpartition: default
partition-default: $rep/spool
lmtpsocket: $rep/socket/lmtp
idlesocket: $rep/socket/idle
notifysocket: $rep/socket/notify
proc_path: $rep/proc
mboxname_lockpath: $rep/lock
temp_path: $rep/tmp
sievedir: $rep/sieve
servername: $NOM_CYRUS
admins: cyrus
altnamespace: no
unixhierarchysep: no
hashimapspool: false
lmtp_downcase_rcpt: yes
idlemethod: poll
allowplaintext: yes
sasl_pwcheck_method: auxprop
sasl_auxprop_plugin: sasldb
sasl_sasldb_path: $rep/sasldb2
sasl_mech_list: PLAIN
duplicatesuppression: 0
$strict
EOF
  local port statut
  for _ in 1 2 3; do
    port_libre
    ecrit "$rep/cyrus.conf" <<EOF
START {
}
SERVICES {
  imap cmd="imapd -C $rep/imapd.conf" listen="127.0.0.1:$port" prefork=0
  lmtpunix cmd="lmtpd -C $rep/imapd.conf" listen="$rep/socket/lmtp" prefork=0
}
EVENTS {
}
EOF
    rm -f "$rep/socket/lmtp"
    # The master drops to the cyrus user: the tree is its own (symbolic
    # links themselves, never what they point to), and anyone may reach the
    # LMTP socket.
    chown -hR cyrus:mail "$rep"
    chmod 755 "$rep"
    lance "$rep/master.out" "$CYRUS/master" -C "$rep/imapd.conf" -M "$rep/cyrus.conf" \
      -p "$rep/master.pid" -L "$rep/master.log"
    statut=0
    py "$PY_IMAP" attend "$rep" "$port" "$pid" "${commandes[@]}" 2>"$rep/imap.err" || statut=$?
    if [ "$statut" = 0 ]; then
      annonce "PID=$pid" "SOCKET=$rep/socket/lmtp" "PORT_IMAP=$port" "CONF=$rep/imapd.conf"
      return
    fi
    [ "$statut" = 3 ] || echec "Cyrus ne demarre pas" "$rep/imap.err" "$rep/master.out" "$rep/master.log"
    termine "$pid"
  done
  echec "Cyrus ne demarre pas" "$rep/imap.err" "$rep/master.out" "$rep/master.log"
}

# Paths of the stored messages of a mailbox, oldest first: files "<uid>."
# of its folder (an array indexed by uid lists them in uid order).
messages() {
  local dossier f n fichiers=()
  dossier=$("$CYRUS/mbpath" -C "$1/imapd.conf" "user.$2" 2>/dev/null) || return 0
  for f in "$dossier"/[0-9]*.; do
    n=${f##*/}
    n=${n%.}
    [[ $n =~ ^[0-9]+$ ]] && [ -f "$f" ] && fichiers[10#$n]=$f
  done
  [ ${#fichiers[@]} -eq 0 ] || printf '%s\n' "${fichiers[@]}"
}

# ---------------------------------------------------------------------------
# Postfix.

demarre_postfix() {
  local domaines=() utilisateur=nobody delai="" argv=()
  while [ $# -gt 0 ]; do
    case $1 in
      --domaine) domaines+=("$2"); shift ;;
      --utilisateur) utilisateur=$2; shift ;;
      --delai-commande) delai=$2; shift ;;
      --) shift; argv=("$@"); break ;;
      *) echec "postfix: option inconnue $1" ;;
    esac
    shift
  done
  [ ${#argv[@]} -gt 0 ] || echec "postfix: la commande du pipe manque (-- PROGRAMME ARG...)"
  local a
  for a in "${argv[@]}"; do
    [[ ! $a =~ [[:space:]] ]] || echec "postfix: argument du pipe avec un blanc: <$a>"
  done
  [ ${#domaines[@]} -gt 0 ] || domaines=(vorane.example)
  local etc=$rep/etc
  # Postfix creates the queue's subdirectories and the data directory with
  # their owners.
  mkdir "$etc" "$rep/queue" "$rep/log" "$rep/capture"
  chmod 755 "$rep"
  touch "$rep/capture/mbox"
  chown "$utilisateur" "$rep/capture/mbox"
  # Nothing is local (empty mydestination): mail for the test domains goes
  # to the pipe service, everything else (bounces and notices to outside
  # senders included) into the capture mbox, so loopback clients may relay.
  printf '%s vorane:\n' "${domaines[@]}" >"$etc/transport"
  ecrit "$etc/main.cf" <<EOF
compatibility_level = 3.6
queue_directory = $rep/queue
data_directory = $rep/data
mail_owner = postfix
setgid_group = postdrop
maillog_file = $rep/log/maillog
maillog_file_prefixes = $rep/log
myhostname = relais.vorane.example
mydestination =
alias_maps =
alias_database =
inet_interfaces = loopback-only
inet_protocols = ipv4
mynetworks = 127.0.0.0/8
biff = no
transport_maps = texthash:$etc/transport
default_transport = capture
relay_transport = capture
local_transport = capture
mailbox_size_limit = 0
${delai:+vorane_time_limit = ${delai}s}
EOF
  py "$PY_ALTERNATE" + "$etc"
  local port
  for _ in 1 2 3; do
    port_libre
    ecrit "$etc/master.cf" <<EOF
127.0.0.1:$port inet n - n - - smtpd
pickup    unix  n - n 60   1 pickup
cleanup   unix  n - n -    0 cleanup
qmgr      unix  n - n 300  1 qmgr
rewrite   unix  - - n -    - trivial-rewrite
bounce    unix  - - n -    0 bounce
defer     unix  - - n -    0 bounce
trace     unix  - - n -    0 bounce
verify    unix  - - n -    1 verify
flush     unix  n - n 1000? 0 flush
proxymap  unix  - - n -    - proxymap
showq     unix  n - n -    - showq
error     unix  - - n -    - error
retry     unix  - - n -    - error
discard   unix  - - n -    - discard
anvil     unix  - - n -    1 anvil
scache    unix  - - n -    1 scache
postlog   unix-dgram n - n - 1 postlogd
vorane    unix  - n n -    - pipe flags=Rq user=$utilisateur null_sender= argv=${argv[*]}
capture   unix  - n n -    1 pipe flags=BFR> user=$utilisateur argv=/bin/dd of=$rep/capture/mbox oflag=append conv=notrunc status=none
EOF
    touch -d "$ANCIEN" "$etc/main.cf" "$etc/master.cf" "$etc/transport"
    if postfix -c "$etc" start >"$rep/log/demarrage" 2>&1 {verrou}>&-; then
      pid=$(tr -dc 0-9 <"$rep/queue/pid/master.pid")
      echo "$pid" >"$rep/serveur.pid"
      annonce "PID=$pid" "PORT=$port" "CONF=$etc" "JOURNAL=$rep/log/maillog" "CAPTURE=$rep/capture/mbox"
      return
    fi
    grep -q 'Address already in use' "$rep/log/demarrage" "$rep/log/maillog" 2>/dev/null ||
      echec "Postfix ne demarre pas" "$rep/log/demarrage" "$rep/log/maillog"
  done
  echec "Postfix ne demarre pas" "$rep/log/demarrage" "$rep/log/maillog"
}

# SMTP submission of standard input: one transaction, as a mail client
# sends it (CRLF line ends, dot-stuffed by smtplib).
PY_SMTP='
import re, smtplib, sys
port, emetteur, dests = int(sys.argv[1]), sys.argv[2], sys.argv[3:]
donnees = re.sub(rb"(?<!\r)\n", b"\r\n", sys.stdin.buffer.read())
s = smtplib.SMTP("127.0.0.1", port, local_hostname="client.essai", timeout=60)
def refus(etape, code, texte):
    sys.exit("%s: %d %s" % (etape, code, texte.decode("latin-1")))
code, texte = s.ehlo()
code, texte = s.mail(emetteur)
if code != 250:
    refus("MAIL FROM", code, texte)
acceptes = 0
for d in dests:
    code, texte = s.rcpt(d)
    if code in (250, 251):
        acceptes += 1
    else:
        print("REFUS=%s %d %s" % (d, code, texte.decode("latin-1").replace("\n", " ")))
if acceptes == 0:
    refus("RCPT TO", code, texte)
code, texte = s.data(donnees)
if code != 250:
    refus("DATA", code, texte)
m = re.search(rb"queued as ([0-9A-Za-z]+)", texte)
print("ID=" + (m.group(1).decode() if m else ""))
s.quit()
'

# ---------------------------------------------------------------------------

usage() {
  sed -n '/^# Starting/,/^# Servers die/p' "$script" | sed 's/^# \{0,1\}//' >&2
  exit 2
}

[ $# -ge 2 ] && [ -n "$2" ] || usage
commande=$1
rep=$2
shift 2
case $commande in
  annuaire | cyrus | postfix)
    garde=$PPID
    # --garde may come anywhere among the options (before a "--").
    args=()
    while [ $# -gt 0 ]; do
      case $1 in
        --garde) garde=$2; shift 2 ;;
        --) args+=("$@"); break ;;
        *) args+=("$1"); shift ;;
      esac
    done
    [ "$EUID" -eq 0 ] || { echo "serveurs.sh: a lancer en root" >&2; exit 1; }
    prepare "$rep" "$garde"
    "demarre_$commande" "${args[@]}"
    ;;
  arrete) arrete "$rep" ;;
  suspend | reprend)
    lit "$rep/serveur.pid"
    pid=$ligne
    [[ $pid =~ ^[1-9][0-9]*$ ]] || { echo "serveurs.sh: rien ne tourne depuis $rep" >&2; exit 1; }
    if [ "$commande" = reprend ]; then
      kill -CONT -- "-$pid"
    else
      kill -STOP -- "-$pid"
      # The signal is asynchronous: wait until every thread of the group is
      # stopped, so that nothing already under way can still answer.
      for ((i = 0; i < 1000; i++)); do
        etats=$(for p in $(pgrep -g "$pid"); do cat /proc/"$p"/task/*/stat; done 2>/dev/null |
          sed 's/.*) \(.\).*/\1/' | sort -u | tr -d '\n')
        [ "$etats" != T ] || break
        pause 0.005
      done
    fi
    ;;
  modifie)
    /usr/bin/ldapmodify -x -H "$(valeur "$rep" URL)" -D "cn=admin,$SUFFIXE" -w secret >/dev/null ;;
  imap) py "$PY_IMAP" commandes "$rep" "$(valeur "$rep" PORT_IMAP)" 0 "$@" ;;
  messages) messages "$rep" "$1" ;;
  smtp) py "$PY_SMTP" "$(valeur "$rep" PORT)" "$@" ;;
  relance) postqueue -c "$rep/etc" -f ;;
  file) postqueue -c "$rep/etc" -j ;;
  journal) cat "$rep/log/maillog" ;;
  *) usage ;;
esac
