#!/usr/bin/env bash
# Sets up the machine, builds the program and runs it the way Postfix does.
set -euo pipefail
racine=$(cd "$(dirname "$0")/.." && pwd)
cd "$racine"
bash scripts/installe-dependances.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build remise-vorane
prog=build/remise-vorane

echo
echo "\$ $prog --version"
"$prog" --version || true

echo
echo "\$ $prog -decode '\"Dupont, Jean\" <Jean.Dupont@vorane.example>, autre@x.example'"
"$prog" -decode '"Dupont, Jean" <Jean.Dupont@vorane.example>, autre@x.example' || true

echo
echo "\$ printf 'From: ...' | $prog -r /tmp/lmtp.sock -l 127.0.0.1 -e Emetteur@Vorane.Example -d Dest@Vorane.Example"
set +e
printf 'From: Emetteur <emetteur@vorane.example>\nSubject: essai\n\ncorps\n' |
  "$prog" -r /tmp/lmtp.sock -l 127.0.0.1 -e Emetteur@Vorane.Example -d Dest@Vorane.Example
echo "statut de sortie: $? (75: Postfix garde le message et reessaiera)"
