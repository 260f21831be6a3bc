#!/usr/bin/env bash
# Sets up the machine and runs every test:
#   1. the suite on the normal build;
#   2. the same suite on an AddressSanitizer + UndefinedBehaviorSanitizer
#      build, failing on any sanitizer report (the reports of the program's
#      own child processes included: they are collected in files);
#   3. a short run of every fuzz target (clang + libFuzzer) on its corpus.
# VORANE_FUZZ_SECONDES sets the length of each fuzz run (default 10; 0 skips).
set -euo pipefail
racine=$(cd "$(dirname "$0")/.." && pwd)
cd "$racine"
debut=$(date +%s)

bash scripts/installe-dependances.sh

etape() { printf '\n==== %s (%ds)\n' "$1" $(( $(date +%s) - debut )); }

etape "construction normale"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build
etape "tests, construction normale"
(cd build && ctest --output-on-failure -j2)

etape "construction ASan + UBSan"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVORANE_SANITIZE=ON -DVORANE_BENCH=OFF >/dev/null
ninja -C build-asan
rapports="$racine/build-asan/rapports-sanitizers"
rm -rf "$rapports" && mkdir -p "$rapports"
# The program leaves what it allocates to process exit by design; leak
# reports are therefore not asked for.  Every other report fails the run.
export ASAN_OPTIONS="detect_leaks=0:abort_on_error=0:log_path=$rapports/asan"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:log_path=$rapports/ubsan"
etape "tests, construction ASan + UBSan"
(cd build-asan && ctest --output-on-failure -j2)
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
