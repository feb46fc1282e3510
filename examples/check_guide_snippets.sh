#!/bin/sh
# Checks that every ```c and ```cmake block of docs/guide.md is a verbatim
# excerpt of the example file named last before it (examples/NAME.c or
# examples/CMakeLists.txt), so that the guide shows only code that builds.
#   check_guide_snippets.sh REPOSITORY_ROOT
set -eu
root=$1
awk -v root="$root" '
function slurp(path,    line, text) {
  text = ""
  while ((getline line < path) > 0) text = text line "\n"
  close(path)
  return text
}
/^```(c|cmake)$/ { inside = 1; block = ""; start = NR + 1; next }
inside && /^```$/ {
  inside = 0
  ++blocks
  if (file == "") { print "guide.md:" start ": the block names no example file"; ++bad; next }
  text = slurp(root "/" file)
  if (text == "") { print "guide.md:" start ": " file " is missing or empty"; ++bad; next }
  if (index(text, block) == 0) { print "guide.md:" start ": the block is not an excerpt of " file; ++bad }
  next
}
inside { block = block $0 "\n"; next }
match($0, /examples\/[A-Za-z0-9_]+\.c|examples\/CMakeLists\.txt/) { file = substr($0, RSTART, RLENGTH) }
END {
  if (blocks == 0) { print "no code blocks found in docs/guide.md"; ++bad }
  print blocks " code blocks checked, " bad + 0 " not excerpts"
  exit bad > 0
}
' "$root/docs/guide.md"
