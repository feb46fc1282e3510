#!/usr/bin/env bash
# Checks that `cmake --install` gives a usable package:
#   ./scripts/check-install.sh
# builds the library and the kest2 program in build-install, installs them
# into a temporary prefix, then builds tests/install/consumer against that
# prefix twice over, each time linked statically and dynamically:
#   - with CMake:      find_package(kest2) through CMAKE_PREFIX_PATH;
#   - with pkg-config: `pkg-config --cflags --libs kest2` through
#                      PKG_CONFIG_PATH (--static for the static link);
# and runs the four programs and the installed kest2.  Any failure fails the
# script.  INSTALL_JOBS (default: processors) sets the parallel jobs;
# KEST2_KEEP_INSTALL=1 keeps the temporary directory.
set -euo pipefail
cd "$(dirname "$0")/.."

JOBS=${INSTALL_JOBS:-$(nproc 2>/dev/null || echo 2)}
DIR=build-install
CONSUMER=tests/install/consumer

# Only what is missing: under CI, test.sh has refreshed the packages already.
KEST2_FORCE_APT=0 ./scripts/install-deps.sh
command -v pkg-config >/dev/null || { echo "check-install.sh: pkg-config is required" >&2; exit 2; }

WORK=$(mktemp -d "${TMPDIR:-/tmp}/kest2-install.XXXXXX")
if [[ "${KEST2_KEEP_INSTALL:-0}" == 1 ]]; then
  echo "(keeping ${WORK})"
else
  trap 'rm -rf "$WORK"' EXIT
fi
PREFIX="$WORK/prefix"

fail() {
  echo "check-install.sh: $*" >&2
  exit 1
}

echo "=== ${DIR}: configure and build ==="
# The configure-time prefix is never written to: the install below goes to
# --prefix, which the installed package files must follow.
cmake -S . -B "$DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKEST2_BUILD_TESTS=OFF -DKEST2_BUILD_BENCHMARKS=OFF -DKEST2_BUILD_TOOLS=ON \
  -DCMAKE_INSTALL_PREFIX=/nonexistent/kest2 >/dev/null
cmake --build "$DIR" -j "$JOBS"

echo "=== ${DIR}: install into ${PREFIX} ==="
cmake --install "$DIR" --prefix "$PREFIX"

# The files a user relies on, wherever GNUInstallDirs put the libraries.
for f in include/kest2.h include/kest2_timeline.h include/kest2_scheduling.h include/kest2_version.h bin/kest2; do
  [[ -f "$PREFIX/$f" ]] || fail "not installed: $f"
done
for pattern in libkest2.a libkest2.so 'libkest2.so.*' kest2Config.cmake \
               kest2ConfigVersion.cmake kest2Targets.cmake kest2.pc; do
  [[ -n "$(find "$PREFIX" -name "$pattern" -print -quit)" ]] || fail "not installed: $pattern"
done
# Nothing installed may point back into the source or build tree.
if grep -rlF -e "$PWD" -e /nonexistent/kest2 "$PREFIX" --include='*.cmake' --include='*.pc' --include='*.h'; then
  fail "installed files above name the build tree or the configure-time prefix"
fi
"$PREFIX/bin/kest2" --help >/dev/null || fail "the installed kest2 program does not run"

PC_FILE=$(find "$PREFIX" -name kest2.pc -print -quit)
export PKG_CONFIG_PATH="$(dirname "$PC_FILE")"

# Dynamic or static: whether the program asks the loader for libkest2.so.
check_link() {
  local exe=$1 kind=$2
  local needs=no
  if readelf -d "$exe" | grep -q 'NEEDED.*\[libkest2\.so'; then needs=yes; fi
  case "$kind:$needs" in
    static:no | shared:yes) ;;
    static:yes) fail "$exe should hold the static library but needs libkest2.so" ;;
    shared:no) fail "$exe should need libkest2.so" ;;
  esac
}

run() {
  echo "\$ $*"
  "$@" || fail "$1 failed (status $?)"
}

echo "=== consumer: CMake package (CMAKE_PREFIX_PATH) ==="
cmake -S "$CONSUMER" -B "$WORK/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$PREFIX" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
cmake --build "$WORK/cmake" -j "$JOBS"
check_link "$WORK/cmake/kest2_consumer" static
check_link "$WORK/cmake/kest2_consumer_shared" shared
run "$WORK/cmake/kest2_consumer" "$WORK"
run "$WORK/cmake/kest2_consumer_shared" "$WORK"

echo "=== consumer: pkg-config (PKG_CONFIG_PATH) ==="
CC=${CC:-cc}
echo "kest2 $(pkg-config --modversion kest2): cflags $(pkg-config --cflags kest2)"
echo "  libs $(pkg-config --libs kest2)"
echo "  static libs $(pkg-config --static --libs kest2)"
read -r -a cflags <<<"$(pkg-config --cflags kest2)"
read -r -a libs <<<"$(pkg-config --libs kest2)"
LIBDIR=$(pkg-config --variable=libdir kest2)
mkdir -p "$WORK/pkgconfig"
# Dynamic: -lkest2 finds libkest2.so; the rpath stands in for an
# ldconfig'd libdir.
set -x
"$CC" -Wall -Wextra "${cflags[@]}" "$CONSUMER/consumer.c" -o "$WORK/pkgconfig/kest2_consumer_shared" \
  "${libs[@]}" "-Wl,-rpath,$LIBDIR"
{ set +x; } 2>/dev/null
# Static: --static adds the private libraries (zlib, threads, the C++
# runtime).  -lkest2 would still pick libkest2.so where both are installed,
# so the archive is named by its file name.
read -r -a static_libs <<<"$(pkg-config --static --libs kest2)"
for i in "${!static_libs[@]}"; do
  if [[ "${static_libs[$i]}" == -lkest2 ]]; then static_libs[$i]=-l:libkest2.a; fi
done
set -x
"$CC" -Wall -Wextra "${cflags[@]}" "$CONSUMER/consumer.c" -o "$WORK/pkgconfig/kest2_consumer" \
  "${static_libs[@]}"
{ set +x; } 2>/dev/null
check_link "$WORK/pkgconfig/kest2_consumer" static
check_link "$WORK/pkgconfig/kest2_consumer_shared" shared
run "$WORK/pkgconfig/kest2_consumer" "$WORK"
run "$WORK/pkgconfig/kest2_consumer_shared" "$WORK"

echo "Install check passed."
