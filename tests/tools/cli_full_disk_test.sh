#!/usr/bin/env bash
# `kest2 cp` and `kest2 pack` onto a full file system: a 1 MiB tmpfs
# mounted in a temporary directory.  Each must exit 1 with one error line
# and leave the destination as it was (absent, or its old contents), with
# no temporary file behind.  Exits 77 (skipped) when no tmpfs can be
# mounted here, e.g. without the privilege to mount.
#   cli_full_disk_test.sh KEST2
set -u

kest2=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/kest2-full-disk.XXXXXX") || exit 1
full=$work/full
cleanup() {
  if mountpoint -q "$full"; then umount "$full" || umount -l "$full"; fi
  rm -rf "$work"
}
trap cleanup EXIT
mkdir "$full"
if ! error=$(mount -t tmpfs -o size=1m tmpfs "$full" 2>&1); then
  echo "skipped: cannot mount a 1 MiB tmpfs here: $error"
  exit 77
fi
umask 022

status=0
fail() {
  echo "FAILED: $*"
  status=1
}

# run WHAT EXPECTED_EXIT COMMAND...: the command's exit and its standard
# error, which must be one line matching ERROR_PATTERN (set by the caller).
run() {
  local what=$1 expected=$2
  shift 2
  "$kest2" "$@" > "$work/out" 2> "$work/err"
  local code=$?
  local lines
  lines=$(wc -l < "$work/err")
  if [ $code -ne "$expected" ]; then
    fail "$what: exit $code, wanted $expected: $(cat "$work/err")"
  elif [ "$lines" -ne 1 ] || ! grep -q -E "$error_pattern" "$work/err"; then
    fail "$what: wanted one line matching /$error_pattern/ on standard error, got:
$(cat "$work/err")"
  fi
}

# The file system holds exactly the names given, in ls order.
expect_files() {
  local listing
  listing=$(ls -A "$full" | tr '\n' ' ')
  if [ "$listing" != "$*" ]; then fail "files on the full file system: '$listing', wanted '$*'"; fi
}

mkdir "$work/tree"
head -c 3000000 /dev/urandom > "$work/tree/big.bin"  # does not compress
chmod 640 "$work/tree/big.bin"
printf 'old contents\n' > "$work/old.txt"

# cp to a new name: nothing under the name, no temporary file.
error_pattern="^kest2 cp: $full/copy.bin: out of space.*\\(ZUL_KEST_ERROR_BAD_SIZE\\)$"
run "cp to a new file" 1 cp "$work/tree/big.bin" "$full/copy.bin"
expect_files ''

# cp over an existing file: the old contents stay.
cp "$work/old.txt" "$full/kept.txt"
error_pattern="^kest2 cp: $full/kept.txt: out of space.*\\(ZUL_KEST_ERROR_BAD_SIZE\\)$"
run "cp over a file" 1 cp "$work/tree/big.bin" "$full/kept.txt"
cmp -s "$work/old.txt" "$full/kept.txt" || fail "cp over a file changed it"
expect_files 'kept.txt '

# pack, to a new name and over an archive that fits.
error_pattern="^kest2 pack: $full/new.zorba: No space left on device$"
run "pack to a new archive" 1 pack "$work/tree" "$full/new.zorba"
expect_files 'kept.txt '
mkdir "$work/small"
printf 'small\n' > "$work/small/a.txt"
"$kest2" pack "$work/small" "$full/old.zorba" > /dev/null || fail "pack of a small tree onto the tmpfs"
cp "$full/old.zorba" "$work/old.zorba"
error_pattern="^kest2 pack: $full/old.zorba: No space left on device$"
run "pack over an archive" 1 pack "$work/tree" "$full/old.zorba"
cmp -s "$work/old.zorba" "$full/old.zorba" || fail "pack over an archive changed it"
expect_files 'kept.txt old.zorba '

# What fits still copies, with the source's permission bits.
printf 'fits\n' > "$work/fits.txt"
chmod 600 "$work/fits.txt"
"$kest2" cp "$work/fits.txt" "$full/fits.txt" || fail "cp of a small file onto the tmpfs"
cmp -s "$work/fits.txt" "$full/fits.txt" || fail "cp of a small file changed the bytes"
mode=$(stat -c %a "$full/fits.txt")
[ "$mode" = 600 ] || fail "cp gave mode $mode to a copy of a 600 file"

exit $status
