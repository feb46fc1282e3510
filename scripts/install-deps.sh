#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need.  Skips the
# package manager when everything is already there, unless KEST2_FORCE_APT=1
# (CI sets it so a fresh machine always gets a current package list).
set -euo pipefail

# gdb prints the stacks of a test that hangs (tests/test_watchdog.cc);
# liburing-dev gives the in-flight benchmark its io_uring baseline,
# libphysfs-dev and zip the archive benchmark its PhysicsFS one.
PACKAGES=(cmake ninja-build g++ clang pkg-config zlib1g-dev libdeflate-dev libgtest-dev
          libgmock-dev gdb liburing-dev libphysfs-dev zip)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done

if [[ ${#missing[@]} -eq 0 && "${KEST2_FORCE_APT:-0}" != 1 ]]; then
  exit 0
fi

SUDO=""
if [[ $(id -u) -ne 0 ]]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends "${PACKAGES[@]}"
