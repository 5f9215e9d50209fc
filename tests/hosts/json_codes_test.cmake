# Finds each code of a problem that the hosts' sources hold in the tables of the hosts' document.
#
# cmake -DSOURCES=FOLDER -DDOCUMENT=FILE -P json_codes_test.cmake

cmake_minimum_required(VERSION 3.25)

# What looks like a code and is none: fields of the documents, and modes of the modem.
set(no_codes
  at_commands at_port attempt_times command_line exit_code flash_port flash_result host_running images_deleted left_out
  limit_seconds most_attempts process_id reset_driver
  service_exit_code stage_name stage_times what_to_do why_not_read corvel_cmdline corvel_service)

file(READ ${DOCUMENT} document)
file(GLOB_RECURSE sources ${SOURCES}/*.cpp ${SOURCES}/*.h)
# What corvel_flashlog prints is described by its schema.
list(FILTER sources EXCLUDE REGEX "/flashlog/")
set(found 0)
foreach(source IN LISTS sources)
  file(READ ${source} text)
  string(REGEX MATCHALL "\"[a-z]+(_[a-z0-9]+)+\"|{\"(internal|interrupted|utf16)\"" words "${text}")
  foreach(word IN LISTS words)
    string(REGEX REPLACE "[{\"]" "" code "${word}")
    if(code IN_LIST no_codes)
      continue()
    endif()
    math(EXPR found "${found} + 1")
    string(FIND "${document}" "`${code}`" place)
    if(place EQUAL -1)
      message(SEND_ERROR "${source}: the code ${code} is not in ${DOCUMENT}")
    endif()
  endforeach()
endforeach()
if(found LESS 30)
  message(FATAL_ERROR "only ${found} codes were found in ${SOURCES}")
endif()
