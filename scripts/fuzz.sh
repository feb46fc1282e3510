#!/usr/bin/env bash
# Builds the archive fuzz target with clang in build-fuzz and runs it for
# SECONDS (default 60) over the seed archives of tests/fuzz/corpus:
#   ./scripts/fuzz.sh [SECONDS]
# The inputs it finds collect in build-fuzz/corpus (the checked-in seeds are
# never written).  A crash, hang, sanitizer report or leaked handle leaves
# its input in build-fuzz/artifacts/ and makes the script fail; replay one
# with  build-fuzz/tests/fuzz/kest2_archive_fuzz ARTIFACT.
# FUZZ_JOBS (default: processors) sets the build's parallel jobs.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_TO_RUN=${1:-60}
if ! [[ "$SECONDS_TO_RUN" =~ ^[0-9]+$ ]] || [[ "$SECONDS_TO_RUN" -eq 0 ]]; then
  echo "usage: $0 [SECONDS]" >&2
  exit 2
fi
JOBS=${FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}
DIR=build-fuzz

# Only what is missing: under CI, test.sh has refreshed the packages already.
KEST2_FORCE_APT=0 ./scripts/install-deps.sh
command -v clang++ >/dev/null || { echo "fuzz.sh: clang++ is required" >&2; exit 2; }

echo "=== ${DIR}: configure and build kest2_archive_fuzz ==="
cmake -S . -B "$DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DKEST2_FUZZ=ON -DKEST2_BUILD_TOOLS=OFF -DKEST2_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$DIR" -j "$JOBS" --target kest2_archive_fuzz

FUZZER="$DIR/tests/fuzz/kest2_archive_fuzz"
mkdir -p "$DIR/corpus" "$DIR/artifacts"
cp tests/fuzz/corpus/* "$DIR/corpus/"
LOG="$DIR/fuzz.log"
# The target writes each input to a file in a temporary directory, which a
# crash or timeout leaves behind: keep those in the build directory.
FUZZ_TMP="$PWD/$DIR/tmp"
rm -rf "$FUZZ_TMP"
mkdir -p "$FUZZ_TMP"

echo "=== ${DIR}: fuzzing for ${SECONDS_TO_RUN} s (log in ${LOG}) ==="
# The library's threads outlive each input; leak checks stay on for the
# harness's and the library's allocations.  32 KiB inputs leave room for
# TOCs of hundreds of entries and for block rows longer than a block.
status=0
TMPDIR="$FUZZ_TMP" ASAN_OPTIONS=abort_on_error=1:detect_leaks=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  "$FUZZER" -max_total_time="$SECONDS_TO_RUN" -timeout=10 -rss_limit_mb=2048 \
    -max_len=32768 -print_final_stats=1 -artifact_prefix="$DIR/artifacts/" \
    "$DIR/corpus" >"$LOG" 2>&1 || status=$?

if [[ $status -ne 0 ]]; then
  # The report, from its first line on (the progress lines before it are
  # in the log).
  sed -n '/^==[0-9]*==\|^ALARM\|^archive_fuzz: \|^ERROR\|runtime error/,$p' "$LOG" | head -n 150
  echo "fuzz.sh: the fuzz target failed (status $status); inputs in $DIR/artifacts/" >&2
  exit 1
fi
grep -E '^(#[0-9]+ +DONE|Done [0-9]+ runs|stat::)' "$LOG" || tail -n 5 "$LOG"
echo "Fuzzing passed."
