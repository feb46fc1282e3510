#!/usr/bin/env bash
# Installs what is missing, builds the library and its programs, and runs
# the kest2 command-line program.  With arguments they are handed to kest2
# ("./scripts/run.sh ls /etc"); without, it runs "kest2 demo".
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)"

if [ "$#" -gt 0 ]; then
  exec ./build/kest2 "$@"
fi
# The demo makes its own data set in a temporary directory: a packed archive
# under an overlay, a RAM cache, every file streamed back with deadlines and
# checked byte for byte.
exec ./build/kest2 demo
