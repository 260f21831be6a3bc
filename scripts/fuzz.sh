#!/usr/bin/env bash
# Builds the fuzz targets with clang + libFuzzer (build-fuzz/) and runs each
# for the given number of seconds (default 60) on a copy of its seed corpus.
# A crash, a sanitizer report or a time-out fails the run; the input that
# caused it is left in build-fuzz/ (crash-*, timeout-*).  One line per
# target says how many inputs ran; the build's output goes to the log
# (scripts/journal.sh), each target's to build-fuzz/<target>.log.
# One target only: scripts/fuzz.sh SECONDS fuzz_adresse
set -euo pipefail
racine=$(cd "$(dirname "$0")/.." && pwd)
cd "$racine"
. scripts/journal.sh
journal_ouvre fuzz
secondes=${1:-60}
seule=${2:-}
journal env CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVORANE_FUZZ=ON -DVORANE_TESTS=OFF -DVORANE_BENCH=OFF
journal ninja -C build-fuzz
for source in fuzz/fuzz_*.cpp; do
  cible=$(basename "$source" .cpp)
  [ -z "$seule" ] || [ "$seule" = "$cible" ] || continue
  corpus="$racine/build-fuzz/corpus-$cible"
  mkdir -p "$corpus"
  [ -d "fuzz/corpus/$cible" ] && cp -n fuzz/corpus/"$cible"/* "$corpus"/ 2>/dev/null || true
  (cd build-fuzz && ASAN_OPTIONS=detect_leaks=0 "./fuzz/$cible" -max_total_time="$secondes" \
     -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 "$corpus" >"$cible.log" 2>&1) || {
    echo "$cible: ECHEC (${secondes}s), fin de build-fuzz/$cible.log:"
    tail -40 "build-fuzz/$cible.log"; exit 1; }
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "build-fuzz/$cible.log")
  printf '%-20s %ss, %s entrees essayees, rien trouve\n' "$cible" "$secondes" "${executions:-?}"
done
