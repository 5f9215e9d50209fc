# Runs a program as a user would and looks at its exit status and output.
# PROGRAM: command that starts it. FITS_SCHEMA: command that looks at JSON; DOCUMENTS: folder of the schemas.

cmake_minimum_required(VERSION 3.25)

# That a text is JSON as the schema says.
function(expect_json_of schema text)
  string(RANDOM LENGTH 12 name)
  set(file ${CMAKE_CURRENT_BINARY_DIR}/document-${name}.json)
  file(WRITE ${file} "${text}")
  execute_process(COMMAND ${FITS_SCHEMA} ${DOCUMENTS}/${schema}.schema.json ${file}
    RESULT_VARIABLE status ERROR_VARIABLE errors)
  file(REMOVE ${file})
  if(NOT status EQUAL 0)
    message(SEND_ERROR "not as ${schema}.schema.json says: ${errors}\n${text}")
  endif()
endfunction()

function(run expected_status)
  execute_process(COMMAND ${PROGRAM} ${ARGN}
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT status STREQUAL expected_status)
    message(SEND_ERROR "exit status ${status}, not ${expected_status}, of: ${ARGN}\n${output}${errors}")
  endif()
  if("--json" IN_LIST ARGN)
    expect_json_of(simulator "${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
  set(errors "${errors}" PARENT_SCOPE)
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

# What both demo programs say without running anything.
macro(look_at_help_and_refusals)
  run(0 --help)
  run(0 --version)
  run(2 --bogus)
  run(2 --scenario no-such-scenario)
  # A forgotten name is no name, also with another option after it.
  foreach(words "--scenario" "--scenario;--json" "--scenario;--keep;folder")
    run(2 ${words})
    if(NOT "${output}${errors}" MATCHES "--scenario: (1 required|the name of a scenario is missing)")
      message(SEND_ERROR "nothing of a missing name after ${words}:\n${output}${errors}")
    endif()
  endforeach()
  run(2 --route by-magic)
  run(2 --speed 0)
  run(2 --scenario route-at --route at)

  run(2 --json --bogus)
  read_json(good)
  expect("${value}" OFF)
  read_json(error)

  # A work folder that cannot be made.
  run(3 --json --keep "?:/nowhere")
  read_json(good)
  expect("${value}" OFF)
endmacro()
