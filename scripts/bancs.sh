#!/usr/bin/env bash
# Builds and runs every benchmark (bench/*.cpp); each prints its figures and
# the comparison it makes.  bench_demarrage needs valgrind and GNU time,
# installed with the rest of the dependencies.  The installation's and the
# build's output go to the log (scripts/journal.sh).
set -euo pipefail
racine=$(cd "$(dirname "$0")/.." && pwd)
cd "$racine"
. scripts/journal.sh
journal_ouvre bancs
bash scripts/installe-dependances.sh
journal cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
journal ninja -C build
for source in bench/*.cpp; do
  [ -e "$source" ] || continue
  banc=$(basename "$source" .cpp)
  echo "== $banc"
  "build/bench/$banc"
done
