#!/usr/bin/env bash
# Builds the benchmark programs (Release, build-bench) and runs them one
# after the other, then prints one table of kest2 against each baseline:
# plain pread, a single-thread inflate loop, PhysicsFS (when installed),
# FIFO ordering, the cache switched off, and a two-thread pread pool with
# many requests in flight (io_uring beside it in that program's report).
# Each program's own report goes to build-bench/bench-logs/.  Benchmarks
# print measurements and never fail on them; the script fails only when a
# program fails (a byte mismatch).
#
#   bench/run.sh           sizes that run in about ten minutes
#   bench/run.sh --full    each program's default sizes (longer)
set -euo pipefail
cd "$(dirname "$0")/.."

FULL=0
[[ "${1:-}" == "--full" ]] && FULL=1

./scripts/install-deps.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEST2_BUILD_BENCHMARKS=ON \
  -DKEST2_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j "$(nproc 2>/dev/null || echo 2)" \
  --target kest2_deadline_bench kest2_overhead_bench kest2_throughput_bench \
           kest2_archive_bench kest2_cache_bench kest2_inflight_bench

LOGS=build-bench/bench-logs
mkdir -p "$LOGS"
SUMMARY="$LOGS/summary.tsv"
: > "$SUMMARY"
export KEST2_BENCH_SUMMARY="$PWD/$SUMMARY"

if [[ "$FULL" == 1 ]]; then
  RUNS=("deadline" "overhead" "throughput" "archive" "cache" "inflight")
  ARGS=("" "" "" "" "" "")
else
  RUNS=("deadline" "overhead" "throughput" "archive" "cache" "inflight")
  ARGS=("--rounds=1" "" "256" "--reps=3" "32 32 --rounds=3" "256 --reps=3")
fi

for i in "${!RUNS[@]}"; do
  name=${RUNS[$i]}
  echo "=== kest2_${name}_bench ${ARGS[$i]} ==="
  start=$(date +%s)
  # shellcheck disable=SC2086
  "build-bench/bench/kest2_${name}_bench" ${ARGS[$i]} > "$LOGS/$name.log" 2>&1 || {
    echo "kest2_${name}_bench failed; see $LOGS/$name.log"
    tail -20 "$LOGS/$name.log"
    exit 1
  }
  echo "    done in $(( $(date +%s) - start )) s, report in $LOGS/$name.log"
done

echo
echo "kest2 against its baselines ($(nproc) cores, $(date -u +%Y-%m-%d))"
awk -F'\t' '
  BEGIN {
    printf "%-10s %-58s %-24s %-16s %7s  %-8s %s\n", "benchmark", "measurement", "baseline", "kest2", "ratio", "target", ""
  }
  { printf "%-10s %-58.58s %-24s %-16s %7s  %-8s %s\n", $1, $2, $3, $4, $5, $6, $7 }
' "$SUMMARY"
