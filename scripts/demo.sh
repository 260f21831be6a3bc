#!/usr/bin/env bash
# demo.sh - builds remise-vorane and shows it at work the way Postfix runs
# it, against throw-away servers started by scripts/serveurs.sh as plain
# processes under one temporary directory, on loopback and Unix sockets
# only, and removed at the end: an OpenLDAP slapd loaded with the sample
# entries of doc/exemples.ldif, a Cyrus lmtpd with their mailboxes, and a
# private Postfix whose pipe service runs the program for vorane.example
# and keeps every other message in a local mbox (the outside world), so
# that nothing leaves the machine.
#
# For every sample message it shows the command (as Postfix's pipe
# transport runs it: the message on standard input behind the Return-Path
# line of flag R, a bare environment holding Postfix's MAIL_CONFIG, as the
# pipe user nobody), the exit status and what it means to Postfix, standard
# error, and where everything landed: what the program stored in the Cyrus
# mailboxes, and what it submitted through sendmail (list copies, notices,
# automatic replies) followed through the private Postfix: its log lines,
# then the mailboxes or the outside-world mbox where they ended.
#
# Needs root (the Cyrus master and Postfix start as root and drop to their
# users; --init creates the spool under /var/vorane/).  Dump files of the
# runs stay in /var/vorane/Erreurs/, as they would on a server.  The output
# of the package installation and the build goes to build-journal/demo.log.
set -euo pipefail
racine=$(cd "$(dirname "$0")/.." && pwd)
cd "$racine"

if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null; then exec sudo bash "$0" "$@"; fi
  echo "demo.sh: a lancer en root (serveurs de demonstration, --init)" >&2
  exit 1
fi

. scripts/journal.sh
journal_ouvre demo

# Section title, in bold on a terminal.
if [ -t 1 ]; then
  titre() { printf '\n\033[1m== %s\033[0m\n' "$1"; }
else
  titre() { printf '\n== %s\n' "$1"; }
fi

titre "Preparation"
bash scripts/installe-dependances.sh
journal cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
journal ninja -C build remise-vorane
prog=$racine/build/remise-vorane
echo "programme construit : $prog"

SERVEURS=(bash "$racine/scripts/serveurs.sh")
PYTHON=(/usr/bin/python3 -I -S)
SUFFIXE=dc=vorane,dc=example
BOITES=(alice bob claire direction)

# ---------------------------------------------------------------------------
# Temporary directory, and the clean-up that runs however the script ends
# (should the demo itself be killed, the servers' guardians stop them).
tmp=$(mktemp -d /tmp/vorane-demo-XXXXXX)
chmod 755 "$tmp"
en_fin=""

fin() {
  local statut=$?
  en_fin=1
  trap '' INT TERM  # a second interruption must not cut the clean-up short
  "${SERVEURS[@]}" arrete "$tmp/postfix" || true
  "${SERVEURS[@]}" arrete "$tmp/cyrus" || true
  "${SERVEURS[@]}" arrete "$tmp/ldap" || true
  rm -rf "$tmp"
  exit "$statut"
}
trap fin EXIT
trap '[ -n "${en_fin:-}" ] || exit 130' INT TERM

echec() {
  echo "demo.sh: $1" >&2
  exit 1
}

# The value of NAME in the lines a server start printed.
valeur() {
  sed -n "s/^$2=//p" "$1"
}

# The program as Postfix's pipe user runs it: a copy that user can reach
# wherever the repository lies.
mkdir "$tmp/bin"
install -m 755 "$prog" "$tmp/bin/remise-vorane"
pipe=$tmp/bin/remise-vorane
utilisateur=nobody

# ---------------------------------------------------------------------------
titre "Programme et spool"
echo "\$ $prog --version"
"$prog" --version || true
echo "\$ $prog --init      # cree /var/vorane/{Absences,Remises,Erreurs}/"
"$prog" --init || true

# ---------------------------------------------------------------------------
titre "Annuaire de demonstration (slapd, schema/vorane.schema, doc/exemples.ldif)"
"${SERVEURS[@]}" annuaire "$tmp/ldap" doc/exemples.ldif >"$tmp/ldap.env" || echec "slapd ne demarre pas"
port_ldap=$(valeur "$tmp/ldap.env" PORT)
echo "slapd sur ldap://127.0.0.1:$port_ldap/, entrees:"
ldapsearch -x -LLL -o ldif-wrap=no -H "ldap://127.0.0.1:$port_ldap" -b "$SUFFIXE" "(mail=*)" \
  mail ravokVixRemise ravokVixRestrictions ravokVixReponse ravokVixMembres |
  awk '/^dn:/ {m = r = ""; n = 0}
       /^mail:/ {m = $2}
       /^ravokVixRemise:/ {r = $2}
       /^ravokVix(Restrictions|Reponse|Membres):/ {x[++n] = $0}
       /^$/ && m {printf "  %-32s %s\n", m, (r ? r : "(expediteur externe)");
                  for (i = 1; i <= n; i++) printf "  %-32s   %s\n", "", substr(x[i], 1, 100); m = ""}'

