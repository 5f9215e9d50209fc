# Runs a program as a user would and looks at its exit status and output.
# PROGRAM: command that starts it.

function(run expected_status)
  execute_process(COMMAND ${PROGRAM} ${ARGN}
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT status STREQUAL expected_status)
    message(SEND_ERROR "exit status ${status}, not ${expected_status}, of: ${ARGN}\n${output}${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

# The output is one JSON document and nothing else; sets `value` to what it holds there.
function(read_json)
  string(JSON value ERROR_VARIABLE error GET "${output}" ${ARGN})
  if(error)
    message(SEND_ERROR "no JSON with ${ARGN}: ${error}\n${output}")
  endif()
  set(value "${value}" PARENT_SCOPE)
endfunction()

function(expect actual expected)
  if(NOT actual STREQUAL expected)
    message(SEND_ERROR "\"${actual}\" instead of \"${expected}\"")
  endif()
endfunction()
