#!/usr/bin/env bash
# paquet.sh - the Debian package of remise-vorane, built from build/, the
# tree that scripts/teste.sh has configured, built and tested, so that the
# package carries the very binary the tests ran.
#
#   bash scripts/paquet.sh            builds build-deb/remise-vorane_<version>_<arch>.deb
#   bash scripts/paquet.sh --verifie  then checks it on this machine (root):
#       - the packaged program is build/remise-vorane: same GNU build id
#         (the package strips the debugging information, which the build id
#         does not cover);
#       - the package installs; it creates the pipe user vorane in the group
#         mail, and the spool with the owners and modes of its tmpfiles.d
#         entry: the pipe user can write in the three directories, another
#         user cannot;
#       - another pipe user chosen through debconf gets the spool;
#       - the installed program answers --version, its manual page is found;
#       - the purge removes the package and the tmpfiles.d copy it wrote.
#     The machine is left as found: the package purged, the spool's previous
#     owners and modes put back.  It refuses to run where the package is
#     already installed.
#
# From a clean checkout, without the tests: dpkg-buildpackage -us -uc -b
# (doc/installation.md).  Output of the build: build-journal/paquet.log, or
# the log of the calling script.
set -euo pipefail
racine=$(cd "$(dirname "$0")/.." && pwd)
cd "$racine"
. scripts/journal.sh
journal_ouvre paquet

verifie=0
[ "${1:-}" != --verifie ] || verifie=1
[ -f build/CMakeCache.txt ] ||
  { echo "paquet.sh: build/ n'est pas configure (lancer d'abord bash scripts/teste.sh)" >&2; exit 1; }

sortie=$racine/build-deb
rm -rf "$sortie"
mkdir -p "$sortie"
version=$(dpkg-parsechangelog -S Version)
arch=$(dpkg-architecture -qDEB_HOST_ARCH)
deb=$sortie/remise-vorane_${version}_${arch}.deb
# A build stamp left by an earlier run would make dh skip the build step.
rm -f debian/debhelper-build-stamp
journal env VORANE_CONSTRUCTION=build VORANE_SORTIE="$sortie" \
  dpkg-buildpackage -b -nc -us -uc \
  --buildinfo-file="$sortie/remise-vorane_${version}_${arch}.buildinfo" \
  --changes-file="$sortie/remise-vorane_${version}_${arch}.changes" \
  --buildinfo-option=-u"$sortie" --changes-option=-u"$sortie"
[ -f "$deb" ] || { echo "paquet.sh: $deb manque apres la construction" >&2; exit 1; }
echo "paquet construit depuis build/ : $deb ($(du -k "$deb" | cut -f1) Ko)"
[ "$verifie" = 1 ] || exit 0

# ---------------------------------------------------------------------------
[ "$(id -u)" -eq 0 ] || { echo "paquet.sh --verifie: a lancer en root" >&2; exit 1; }
if dpkg-query -W -f='${Status}' remise-vorane 2>/dev/null | grep -q 'ok installed'; then
  echo "paquet.sh --verifie: remise-vorane est installe sur cette machine; la verification" >&2
  echo "l'enleverait (dpkg --purge remise-vorane d'abord, si c'est voulu)" >&2
  exit 1
fi

echec() {
  echo "ECHEC de la verification du paquet : $1" >&2
  exit 1
}

# The GNU build id of an ELF file.
id_construction() {
  readelf -n "$1" | sed -n 's/^ *Build ID: //p'
}

# 1. The packaged program is the tested one.
journal dpkg-deb -x "$deb" "$sortie/contenu"
id_teste=$(id_construction build/remise-vorane)
id_paquet=$(id_construction "$sortie/contenu/usr/lib/vorane/remise-vorane")
[ -n "$id_teste" ] || echec "build/remise-vorane n'a pas d'identifiant de construction"
[ "$id_teste" = "$id_paquet" ] ||
  echec "le programme du paquet ($id_paquet) n'est pas build/remise-vorane ($id_teste)"
echo "programme du paquet = build/remise-vorane teste (build id $id_teste)"

# 2. Installation, with the machine put back as found at the end.
SPOOL=/var/vorane
chemins=("$SPOOL" "$SPOOL/Absences" "$SPOOL/Remises" "$SPOOL/Erreurs")
declare -A etat_avant
for c in "${chemins[@]}"; do
  etat_avant[$c]=$( [ -d "$c" ] && stat -c '%a %u %g' "$c" || echo absent)
