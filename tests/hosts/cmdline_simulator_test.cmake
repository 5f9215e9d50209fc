# Runs cmdline_simulator as a user would and looks at its exit status and output.
# PROGRAM: command that starts it.
include(${CMAKE_CURRENT_LIST_DIR}/../scenario/run_program.cmake)

look_at_help_and_refusals()

run(0 --route at --speed 50 --json)
read_json(good)
expect("${value}" ON)
read_json(exit_code)
expect("${value}" 0)
read_json(memory_equal)
expect("${value}" ON)
read_json(at_commands)
expect("${value}" 1)
read_json(corvel_cmdline flashed)
expect("${value}" ON)
read_json(corvel_cmdline)
expect_json_of(hosts "${value}")

run(0 --scenario download-fails-no-retries --speed 50 --json)
read_json(exit_code)
expect("${value}" 1)
read_json(memory)
expect("${value}" untouched)
read_json(registry Flash_OnGoing)
expect("${value}" 1)
read_json(corvel_cmdline error code)
expect("${value}" flash_failed)
read_json(corvel_cmdline)
expect_json_of(hosts "${value}")

run(0 --route flash-port --speed 50)
if(NOT output MATCHES "The modem was flashed and is back." OR
   NOT output MATCHES "equal to the images, byte for byte" OR
   NOT output MATCHES "exit status +0 of corvel_cmdline")
  message(SEND_ERROR "no summary of a flash:\n${output}")
endif()
