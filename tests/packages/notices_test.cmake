# The terms of each port are in the notices, whatever letters they hold, and there are none without those of one.
#
# cmake -DMODULE=Notices.cmake -DFOLDER=SCRATCH -P notices_test.cmake

cmake_minimum_required(VERSION 3.25)
include(${MODULE})
file(REMOVE_RECURSE ${FOLDER})
if(WITHOUT_TERMS)
  write_notices(${FOLDER}/notices.txt "" ${FOLDER} absent)
  return()
endif()

file(WRITE ${FOLDER}/one/copyright "Terms [of one]; \"as is\" $<x>\n")
file(WRITE ${FOLDER}/two/copyright "Terms of two\n")
# has_notices(LICENCE WORDS...)
function(has_notices licence)
  write_notices(${FOLDER}/notices.txt "${licence}" ${FOLDER} one two)
  file(READ ${FOLDER}/notices.txt text)
  foreach(words IN LISTS ARGN)
    string(FIND "${text}" "${words}" place)
    if(place EQUAL -1)
      message(SEND_ERROR "\"${words}\" is not in the notices:\n${text}")
    endif()
  endforeach()
endfunction()
has_notices("" "\none\n" "Terms [of one]\; \"as is\" $<x>\n" "\ntwo\n" "Terms of two\n" "as soon as there is one.\n")
has_notices(${FOLDER}/LICENSE.txt "\none\n" "Its own terms stand in LICENSE.txt.\n")

execute_process(COMMAND ${CMAKE_COMMAND} -DWITHOUT_TERMS=ON -DMODULE=${MODULE} -DFOLDER=${FOLDER}
  -P ${CMAKE_CURRENT_LIST_FILE} RESULT_VARIABLE status ERROR_VARIABLE said)
if(status EQUAL 0 OR NOT said MATCHES "terms of absent")
  message(SEND_ERROR "Notices without the terms of a port were made: ${said}")
endif()
