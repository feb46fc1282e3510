#!/usr/bin/env bash
# Writes the hand-made seeds of the path fuzz target into
# tests/fuzz/path_corpus:  tests/fuzz/make_path_corpus.sh
#
# A seed is a program for kest2_path_fuzz (see tests/fuzz/path_fuzz.cc):
# an operation byte (its value modulo 13), then the operation's argument
# bytes and NUL-terminated strings.  A string that begins with '@' names a
# path in the target's sandbox, where archive A and, over it, B are mounted
# at @/arc, C (ignores case) at @/ic, D (absolute names) at @/abs and E,
# with loose files, at @/loose; the packed trees lie under @/src and the
# archives under @/archives.
#
# Operations and their arguments (size codes: 0-239 as they are, 240 and up
# pick 255, 256, 257, 291, 292, 293, 511, 512, 1022, 1023, 1024, 1025, 1026,
# 2048, 4096, 65536):
#   \x00 normalize  size-code path
#   \x01 compare    n a b
#   \x02 overlay add     type order flags dst src
#   \x03 overlay remove  which
#   \x04 overlay modify  which type order flags dst src
#   \x05 overlay list    length
#   \x06 resolve    forWrite size-code path
#   \x07 stat       path
#   \x08 read       offset-code length-code path
#   \x09 list       directory
#   \x0a mount      archive (0 A, 1 B, 2 C, 3 D, 4 E) mount-point
#   \x0b unmount    which
#   \x0c lookup     archive path
# Overlay flags: bit 0 leaves dst unterminated, bit 1 src, bit 6 keeps a
# negative order, bit 7 keeps a type above 3.
set -euo pipefail
cd "$(dirname "$0")"
OUT=path_corpus
rm -rf "$OUT"
mkdir -p "$OUT"

seed() {  # NAME FORMAT: FORMAT is printf's, so \0 ends a string
  printf "$2" >"$OUT/$1"
}
long() {  # N CHAR: N copies of CHAR
  printf "%${1}s" "" | tr ' ' "$2"
}

# Normalisation: the documented examples, the room rule at its edges, and
# paths around pathMax (1024).
seed norm-examples '\x00\xf0/a//b/./c/\0\x00\xf0\\a\\b\\..\\c\0\x00\xf0a/..\0\x00\xf0/../x\0\x00\xf0./../a\0'
seed norm-dots '\x00\x10../..\0\x00\x10a/b/../../..\0\x00\x20/a/b/../../../c\0\x00\x20..x/x/..y/a:b\0\x00\x08...\0'
seed norm-room '\x00\x04/abc\0\x00\x04/ab\0\x00\x04/abc/../d\0\x00\x05/abc/../d\0\x00\x00/\0\x00\x01/\0\x00\x02/\0'
seed norm-roots '\x00\x02//\0\x00\x02.\0\x00\x03.//\0\x00\x10././a\0\x00\x10.\\.\\a\\\0\x00\x08a/b///\0'
seed norm-long-component "\\x00\\xf9/$(long 300 x)/..\\0\\x00\\xf3/$(long 289 y)\\0"
seed norm-pathmax "\\x00\\xfa/$(long 1022 p)\\0\\x00\\xfa/$(long 1023 q)\\0\\x00\\xfb/$(long 1023 r)\\0"
seed norm-cutback "\\x00\\xf9/$(long 1030 c)/../d\\0\\x00\\xfa$(long 500 e)/../../f\\0"
seed compare-spellings '\x01\x20/x/../a/b\0/a//b/\0\x01\x02ab\0ac\0\x01\x05\x80\0a\0'

# Overlays: every type, orders, the table's list, and bad records.
seed overlay-opaque '\x02\x00\x01\x00@/arc/a\0@/arc/b\0\x06\x00\xfa@/arc/a/b.txt\0\x07@/arc/a/b.txt\0\x07@/arc/a\0'
seed overlay-translucent '\x02\x01\x01\x00@/arc\0@/src/A\0\x07@/arc/z\0\x07@/arc/a/c/d.txt\0\x08\x00\x10@/arc/sp ace/f\0'
seed overlay-newer '\x02\x02\x05\x00@/arc\0@/loose\0\x07@/arc/x.txt\0\x06\x00\xfa@/arc/native-only.txt\0'
seed overlay-writable '\x02\x03\x01\x00@/ic\0@/src/C\0\x06\x00\xfa@/ic/UPPER\0\x06\x01\xfa@/ic/UPPER\0\x06\x02\xfa@/ic/x\0'
seed overlay-empty-dst '\x02\x00\x01\x00\0@/loose\0\x06\x00\xfa/x.txt\0\x07/both/a\0'
seed overlay-colon '\x02\x00\x01\x00/A\0/B\0\x06\x00\x40/A:f\0\x06\x00\x40/A/f\0\x06\x00\x40/Ab\0'
seed overlay-chain '\x02\x00\x01\x00/B\0/C\0\x02\x00\x02\x00/A\0/B\0\x06\x00\x80/A/f\0\x05\x08\x02\x00\x02\x00/C\0@/arc\0\x07/A/a\0'
seed overlay-orders '\x02\x00\x05\x00/a\0/x\0\x02\x00\x03\x00/b\0/y\0\x02\x00\x05\x00/c\0/z\0\x05\x10\x04\x01\x00\x01\x00/d\0/w\0\x05\x10\x03\x00\x05\x02'
seed overlay-bad '\x02\x07\x01\x80/a\0/b\0\x02\x00\xff\x40/a\0/b\0\x02\x00\x01\x01/a\0/b\0\x02\x00\x01\x02/a\0/b\0\x02\x00\x01\x00/a\0\0\x03\xf3'
seed overlay-long "\\x02\\x00\\x01\\x00/$(long 290 d)\\0/$(long 291 s)\\0\\x02\\x00\\x01\\x00/d\\0/$(long 200 s)\\0\\x06\\x00\\xfa/d/$(long 100 f)\\0"
seed overlay-modify '\x02\x01\x01\x00@/arc\0@/src/B\0\x04\x00\x00\x09\x00@/arc/a\0@/abs\0\x07@/arc/a/bin/raw.bin\0\x03\x00\x03\x00'
seed overlay-mount '\x02\x00\x01\x00@/m\0@/arc\0\x0a\x00@/m\0\x07@/arc/z\0\x02\x00\x01\x00@/archives/A.zorba\0@/archives/B.zorba\0\x0a\x00/elsewhere\0'

