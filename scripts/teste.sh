#!/usr/bin/env bash
# Sets up the machine and runs every test:
#   1. the suite on the normal build (build/);
#   2. the Debian package built from that tree and checked on this machine:
#      it carries the binary the suite tested, installs, prepares the spool,
#      runs (scripts/paquet.sh --verifie; root only);
#   3. the same suite on an AddressSanitizer + UndefinedBehaviorSanitizer
#      build, failing on any sanitizer report (the reports of the program's
#      own child processes included: they are collected in files);
#   4. a short run of every fuzz target (clang + libFuzzer) on its corpus.
# VORANE_FUZZ_SECONDES sets the length of each fuzz run (default 10; 0 skips).
#
# The terminal gets what was built, what ran and what passed (ctest's
# summary of each suite, and the output of any test that failed); what the
# installations, builds and test programs print goes to
# build-journal/teste.log, whose end is shown when a step fails.
set -euo pipefail
racine=$(cd "$(dirname "$0")/.." && pwd)
cd "$racine"
debut=$(date +%s)
. scripts/journal.sh
journal_ouvre teste

etape() { printf '\n==== %s (%ds)\n' "$1" $(( $(date +%s) - debut )); }

# Configures and builds one tree, then says what was built.
construit() {
  local rep=$1 lignes
  shift
  journal cmake -S . -B "$rep" -G Ninja "$@"
  lignes=$(wc -l <"$VORANE_JOURNAL")
  journal ninja -C "$rep"
  local n
  n=$(tail -n +"$lignes" "$VORANE_JOURNAL" | grep -c '^\[[0-9]*/[0-9]*\] ' || true)
  echo "$rep/ : $n etape(s) de construction$([ "$n" != 0 ] || echo ' (tout etait a jour)'), $(find "$rep/tests" -maxdepth 1 -name 'test_*' -type f -executable | wc -l) programmes de test"
}

# Runs the suite of one tree.  Prints ctest's summary as ctest writes it
# and, when tests fail, the output of each failed test.
teste_arbre() {
  local rep=$1 sortie statut=0
  sortie=$rep/ctest-sortie.log
  (cd "$rep" && ctest --output-on-failure -j2) </dev/null >"$sortie" 2>&1 || statut=$?
  { printf '\n$ (cd %s && ctest --output-on-failure -j2)\n' "$rep"; cat "$sortie"; } >>"$VORANE_JOURNAL"
  if [ "$statut" -ne 0 ]; then
    echo "Sorties des tests en echec:"
    awk '/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: / { montre = /\*\*\*/; if (montre) print; next }
         /^ *Start +[0-9]+: / || /tests passed, / { montre = 0 }
         montre { print "    " $0 }' "$sortie" | head -n 400
  fi
  sed -n '/tests passed, /,$p' "$sortie" | sed '/^$/d'
  return "$statut"
}

etape "preparation de la machine"
bash scripts/installe-dependances.sh

etape "construction normale"
construit build -DCMAKE_BUILD_TYPE=RelWithDebInfo
etape "tests, construction normale"
teste_arbre build

if [ "$(id -u)" -eq 0 ]; then
  etape "paquet Debian construit depuis build/, installe et verifie"
  bash scripts/paquet.sh --verifie
else
  etape "paquet Debian : verification sautee (pas root)"
fi

etape "construction ASan + UBSan"
construit build-asan -DCMAKE_BUILD_TYPE=Debug -DVORANE_SANITIZE=ON -DVORANE_BENCH=OFF
rapports="$racine/build-asan/rapports-sanitizers"
rm -rf "$rapports" && mkdir -p "$rapports"
# The program leaves what it allocates to process exit by design; leak
# reports are therefore not asked for.  Every other report fails the run.
export ASAN_OPTIONS="detect_leaks=0:abort_on_error=0:log_path=$rapports/asan"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:log_path=$rapports/ubsan"
etape "tests, construction ASan + UBSan"
teste_arbre build-asan
if [ -n "$(ls -A "$rapports")" ]; then
  echo "Rapports des sanitizers:"
  for f in "$rapports"/*; do echo "--- $f"; head -60 "$f"; done
  exit 1
fi
unset ASAN_OPTIONS UBSAN_OPTIONS

secondes=${VORANE_FUZZ_SECONDES:-10}
if [ "$secondes" -gt 0 ]; then
  etape "fuzzing (${secondes}s par cible)"
  bash scripts/fuzz.sh "$secondes"
fi

etape "fin: tout est passe"
