# Runs the kest2 program end to end on files in a scratch directory and
# checks its output, its error lines and its exit codes.
#   cmake -DKEST2=<program> -DWORK=<scratch directory> -P cli_test.cmake

function(run expected_code)
  execute_process(COMMAND ${KEST2} ${ARGN}
                  RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code STREQUAL expected_code)
    message(FATAL_ERROR "kest2 ${ARGN}: exit ${code}, wanted ${expected_code}\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
  set(err "${err}" PARENT_SCOPE)
endfunction()

function(expect text pattern)
  if(NOT text MATCHES "${pattern}")
    message(FATAL_ERROR "expected /${pattern}/ in:\n${text}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/tree/sub)
string(REPEAT "0123456789abcdef" 200000 big)   # 3.2 MB: several reads in flight
file(WRITE ${WORK}/tree/big.txt "${big}")
file(WRITE ${WORK}/tree/small.txt "hello\n")

run(0 --help)
expect("${out}" "Usage: kest2 \\[OPTIONS\\] COMMAND")
run(0 cat --help)
expect("${out}" "Usage: kest2 \\[OPTIONS\\] cat PATH")
run(2 frobnicate)
expect("${err}" "unknown command frobnicate")
run(2 cp only-one)
run(2 --trace bogus stat .)

run(0 cat ${WORK}/tree/small.txt)
expect("${out}" "^hello\n$")
run(0 cp ${WORK}/tree/big.txt ${WORK}/copy.txt)
file(READ ${WORK}/copy.txt copied)
if(NOT copied STREQUAL big)
  message(FATAL_ERROR "cp changed the bytes")
endif()
run(0 cat ${WORK}/tree/big.txt)
if(NOT out STREQUAL big)
  message(FATAL_ERROR "cat changed the bytes")
endif()

run(0 stat ${WORK}/tree/big.txt)
expect("${out}" "size: +3200000 bytes")
run(1 stat ${WORK}/missing)
expect("${err}" "^kest2 stat: ${WORK}/missing: ZUL_KEST_ERROR_BAD_PATH\n$")
run(1 cat ${WORK}/tree/small.txt ${WORK}/missing)
expect("${out}" "^hello\n$")

run(0 --stats --trace io stat ${WORK}/tree/small.txt)
expect("${err}" "Current KEST statistics:")
expect("${err}" "kest2/io")

run(0 ls ${WORK}/tree)
expect("${out}" "^-      3200000  big.txt\n-            6  small.txt\nd +[0-9]+  sub/\n$")
run(1 ls ${WORK}/missing)
expect("${err}" "^kest2 ls: ${WORK}/missing: ZUL_KEST_ERROR_BAD_PATH\n$")
