#!/usr/bin/env bash
# Fails when a file under src/ includes a header of a folder on a higher
# floor than its own.  The house, ground floor first:
#
#   1 core     platform layer, pools, handle tables and the objects they
#              hold, paths, the global state and lock set, assertion report
#   2 debug    formatter, trace, dumps, time stamps
#   3 sched    chunk tree, chunker, schedulers, execution
#   4 io       filter chain, native layer, overlays
#   5 archive, cache
#              the two filters; neither knows the other
#   6 api      the exported entry points, initialisation, operations
#
# Above them stand tools/, bench/ and tests/, which may include anything;
# include/kest2.h, the public header, is below everything.  A floor learns
# what stands above it by being handed it at initialisation (the engine's
# root completion, tree filter and I/O runner), never by including it.
#
#   scripts/check-layers.sh [SOURCE_DIR]   (default: the repository's src)
set -euo pipefail
SRC=${1:-"$(dirname "$0")/../src"}
cd "$SRC"

declare -A FLOOR=([core]=1 [debug]=2 [sched]=3 [io]=4 [archive]=5 [cache]=5 [api]=6)

# Includes that the design needs although they point up, with the reason.
EXCEPTIONS=(
  # The statistics entry points stand with the other developer tools, but
  # what they report is counted above them: chunk storage and scheduler
  # queues (sched), the RAM cache's blocks (cache).
  "debug/statistics.cc -> sched/chunk_tree.h"
  "debug/statistics.cc -> sched/scheduler.h"
  "debug/statistics.cc -> cache/ram_cache.h"
)

status=0
for folder in "${!FLOOR[@]}"; do
  [[ -d "$folder" ]] || { echo "src/$folder: a floor without a folder"; status=1; }
done
for dir in */; do
  folder=${dir%/}
  [[ -n "${FLOOR[$folder]:-}" ]] || { echo "src/$folder: a folder on no floor; add it above"; status=1; }
done

while IFS= read -r file; do
  file=${file#./}
  from=${file%%/*}
  while IFS= read -r header; do
    to=${header%%/*}
    [[ "$to" == "$from" || "$header" != */* ]] && continue
    edge="$file -> $header"
    if [[ -z "${FLOOR[$to]:-}" ]]; then
      echo "src/$edge: includes a folder on no floor"
      status=1
    elif (( FLOOR[$to] >= FLOOR[$from] )); then
      excepted=0
      for allowed in "${EXCEPTIONS[@]}"; do
        [[ "$edge" == "$allowed" ]] && excepted=1
      done
      if (( !excepted )); then
        echo "src/$edge: floor ${FLOOR[$from]} ($from) includes floor ${FLOOR[$to]} ($to)"
        status=1
      fi
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find . -name '*.cc' -o -name '*.h' | sort)

if [[ $status -ne 0 ]]; then
  echo "A floor may include only the floors below it.  Hand what it needs from above"
  echo "down at initialisation, or move the code to the floor it belongs on."
fi
exit $status
