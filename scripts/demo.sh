#!/usr/bin/env bash
# demo.sh - builds remise-vorane and shows it at work the way Postfix runs
# it, against a throw-away directory (OpenLDAP slapd) and a throw-away mail
# store (Cyrus lmtpd), both started by scripts/serveurs.sh as plain processes
# under one temporary directory, on loopback and a Unix socket only, and
# removed at the end.
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

SERVEURS=(bash "$racine/scripts/serveurs.sh")
SUFFIXE=dc=vorane,dc=example

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
} >"$tmp/entrees.ldif"
"${SERVEURS[@]}" annuaire "$tmp/ldap" "$tmp/entrees.ldif" >"$tmp/ldap.env" || echec "slapd ne demarre pas"
port_ldap=$(valeur "$tmp/ldap.env" PORT)
echo "slapd sur ldap://127.0.0.1:$port_ldap/, entrees:"
ldapsearch -x -LLL -H "ldap://127.0.0.1:$port_ldap" -b "$SUFFIXE" "(mail=*)" mail ravokVixRemise |
  awk '/^mail:/ {m=$2} /^ravokVixRemise:/ {r=$2} /^$/ && m {printf "  %-32s %s\n", m, (r ? r : "(expediteur externe)"); m=r=""}'

# ---------------------------------------------------------------------------
titre "Magasin de demonstration (Cyrus lmtpd)"
"${SERVEURS[@]}" cyrus "$tmp/cyrus" --boite alice --boite bob >"$tmp/cyrus.env" ||
  echec "Cyrus ne demarre pas"
socket_lmtp=$(valeur "$tmp/cyrus.env" SOCKET)
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
  for b in alice bob; do avant[$b]=$(messages "$b" | wc -l); done
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
    local fichiers f
    mapfile -t fichiers < <(messages "$b")
    for f in "${fichiers[@]:${avant[$b]}}"; do
      rien=0
      echo "    boite user.$b, fichier $f :"
      tr -d '\r' <"$f" | sed 's/^/      | /'
    done
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
