#!/usr/bin/env bash
# Fails when a file under src/ outside the platform layer reaches the
# operating system itself: includes a header other than the C++ standard
# library's and the compression libraries', or calls a system function
# (file, descriptor, clock, thread or lock calls) by name.  The platform
# layer is src/core/platform.h, src/core/platform_posix.cc and
# src/core/system_calls.cc; everything else goes through it, so that tests
# can make the system fail through one table.
#   scripts/check-system-seam.sh [SOURCE_DIR]   (default: the repository's src)
set -euo pipefail
SRC=${1:-"$(dirname "$0")/../src"}
cd "$SRC"

PLATFORM='^(core/platform\.h|core/platform_posix\.cc|core/system_calls\.cc)$'
ALLOWED_HEADERS='^(algorithm|array|atomic|cctype|cinttypes|climits|cmath|cstdarg|cstddef|cstdint|cstdio|cstdlib|cstring|ctime|initializer_list|limits|new|type_traits|utility|zlib\.h|libdeflate\.h)$'
# Called by name, these are the system's own calls.
CALLS='(^|[^A-Za-z0-9_.>])(::)?(open|openat|close|read|write|pread|pwrite|lseek|stat|fstat|lstat|fstatat|mkdir|rmdir|unlink|rename|fsync|fdatasync|ftruncate|truncate|getdents64|syscall|ioctl|mmap|clock_gettime|gettimeofday|nanosleep|usleep|sched_yield|raise|fopen|gmtime_r|timegm)[[:space:]]*\('
CPP_PRIMITIVES='std::(mutex|recursive_mutex|shared_mutex|thread|condition_variable|lock_guard|unique_lock|this_thread)|pthread_[a-z_]+[[:space:]]*\('

status=0
while IFS= read -r file; do
  file=${file#./}
  [[ "$file" =~ $PLATFORM ]] && continue
  while IFS= read -r header; do
    if [[ ! "$header" =~ $ALLOWED_HEADERS ]]; then
      echo "src/$file: includes <$header>, a system header outside the platform layer"
      status=1
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*<\([^>]*\)>.*/\1/p' "$file")
  # Code only: comments and string literals may name the calls.
  code=$(sed -e 's://.*$::' -e 's/"\([^"\\]\|\\.\)*"/""/g' "$file")
  if hits=$(grep -nE "$CALLS|$CPP_PRIMITIVES" <<< "$code"); then
    while IFS= read -r hit; do
      echo "src/$file:${hit%%:*}: calls the system outside the platform layer: ${hit#*:}"
    done <<< "$hits"
    status=1
  fi
done < <(find . -name '*.cc' -o -name '*.h' | sort)

if [[ $status -ne 0 ]]; then
  echo "Move the call into src/core (platform.h / system_calls.h) and call it from there."
fi
exit $status
