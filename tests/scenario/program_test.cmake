# Runs modem_simulator as a user would and looks at its exit status and output.
# PROGRAM: command that starts it; GROUPS: the groups of scenarios that ctest runs.

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

run(0 --help)
run(0 --version)
run(2 --bogus)
run(2 --scenario no-such-scenario)
run(2 --route by-magic)
run(2 --speed 0)
run(2 --scenario route-at --route at)
run(2 --group routes)

run(2 --json --bogus)
read_json(good)
expect("${value}" OFF)
read_json(error)

# A work folder that cannot be made.
run(3 --json --keep "?:/nowhere")
read_json(good)
expect("${value}" OFF)

run(0 --route at --speed 50 --json)
read_json(good)
expect("${value}" ON)
read_json(result)
expect("${value}" 4)
read_json(memory_equal)
expect("${value}" ON)
read_json(at_commands)
expect("${value}" 1)
read_json(registry Fls_Ready)
expect("${value}" 0)

run(0 --route flash-port --speed 50)
if(NOT output MATCHES "result +4 \\(succeeded\\)" OR NOT output MATCHES "equal to the images, byte for byte")
  message(SEND_ERROR "no summary of a flash:\n${output}")
endif()

run(0 --list --json)
read_json(scenarios)
string(JSON count LENGTH "${value}")
math(EXPR last "${count} - 1")
set(listed_groups "")
foreach(i RANGE ${last})
  string(JSON group GET "${value}" ${i} group)
  list(APPEND listed_groups ${group})
endforeach()
list(REMOVE_DUPLICATES listed_groups)
expect("${listed_groups}" "${GROUPS}")
