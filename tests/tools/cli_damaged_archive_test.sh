#!/usr/bin/env bash
# Feeds damaged archives to `kest2 ls`, `kest2 cat`, `kest2 verify` and
# `kest2 unpack`: every truncation of a small packed archive ("truncate"), or
# single-byte flips ("flip") of every byte that sizes the mount and at
# positions and values drawn from a fixed seed.  Every run must end within
# its time limit with exit 0, or exit 1 and a "kest2 COMMAND: PATH: CODE"
# line (verify and unpack may name damage they find themselves in words
# instead); a signal, a hang, a sanitizer report or a usage exit fails the
# test.  A truncated archive is missing some file's bytes, so `cat` of every
# file, `verify` and `unpack` must fail; and an archive that `verify` passes
# must list, read and unpack.  The archive of a failing run is kept in WORK.
#   cli_damaged_archive_test.sh KEST2 WORK truncate|flip
set -u

kest2=$1
work=$2
mode=$3
rm -rf "$work"
mkdir -p "$work/tree"
cd "$work" || exit 1

# The tree: a stored six-byte file, a compressible file of three blocks
# and a file whose first block does not compress.  Fixed contents, so the
# archive and any reproducer are the same on every run.
printf 'hello\n' > tree/a.txt
for i in $(seq 20); do printf 'line %02d of a text that compresses\n' "$i"; done > tree/b.txt
RANDOM=7
bytes=''
for i in $(seq 260); do bytes+=$(printf '\\x%02x' $((RANDOM % 256))); done
printf "$bytes" > tree/c.bin
"$kest2" pack --block-size 256 tree packed.zorba > /dev/null || { echo "pack failed"; exit 1; }
expected_listing=$("$kest2" ls packed.zorba)

# The archive as printf escapes, one per byte, so that the damaged copies
# are written without a process per case.
escapes=()
for byte in $(od -An -v -tx1 packed.zorba); do escapes+=("\\x$byte"); done
size=${#escapes[@]}

failures=0
# judge WHAT COMMAND CODE MUST_FAIL: the verdict on one finished run, whose
# output is in COMMAND.out and COMMAND.err.
judge() {
  local what=$1 command=$2 code=$3 must_fail=$4 problem='' text=''
  local words='[a-z].*\ \(ZUL_KEST_ERROR_[A-Z_]+\)'
  if [[ $command == verify || $command == unpack ]]; then words='[a-zA-Z].*'; fi
  # Read with builtins: a process per check would double the run time.
  IFS= read -r -d '' text < "$command.err"
  if [ "$code" -eq 124 ]; then
    problem='did not finish in 10 s'
  elif [[ $text == *Sanitizer* || $text == *'runtime error'* ]]; then
    problem='sanitizer report'
  elif [ "$code" -gt 1 ]; then
    problem="exit $code"
  elif [ "$code" -eq 1 ] && ! [[ $text =~ (^|$'\n')kest2\ $command:\ [^\ ].*:\ $words ]]; then
    problem='exit 1 without an error line'
  elif [ "$code" -eq 0 ] && [ "$must_fail" = yes ]; then
    problem='exit 0'
  fi
  if [ -n "$problem" ]; then
    failures=$((failures + 1))
    cp damaged.zorba "failed-$failures.zorba"
    echo "$what: kest2 $command: $problem (archive kept as $work/failed-$failures.zorba)"
    head -n 5 "$command.err"
  fi
}

# check WHAT MUST_FAIL: lists damaged.zorba, reads every file from it,
# verifies it and unpacks it, the four runs side by side.  MUST_FAIL applies
# to all but the listing.
check() {
  timeout 10 "$kest2" ls damaged.zorba > ls.out 2> ls.err &
  local ls_pid=$!
  timeout 10 "$kest2" verify damaged.zorba > verify.out 2> verify.err &
  local verify_pid=$!
  rm -rf unpacked
  timeout 10 "$kest2" unpack damaged.zorba unpacked > unpack.out 2> unpack.err &
  local unpack_pid=$!
  timeout 10 "$kest2" cat damaged.zorba a.txt b.txt c.bin > cat.out 2> cat.err
  local cat_code=$?
  wait $ls_pid
  local ls_code=$?
  wait $verify_pid
  local verify_code=$?
  wait $unpack_pid
  local unpack_code=$?
  judge "$1" ls $ls_code no
  judge "$1" cat $cat_code "$2"
  judge "$1" verify $verify_code "$2"
  judge "$1" unpack $unpack_code "$2"
  if [ $verify_code -eq 0 ] && [ $((ls_code + cat_code + unpack_code)) -ne 0 ]; then
    failures=$((failures + 1))
    cp damaged.zorba "failed-$failures.zorba"
    echo "$1: verify passed an archive that ls ($ls_code), cat ($cat_code) or unpack" \
      "($unpack_code) failed on (archive kept as $work/failed-$failures.zorba)"
  fi
}

write_damaged() {  # the escapes given, as damaged.zorba
  local IFS=''
  printf "$*" > damaged.zorba
}

case $mode in
  truncate)
    for ((length = 0; length < size; ++length)); do
      write_damaged "${escapes[@]:0:length}"
      check "cut to $length bytes" yes
    done
    runs=$((4 * size))
    ;;
  flip)
    # Every byte of the header and of the manifest's entry, which size the
    # mount, turned to its complement and its top bit flipped; then
    # positions and values drawn from a fixed seed anywhere in the file.
    head_bytes=78
    runs=0
    RANDOM=2024
    for ((i = 0; i < 2 * head_bytes + 250; ++i)); do
      if ((i < 2 * head_bytes)); then
        position=$((i / 2))
        mask=$((i % 2 ? 0x80 : 0xff))
      else
        position=$(((RANDOM * 32768 + RANDOM) % size))
        mask=$((RANDOM % 255 + 1))
      fi
      damaged=("${escapes[@]}")
      printf -v 'damaged[position]' '\\x%02x' $((0x${escapes[position]#\\x} ^ mask))
      write_damaged "${damaged[@]}"
      check "byte $position xor $mask" no
      runs=$((runs + 4))
    done
    ;;
  *)
    echo "unknown mode $mode"
    exit 2
    ;;
esac

# The sweep means nothing if the undamaged archive does not read.
write_damaged "${escapes[@]}"
rm -rf unpacked
if [ "$("$kest2" ls damaged.zorba)" != "$expected_listing" ] ||
  ! "$kest2" verify damaged.zorba > /dev/null ||
  ! "$kest2" unpack damaged.zorba unpacked > /dev/null || ! diff -r tree unpacked ||
  ! "$kest2" cat damaged.zorba a.txt b.txt c.bin | cmp -s - <(cat tree/a.txt tree/b.txt tree/c.bin); then
  echo "the undamaged archive does not read back"
  failures=$((failures + 1))
fi

echo "$runs runs on a $size-byte archive, $failures failed"
if [ $failures -ne 0 ]; then exit 1; fi
cd / && rm -rf "$work"
