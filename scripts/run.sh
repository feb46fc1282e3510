#!/usr/bin/env bash
# Installs what is missing, builds the library and its programs, and runs
# the kest2 command-line program.  With arguments they are handed to kest2
# ("./scripts/run.sh ls /etc"); without, it shows a short tour of the
# commands on this repository's own files.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)"

if [ "$#" -gt 0 ]; then
  exec ./build/kest2 "$@"
fi

tour() {
  echo "\$ kest2 $*"
  ./build/kest2 "$@" || echo "(exit status $?)"
  echo
}
tour --help
tour ls .
tour stat README.md include/kest2.h
tour cp README.md build/README.copy
tour --stats cat .ci/run
