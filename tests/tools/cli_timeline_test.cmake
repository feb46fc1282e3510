# `kest2 --timeline FILE COMMAND` and `kest2 timeline`, end to end: the JSON
# written (also when the command fails) parses and names every thread, the
# picture has one row per named thread, and bad input and bad usage exit
# with 1 and 2 and a line in words.
#   cmake -DKEST2=<program> -DWORK=<scratch directory> -P cli_timeline_test.cmake

include(${CMAKE_CURRENT_LIST_DIR}/cli_functions.cmake)

# Parses a trace; sets <prefix>_events (the number of events), <prefix>_named
# (thread_name events) and <prefix>_lost.
function(read_trace path prefix)
  file(READ ${path} json)
  string(JSON count ERROR_VARIABLE problem LENGTH "${json}" traceEvents)
  if(problem)
    message(FATAL_ERROR "${path} does not parse as a trace: ${problem}")
  endif()
  set(named 0)
  math(EXPR last "${count} - 1")
  foreach(i RANGE ${last})
    string(JSON name GET "${json}" traceEvents ${i} name)
    if(name STREQUAL "thread_name")
      math(EXPR named "${named} + 1")
    endif()
  endforeach()
  string(JSON lost GET "${json}" otherData lost)
  set(${prefix}_events ${count} PARENT_SCOPE)
  set(${prefix}_named ${named} PARENT_SCOPE)
  set(${prefix}_lost ${lost} PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
string(REPEAT "0123456789abcdef" 100000 big)
file(WRITE ${WORK}/big.txt "${big}")

run(0 --help)
expect("${out}" "--timeline FILE")
run(0 timeline --help)
expect("${out}" "--svg OUT")

# A command that works, and one that fails: both leave a trace.
run(0 --timeline ${WORK}/cat.json cat ${WORK}/big.txt)
read_trace(${WORK}/cat.json cat)
if(cat_events LESS 10 OR cat_named LESS 2 OR NOT cat_lost EQUAL 0)
  message(FATAL_ERROR "cat.json: ${cat_events} events, ${cat_named} threads, ${cat_lost} lost")
endif()
run(1 --timeline ${WORK}/failed.json stat ${WORK}/missing)
expect("${err}" "^kest2 stat: ${WORK}/missing: no such file or directory")
read_trace(${WORK}/failed.json failed)
file(READ ${WORK}/failed.json failed_json)
expect("${failed_json}" "\"result\":\"ZUL_KEST_ERROR_BAD_PATH\"")

# The picture: well started, one row per named thread.
run(0 timeline ${WORK}/cat.json --svg ${WORK}/cat.svg)
file(READ ${WORK}/cat.svg svg)
expect("${svg}" "^<\\?xml version=\"1.0\" encoding=\"UTF-8\"\\?>\n<svg ")
expect("${svg}" "</svg>\n$")
string(REGEX MATCHALL "<g class=\"thread\"" rows "${svg}")
list(LENGTH rows row_count)
if(NOT row_count EQUAL cat_named)
  message(FATAL_ERROR "cat.svg has ${row_count} rows for ${cat_named} threads")
endif()
run(0 timeline ${WORK}/cat.json)
expect("${out}" "cat.json: [0-9]+ threads, [0-9]+ spans, [0-9]+ operations, 0 missed")

# Bad input: 1 and a line in words.
file(WRITE ${WORK}/garbage.json "{\"traceEvents\":[1,2")
run(1 timeline ${WORK}/garbage.json --svg ${WORK}/g.svg)
expect("${err}" "^kest2 timeline: ${WORK}/garbage.json: not valid JSON, at byte [0-9]+: ")
run(1 timeline ${WORK}/missing.json --svg ${WORK}/g.svg)
expect("${err}" "^kest2 timeline: ${WORK}/missing.json: cannot read: No such file or directory\n$")
file(WRITE ${WORK}/other.json "{\"rows\":[]}")
run(1 timeline ${WORK}/other.json)
expect("${err}" "no \"traceEvents\" array")
run(1 --timeline ${WORK}/no/such/dir/t.json stat ${WORK}/big.txt)
expect("${err}" "^kest2 --timeline: ${WORK}/no/such/dir/t.json: no such file or directory \\(ZUL_KEST_ERROR_BAD_PATH\\)\n$")

# Bad usage: 2.
run(2 timeline)
run(2 timeline ${WORK}/cat.json --svg)
run(2 timeline ${WORK}/cat.json --pdf x)
run(2 --timeline)
run(2 --timeline ${WORK}/pack.json pack ${WORK} ${WORK}/x.zorba)
expect("${err}" "--timeline records the library's work")