done
remet() {
  local statut=$? c mode uid gid
  if dpkg-query -W -f='${Status}' remise-vorane 2>/dev/null | grep -q 'installed'; then
    dpkg --purge remise-vorane >>"$VORANE_JOURNAL" 2>&1 || statut=1
  fi
  for ((i = ${#chemins[@]} - 1; i >= 0; i--)); do
    c=${chemins[$i]}
    if [ "${etat_avant[$c]}" = absent ]; then
      rmdir "$c" 2>/dev/null || true
    elif [ -d "$c" ]; then
      read -r mode uid gid <<<"${etat_avant[$c]}"
      chown "$uid:$gid" "$c" && chmod "$mode" "$c"
    fi
  done
  exit "$statut"
}
trap remet EXIT

export DEBIAN_FRONTEND=noninteractive
echo "remise-vorane remise-vorane/utilisateur string vorane" | debconf-set-selections
journal apt-get install -y --no-install-recommends "$deb"

# The spool as the tmpfiles.d entry makes it, for the pipe user.
verifie_spool() {
  local utilisateur=$1 groupe c attendu
  groupe=$(id -gn "$utilisateur")
  for c in "${chemins[@]}"; do
    attendu="750 $utilisateur $groupe"
    [ "$c" != "$SPOOL" ] || attendu="755 root root"
    [ "$(stat -c '%a %U %G' "$c" 2>/dev/null)" = "$attendu" ] ||
      echec "$c: $(stat -c '%a %U %G' "$c" 2>&1), attendu $attendu"
    [ "$c" = "$SPOOL" ] && continue
    runuser -u "$utilisateur" -- touch "$c/.essai-paquet" || echec "$utilisateur ne peut pas ecrire dans $c"
    rm -f "$c/.essai-paquet"
  done
  local autre=nobody
  [ "$utilisateur" != nobody ] || autre=mail
  ! runuser -u "$autre" -- touch "$SPOOL/Erreurs/.essai-paquet" 2>/dev/null ||
    echec "$autre peut ecrire dans $SPOOL/Erreurs"
  echo "spool cree pour $utilisateur : $SPOOL 755 root, Absences Remises Erreurs 750 $utilisateur:$groupe"
}

getent passwd vorane >/dev/null || echec "l'utilisateur vorane n'a pas ete cree"
id -nG vorane | tr ' ' '\n' | grep -qx mail || echec "vorane n'est pas dans le groupe mail"
verifie_spool vorane

statut=0
ligne=$(/usr/lib/vorane/remise-vorane --version) || statut=$?
[ "$statut" = 1 ] && [ "$ligne" = "remise-vorane version ${version%%-*} pour Cyrus (LMTP)" ] ||
  echec "--version: statut $statut, \"$ligne\""
echo "programme installe : /usr/lib/vorane/remise-vorane --version -> $ligne"
page=$(man -w remise-vorane 2>/dev/null) || echec "man ne trouve pas remise-vorane(8)"
echo "page de manuel : $page"

# 3. Another pipe user, chosen through debconf: the spool's files go to it.
frequence="$SPOOL/Absences/AvisAbs..essai..paquet@x.test.txt"
runuser -u vorane -- touch "$frequence"
echo "remise-vorane remise-vorane/utilisateur string nobody" | debconf-set-selections
journal dpkg-reconfigure -f noninteractive remise-vorane
grep -q 'dpkg-reconfigure remise-vorane' /etc/tmpfiles.d/remise-vorane.conf 2>/dev/null ||
  echec "pas de copie de l'entree tmpfiles.d pour nobody dans /etc/tmpfiles.d/"
verifie_spool nobody
[ "$(stat -c %U "$frequence")" = nobody ] || echec "$frequence reste a $(stat -c %U "$frequence")"
rm -f "$frequence"

# 4. Purge.
journal dpkg --purge remise-vorane
[ ! -e /usr/lib/vorane/remise-vorane ] || echec "le programme reste apres la purge"
[ ! -e /etc/tmpfiles.d/remise-vorane.conf ] || echec "la copie de l'entree tmpfiles.d reste apres la purge"
echo "paquet purge; le spool est remis comme il etait"
