# The helpers of the command-line program's script tests: run the program
# and check its exit status, and match its output.

# Runs ${KEST2} with the arguments; fails unless it exits with
# expected_code.  Sets out and err in the caller.
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
