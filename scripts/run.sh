#!/usr/bin/env bash
# Installs what is missing, builds the library and runs the main program.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)"
exec ./build/kest2_example "$@"
