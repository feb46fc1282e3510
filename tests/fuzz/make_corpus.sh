#!/usr/bin/env bash
# Regenerates the checked-in seed archives in tests/fuzz/corpus with the
# packer:  tests/fuzz/make_corpus.sh [KEST2_BINARY]   (default build/kest2)
#
# Each seed is a small valid archive (under 20 KiB) that reaches a different
# part of the reader: compressed blocks with a block offset checkpoint and a
# raw partial last block (300-byte blocks: two-byte rows, so that one changed
# row can claim more than a block), version 1 headers with one-byte rows, an
# unsorted TOC and case-insensitive names, stored entries with absolute
# names, 4 KiB blocks in a deeper tree, and the default 64 KiB blocks; and
# damaged copies of the 4 KiB one (damage_seeds.py, needs python3) whose
# first block's stream fails each way an inflater can.  The file
# contents are pseudo-random but fixed by awk's seeds, so a rerun with the
# same awk gives the same archives.
set -euo pipefail
cd "$(dirname "$0")/../.."
KEST2=${1:-build/kest2}
OUT=tests/fuzz/corpus
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
export LC_ALL=C

# text FILE BYTES SEED: compressible lines.
text() {
  mkdir -p "$(dirname "$1")"
  awk -v n="$2" -v s="$3" 'BEGIN { srand(s); out = "";
    while (length(out) < n) out = out "line " int(rand() * 40) " of the kest2 seed\n";
    printf "%s", substr(out, 1, n) }' >"$1"
}
# noise FILE BYTES SEED: bytes that do not compress.
noise() {
  mkdir -p "$(dirname "$1")"
  awk -v n="$2" -v s="$3" 'BEGIN { srand(s); for (i = 0; i < n; ++i) printf "%c", int(rand() * 256) }' >"$1"
}

pack() {  # NAME DIR OPTIONS...
  local name=$1 dir=$2
  shift 2
  "$KEST2" pack -j 1 "$@" "$dir" "$OUT/$name" >/dev/null
}

mkdir -p "$OUT"

t="$WORK/blocks300"
text "$t/a.txt" 40 1
text "$t/dir/checkpoint.txt" 6000 2  # 20 rows: reaches a checkpoint
noise "$t/dir/sub/noise.bin" 700 3   # raw blocks, raw partial last block
: >"$t/empty"
pack v3-b300.zorba "$t" --block-size 300

t="$WORK/v1"
text "$t/Mixed/Case.TXT" 3000 4
text "$t/z.txt" 100 5
text "$t/Mixed/other.txt" 700 6
pack v1-b256-unsorted-ignorecase.zorba "$t" --version 1 --block-size 256 --unsorted --ignore-case

t="$WORK/stored"
noise "$t/bin/raw.bin" 1500 7
text "$t/notes.txt" 300 8
: >"$t/bin/empty.bin"
pack stored-absolute-b512.zorba "$t" --store --absolute-paths --block-size 512

t="$WORK/b4096"
text "$t/big.txt" 14000 9
noise "$t/n.bin" 1000 10
text "$t/deep/er/still/leaf.txt" 50 11
pack v3-b4096.zorba "$t" --block-size 4096

t="$WORK/b64k"
text "$t/one.txt" 9000 12
noise "$t/two.bin" 300 13
pack v3-b64k.zorba "$t"

python3 tests/fuzz/damage_seeds.py "$OUT/v3-b4096.zorba"

ls -l "$OUT"
