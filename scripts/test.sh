#!/usr/bin/env bash
# Installs what is missing, compiles the library with clang's thread-safety
# analysis as errors, then builds and runs every test twice: a normal build
# and an AddressSanitizer + UndefinedBehaviorSanitizer build.
#   KEST2_TSAN=1 adds a ThreadSanitizer build and run.
#   KEST2_FUZZ_SECONDS=N adds the fuzz targets (archives, the path layer),
#   built with clang in build-fuzz and run for N seconds each
#   (scripts/fuzz.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

JOBS=$(nproc 2>/dev/null || echo 2)

run_suite() {
  local dir=$1; shift
  echo "=== ${dir}: configure and build ==="
  cmake -S . -B "$dir" -G Ninja -DKEST2_BUILD_BENCHMARKS=OFF "$@"
  cmake --build "$dir" -j "$JOBS"
  echo "=== ${dir}: tests ==="
  # The tests watch themselves for hangs (tests/test_watchdog.cc); the
  # timeout covers the programs CTest runs directly.
  ctest --test-dir "$dir" --output-on-failure -j "$JOBS" --timeout 900
}

echo "=== build-thread-safety: the lock annotations, checked by clang ==="
CC=clang CXX=clang++ cmake -S . -B build-thread-safety -G Ninja -DKEST2_THREAD_SAFETY=ON \
  -DKEST2_BUILD_TESTS=OFF -DKEST2_BUILD_TOOLS=OFF -DKEST2_BUILD_BENCHMARKS=OFF
cmake --build build-thread-safety -j "$JOBS" --target kest2_objects

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
INSTALL_JOBS="$JOBS" ./scripts/check-install.sh
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan -DCMAKE_BUILD_TYPE=Debug "-DKEST2_SANITIZE=address;undefined"
if [[ "${KEST2_TSAN:-0}" == 1 ]]; then
  TSAN_OPTIONS=halt_on_error=1 \
    run_suite build-tsan -DCMAKE_BUILD_TYPE=Debug -DKEST2_SANITIZE=thread
fi
if [[ -n "${KEST2_FUZZ_SECONDS:-}" ]]; then
  FUZZ_JOBS="$JOBS" ./scripts/fuzz.sh "$KEST2_FUZZ_SECONDS"
fi
echo "All test suites passed."
