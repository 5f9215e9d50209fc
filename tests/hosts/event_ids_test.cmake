# Finds each message of the Windows event log in the table of the hosts' document, with its level, and no other there.
#
# cmake -DMESSAGES=messages.mc -DDOCUMENT=FILE -P event_ids_test.cmake

cmake_minimum_required(VERSION 3.25)

set(level_Informational information)
set(level_Warning warning)
set(level_Error error)
file(READ ${DOCUMENT} document)
file(STRINGS ${MESSAGES} lines REGEX "^(MessageId|Severity)=")
list(LENGTH lines count)
if(count LESS 28)
  message(FATAL_ERROR "only ${count} lines of messages were found in ${MESSAGES}")
endif()
while(lines)
  list(POP_FRONT lines id severity)
  string(REGEX REPLACE ".*=" "" id "${id}")
  string(REGEX REPLACE ".*=" "" severity "${severity}")
  list(APPEND known "${id}")
  string(FIND "${document}" "| ${id} | ${level_${severity}} |" place)
  if(place EQUAL -1)
    message(SEND_ERROR "${DOCUMENT} has no event ${id} of the level ${level_${severity}}")
  endif()
endwhile()

string(REGEX MATCHALL "\n\\| [0-9]+ \\| (information|warning|error) \\|" rows "${document}")
foreach(row IN LISTS rows)
  string(REGEX MATCH "[0-9]+" id "${row}")
  if(NOT id IN_LIST known)
    message(SEND_ERROR "${DOCUMENT} has an event ${id} that nobody writes")
  endif()
endforeach()