# ---------------------------------------------------------------------------
titre "Magasin de demonstration (Cyrus lmtpd)"
args_cyrus=()
for b in "${BOITES[@]}"; do args_cyrus+=(--boite "$b"); done
"${SERVEURS[@]}" cyrus "$tmp/cyrus" "${args_cyrus[@]}" >"$tmp/cyrus.env" || echec "Cyrus ne demarre pas"
socket_lmtp=$(valeur "$tmp/cyrus.env" SOCKET)
echo "lmtpd sur $socket_lmtp, boites: ${BOITES[*]/#/user.}"
echo "(nouveau@vorane.example est LMTP dans l'annuaire mais n'a pas encore de boite)"

# ---------------------------------------------------------------------------
titre "Postfix prive (ce que le programme soumet par sendmail y passe)"
"${SERVEURS[@]}" postfix "$tmp/postfix" --utilisateur "$utilisateur" -- \
  "$pipe" -r "$socket_lmtp" -l "127.0.0.1:$port_ldap" -e '${sender}' -d '${recipient}' \
  >"$tmp/postfix.env" || echec "Postfix ne demarre pas"
conf_postfix=$(valeur "$tmp/postfix.env" CONF)
journal_postfix=$(valeur "$tmp/postfix.env" JOURNAL)
capture=$(valeur "$tmp/postfix.env" CAPTURE)
echo "Postfix sur 127.0.0.1:$(valeur "$tmp/postfix.env" PORT), configuration $conf_postfix"
echo "service pipe de master.cf:"
grep '^vorane ' "$conf_postfix/master.cf" | sed 's/^/    /'
echo "vorane.example va a ce service; toute autre adresse (l'exterieur) dans $capture"

