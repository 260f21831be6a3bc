#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the package and the
# demo need.  Idempotent and non-interactive: packages already present are
# left alone, and nothing asks a question (the servers are never started by
# the packages; tests and the demo start their own private instances).
# Prints one line saying what it installed; apt's output goes to the log
# (scripts/journal.sh).
set -euo pipefail
racine=$(cd "$(dirname "$0")/.." && pwd)
. "$racine/scripts/journal.sh"
journal_ouvre installe-dependances

paquets=(
  build-essential g++ cmake ninja-build pkg-config
  libldap-dev libpcre2-dev libsasl2-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  clang libclang-rt-dev
  slapd ldap-utils
  cyrus-imapd cyrus-admin sasl2-bin python3
  postfix tzdata
  valgrind time
  dpkg-dev debhelper groff-base man-db
)

manquants=()
for p in "${paquets[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || manquants+=("$p")
done
if [ ${#manquants[@]} -eq 0 ]; then
  echo "paquets Debian : tout est deja installe"
  exit 0
fi
echo "paquets Debian a installer : ${manquants[*]}"

SUDO=()
[ "$(id -u)" -eq 0 ] || SUDO=(sudo)
export DEBIAN_FRONTEND=noninteractive
# Servers installed from packages must not start as system services here:
# a policy-rc.d that forbids starts keeps the machine quiet (tests start
# their own instances as plain processes).
retire_politique=0
if [ ! -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 101\n' | "${SUDO[@]}" tee /usr/sbin/policy-rc.d >/dev/null
  "${SUDO[@]}" chmod 755 /usr/sbin/policy-rc.d
  retire_politique=1
fi
printf '%s\n' "slapd slapd/no_configuration boolean true" \
  "postfix postfix/main_mailer_type select No configuration" |
  "${SUDO[@]}" debconf-set-selections
statut=0
journal "${SUDO[@]}" apt-get update -qq || statut=$?
[ "$statut" -ne 0 ] || journal "${SUDO[@]}" apt-get install -y -q --no-install-recommends \
  -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold \
  "${manquants[@]}" || statut=$?
if [ "$retire_politique" = 1 ]; then "${SUDO[@]}" rm -f /usr/sbin/policy-rc.d; fi
[ "$statut" -eq 0 ] || exit "$statut"
echo "paquets Debian installes"