# Lookups through the API in every archive.
seed stat-arc '\x07@/arc\0\x07@/arc/a\0\x07@/arc/a/b.txt\0\x07@/arc/z\0\x07@/arc/z/inner\0\x07@/arc/ab\0\x07@/arc/a/c/d.txt\0'
seed stat-names '\x07@/arc/colon:name\0\x07@/arc/sp ace/f\0\x07@/arc/dot.dir/..x\0\x07@/arc/-dash\0\x07@/arc/missing\0\x07@/arcx\0'
seed stat-case '\x07@/ic/MIXED/case.txt\0\x07@/IC/mixed\0\x07@/ic/upper\0\x07@/ic/Lower/X\0\x07@/ic/nothing\0'
seed stat-absolute '\x07@/abs/bin/raw.bin\0\x07@/abs//bin/./empty.bin\0\x07@/abs/notes.txt\0\x07@/abs/bin\0\x07@/abs/none\0'
seed stat-loose '\x07@/loose/x.txt\0\x07@/loose/native-only.txt\0\x07@/loose/both/b\0\x07@/loose/ndir/f\0\x07@/loose/only\0'
seed stat-native '\x07@\0\x07@/src/A/a/b.txt\0\x07@/archives\0\x07@/src/../arc/a/../z\0\x07\0'
seed read-archives '\x08\x00\xf4@/arc/a/b.txt\0\x08\x05\x40@/ic/mixed/CASE.txt\0\x08\x03\xff@/abs/bin/raw.bin\0\x08\x00\x10@/loose/x.txt\0'
seed read-edges '\x08\xff\x10@/arc/z\0\x08\x00\x00@/arc/a/c/d.txt\0\x08\x14\x20@/loose/ndir/f\0\x08\x00\x10@/src/D/notes.txt\0'
seed list-archives '\x09@/arc\0\x09@/arc/a\0\x09@/ic\0\x09@/ic/mixed\0\x09@/abs\0\x09@/abs/bin\0'
seed list-loose '\x09@/loose\0\x09@/loose/both\0\x09@/loose/ndir\0\x09@/loose/only\0\x09@\0\x09@/arc/z\0'

# Mounts at awkward mount points, and the archives' own lookups.
seed mount-trailing '\x0a\x00@/m/\0\x07@/m/a/b.txt\0\x09@/m\0\x0b\x00\x07@/m/a/b.txt\0'
seed mount-over '\x0a\x01@/arc/a\0\x07@/arc/a/a/b.txt\0\x09@/arc/a\0\x0a\x02@/arc\0\x07@/arc/mixed\0'
seed mount-relative '\x0a\x03rel\0\x07rel/bin/raw.bin\0\x0c\x03rel/bin\0\x0a\x04/\0\x07/x.txt\0\x0c\x04/both\0'
seed mount-bad "\\x0a\\x00\\0\\x0a\\x00/$(long 1030 m)\\0\\x0a\\x02@/IC2\\0\\x07@/ic2/upper\\0"
# Mount points so long that the children's paths no longer fit an entry
# (how long depends on where the sandbox lies).
seed mount-long "\\x0a\\x00@/$(long 940 m)\\0\\x09@/$(long 940 m)/a\\0\\x0a\\x01@/$(long 970 n)\\0\\x09@/$(long 970 n)\\0"
seed lookup-archives '\x0c\x00a/b.txt\0\x0c\x02MIXED/CASE.TXT\0\x0c\x03/bin/raw.bin\0\x0c\x03bin/raw.bin\0\x0c\x01@/arc/b\0'
seed lookup-mounts '\x0c\x00@/arc/a\0\x0c\x00@/arc\\a\0\x0c\x00@/arc/\0\x0c\x03@/abs/bin\0\x0c\x02@/ic/Mixed\0\x0c\x04@/loose/both\0'

# Regressions.  A directory that an archive holds but the disk does not,
# listed through the dearchiver with loose files: the failed native open
# failed the listing's open.  A path neither holds must still fail.
seed regress-loose-archive-only-dir '\x09@/abs\0\x09@/loose/only\0\x09@/abs/bin\0\x09@/loose/none\0'
# One archive mounted twice shares its ID: a listing that went on from the
# newer mount to the older one resumed in the newer, naming children twice.
seed regress-listing-shared-id '\x0a\x01@/arc/a\0\x09@/arc/a\0\x0a\x00@/arc/deep\0\x09@/arc/deep/er\0'
# Siblings that sort between a directory and its children (only mounted
# with KEST2_FUZZ_SIBLING_NAMES=1, see path_fuzz.cc).
seed sibling-names '\x07@/sib/d\0\x09@/sib\0\x09@/sib/d\0\x0c\x05@/sib/d\0'

ls "$OUT" | wc -l