# ---------------------------------------------------------------------------
# Files of the stored messages of a mailbox, oldest first.
messages() {
  "${SERVEURS[@]}" messages "$tmp/cyrus" "$1"
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

# Prints a file from a byte offset, each line behind a prefix, in the
# terminal's UTF-8: the program's own texts are ISO-8859-1, replies and
# directory values UTF-8, so each line is read as UTF-8 when it is, else as
# ISO-8859-1.  Carriage returns are dropped.
affiche() {
  "${PYTHON[@]}" -c '
import sys
prefixe, chemin, debut = sys.argv[1], sys.argv[2], int(sys.argv[3])
with open(chemin, "rb") as f:
    f.seek(debut)
    for ligne in f.read().split(b"\n")[:-1] if True else []:
        ligne = ligne.rstrip(b"\r")
        try:
            texte = ligne.decode("utf-8")
        except UnicodeDecodeError:
            texte = ligne.decode("latin-1")
        print(prefixe + texte)
' "$1" "$2" "${3:-0}"
}

# Waits until Postfix has dealt with everything submitted to it: nothing
# left in its maildrop, incoming or active queues (a deferred message
# stays deferred).  A message is always in one of them until delivered.
attend_postfix() {
  local i
  for ((i = 0; i < 300; i++)); do
    [ -n "$(find "$tmp/postfix/queue/maildrop" "$tmp/postfix/queue/incoming" \
      "$tmp/postfix/queue/active" -type f -print -quit 2>/dev/null)" ] || return 0
    sleep 0.1
  done
  echo "    (Postfix n'a pas fini en 30 s)"
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
  affiche "    " "$message"
  declare -A avant
  local b
  for b in "${BOITES[@]}"; do avant[$b]=$(messages "$b" | wc -l); done
  local capture_avant journal_avant
  capture_avant=$(stat -c %s "$capture")
  journal_avant=$(wc -l <"$journal_postfix")
  echo "--- commande (utilisateur $utilisateur, environnement MAIL_CONFIG=$conf_postfix):"
  echo "    $pipe -r $socket_lmtp -l 127.0.0.1:$port_ldap -e $emetteur -d $* < message-$n.txt"
  local statut=0
  runuser -u "$utilisateur" -- env -i LANG=C PATH=/usr/bin:/bin MAIL_CONFIG="$conf_postfix" \
    "$pipe" -r "$socket_lmtp" -l "127.0.0.1:$port_ldap" -e "$emetteur" -d "$@" \
    <"$message" >"$tmp/sortie-$n" 2>"$tmp/erreur-$n" || statut=$?
  echo "--- statut de sortie: $statut ($(sens "$statut"))"
  echo "--- erreur standard:"
  affiche "    " "$tmp/erreur-$n"
  attend_postfix
  echo "--- arrivee:"
  local rien=1
  # What went through Postfix: its delivery lines, "queue id: to, relay,
  # status".
  if [ "$(wc -l <"$journal_postfix")" -gt "$journal_avant" ]; then
    rien=0
    echo "    journal de Postfix:"
    tail -n +"$((journal_avant + 1))" "$journal_postfix" |
      sed -n 's/^.* postfix[^:]*: \([0-9A-F]*\): \(to=<[^>]*>\).*\(relay=[^,]*\).*\(status=.*\)$/      \1: \2, \3, \4/p' |
      cut -c1-150
  fi
  for b in "${BOITES[@]}"; do
    local fichiers f
    mapfile -t fichiers < <(messages "$b")
    for f in "${fichiers[@]:${avant[$b]}}"; do
      rien=0
      echo "    boite user.$b, fichier $f :"
      affiche "      | " "$f"
    done
  done
  if [ "$(stat -c %s "$capture")" -gt "$capture_avant" ]; then
    rien=0
    echo "    vers l'exterieur (mbox de capture de Postfix) :"
    affiche "      | " "$capture" "$capture_avant"
  fi
  [ "$rien" = 0 ] || echo "    rien n'a ete depose ni soumis a Postfix"
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
  "NULL est abandonne sans bruit (journal systeme seulement); l'inconnu est signale au niveau -3, l'expediteur recoit un avis \"Non remis (incident)\" du postmaster, et la boucle continue: la boite recoit le message." \
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
  "lmtpd refuse nouveau (550) et accepte alice: le message est remis a alice, et le refus forme l'avis \"Non remis (incident)\" envoye a l'expediteur." \
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

exemple "une liste de l'annuaire (LISTE)" \
  "equipe@vorane.example a pour membres alice et bob. Le programme soumet une copie par sendmail (enveloppe: l'adresse AVIS de la liste; Reply-To: son adresse REPONSE); Postfix la reprend, relance le programme pour les deux membres, et celui-ci la depose dans leurs boites." \
  jean.dupont@partenaire.example \
  equipe@vorane.example <<EOF
Return-Path: <jean.dupont@partenaire.example>
$RECU
Message-ID: <demo-6-$$@partenaire.example>
From: Jean Dupont <jean.dupont@partenaire.example>
To: equipe@vorane.example
Subject: Ordre du jour

Bonjour a toute l'equipe.
EOF

exemple "un destinataire protege par une restriction" \
  "direction n'admet que les boites du systeme (10+ VIXA:x) et les personnes de ou=conseil (20+ LDAP:...); Jean Dupont est dans l'annuaire mais n'est ni l'un ni l'autre. Rien n'est depose; l'expediteur recoit un avis \"Non remis (restriction)\" du postmaster, que Postfix achemine vers l'exterieur." \
  jean.dupont@partenaire.example \
  direction@vorane.example <<EOF
Return-Path: <jean.dupont@partenaire.example>
$RECU
Message-ID: <demo-7-$$@partenaire.example>
From: Jean Dupont <jean.dupont@partenaire.example>
To: direction@vorane.example
Subject: Proposition

Madame, Monsieur,
EOF

# A reply of an earlier demonstration, less than a day ago, would hold this
# one back: the demonstration's own frequency file goes first.
frequence=/var/vorane/Absences/AvisAbs..claire..marie.curie@universite.example.org.txt
rm -f "$frequence"
exemple "une reponse automatique" \
  "claire est absente: sa regle 20~ TOUT:x FREQ:1440 TEXTE:... repond au plus une fois par jour a chaque expediteur. Le message est depose dans sa boite; la reponse part de son nom et de son adresse d'emission, avec l'expediteur nul, vers l'expediteur du message. (Le fichier de frequence d'une demonstration precedente est retire d'abord.)" \
  marie.curie@universite.example.org \
  claire@vorane.example <<EOF
Return-Path: <marie.curie@universite.example.org>
$RECU
Message-ID: <demo-8-$$@universite.example.org>
From: Marie Curie <marie.curie@universite.example.org>
To: claire@vorane.example
Subject: Seminaire de janvier

Bonjour Claire, seriez-vous disponible le 8 janvier ?
EOF
if [ -e "$frequence" ]; then
  echo "--- fichier de frequence: $frequence ($(stat -c %y "$frequence" | cut -c1-19))"
else
  echo "--- fichier de frequence: $frequence non cree (le spool n'est pas accessible a $utilisateur)"
fi

titre "Fin"
echo "Serveurs arretes et $tmp supprime a la sortie; fichiers de vidage dans /var/vorane/Erreurs/."
