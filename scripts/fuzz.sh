#!/usr/bin/env bash
# Builds the fuzz targets with clang in build-fuzz and runs each of them for
# SECONDS (default 60):
#   ./scripts/fuzz.sh [SECONDS]
#   kest2_archive_fuzz  whole archives, from the seed archives of tests/fuzz/corpus
#   kest2_path_fuzz     the path layer (normalisation, overlays, archive
#                       lookups), from the programs of tests/fuzz/path_corpus
# FUZZ_TARGETS (default "archive path") picks the targets, e.g.
#   FUZZ_TARGETS=path ./scripts/fuzz.sh 300
# The inputs they find collect in build-fuzz/corpus and build-fuzz/path_corpus
# (the checked-in seeds are never written).  A crash, hang, sanitizer report
# or leaked handle leaves its input in build-fuzz/artifacts/ (the path
# target's named path-*) and makes the script fail, after every chosen
# target has run; replay one with
#   build-fuzz/tests/fuzz/kest2_archive_fuzz ARTIFACT
#   build-fuzz/tests/fuzz/kest2_path_fuzz ARTIFACT
# (KEST2_FUZZ_VERBOSE=1 prints the steps).
# FUZZ_JOBS (default: processors) sets the build's parallel jobs.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_TO_RUN=${1:-60}
if ! [[ "$SECONDS_TO_RUN" =~ ^[0-9]+$ ]] || [[ "$SECONDS_TO_RUN" -eq 0 ]]; then
  echo "usage: $0 [SECONDS]" >&2
  exit 2
fi
TARGETS=${FUZZ_TARGETS:-archive path}
for target in $TARGETS; do
  case "$target" in
    archive | path) ;;
    *)
      echo "fuzz.sh: unknown target '$target' in FUZZ_TARGETS (archive, path)" >&2
      exit 2
      ;;
  esac
done
JOBS=${FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}
DIR=build-fuzz

# Only what is missing: under CI, test.sh has refreshed the packages already.
KEST2_FORCE_APT=0 ./scripts/install-deps.sh
command -v clang++ >/dev/null || { echo "fuzz.sh: clang++ is required" >&2; exit 2; }

build_targets=()
for target in $TARGETS; do build_targets+=("kest2_${target}_fuzz"); done
echo "=== ${DIR}: configure and build ${build_targets[*]} ==="
cmake -S . -B "$DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DKEST2_FUZZ=ON -DKEST2_BUILD_TOOLS=OFF -DKEST2_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$DIR" -j "$JOBS" --target "${build_targets[@]}"
mkdir -p "$DIR/artifacts"

# Runs one target: NAME CORPUS SEEDS LOG ARTIFACT_PREFIX REPORT_TAG OPTIONS...
# Returns the fuzzer's status.
run_target() {
  local name=$1 corpus=$2 seeds=$3 log=$4 prefix=$5 tag=$6
  shift 6
  mkdir -p "$corpus"
  cp "$seeds"/* "$corpus/"
  # The targets write their files below a temporary directory, which a crash
  # or timeout leaves behind: keep those in the build directory.
  local tmp="$PWD/$DIR/tmp/$name"
  rm -rf "$tmp"
  mkdir -p "$tmp"
  echo "=== ${DIR}: fuzzing ${name} for ${SECONDS_TO_RUN} s (log in ${log}) ==="
  # The library's threads outlive each input; leak checks stay on for the
  # harness's and the library's allocations.
  local status=0
  TMPDIR="$tmp" ASAN_OPTIONS=abort_on_error=1:detect_leaks=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$DIR/tests/fuzz/$name" -max_total_time="$SECONDS_TO_RUN" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$prefix" "$@" "$corpus" >"$log" 2>&1 || status=$?
  if [[ $status -ne 0 ]]; then
    # The report, from its first line on (the progress lines before it are
    # in the log).
    sed -n "/^==[0-9]*==\|^ALARM\|^${tag}: \|^ERROR\|runtime error/,\$p" "$log" | head -n 150
    echo "fuzz.sh: ${name} failed (status $status); inputs in $DIR/artifacts/" >&2
    return "$status"
  fi
  grep -E '^(#[0-9]+[[:space:]]+DONE|Done [0-9]+ runs|stat::)' "$log" || tail -n 5 "$log"
  return 0
}

failed=0
for target in $TARGETS; do
  case "$target" in
    archive)
      # 32 KiB inputs leave room for TOCs of hundreds of entries and for
      # block rows longer than a block.
      run_target kest2_archive_fuzz "$DIR/corpus" tests/fuzz/corpus "$DIR/fuzz.log" \
        "$DIR/artifacts/" archive_fuzz -max_len=32768 || failed=1
      ;;
    path)
      # 4 KiB programs hold paths beyond pathMax (1024) and the overlay
      # fields (292 bytes) several times over.
      run_target kest2_path_fuzz "$DIR/path_corpus" tests/fuzz/path_corpus "$DIR/path_fuzz.log" \
        "$DIR/artifacts/path-" path_fuzz -max_len=4096 -dict=tests/fuzz/path.dict || failed=1
      ;;
  esac
done
if [[ $failed -ne 0 ]]; then
  echo "fuzz.sh: a fuzz target failed; inputs in $DIR/artifacts/" >&2
  exit 1
fi
echo "Fuzzing passed."
