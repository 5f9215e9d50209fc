# Each component installs what the list says, and nothing else: nothing of simulator, tests or build.
#
# usage: cmake -DBUILD=<build folder> -DFOLDER=<scratch folder> -DLIST=<file> -DLICENCE=<file> -P layout_test.cmake
file(REMOVE_RECURSE ${FOLDER})
set(found "")
foreach(component runtime development symbols)
  execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${FOLDER}/${component} --component ${component}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(GLOB_RECURSE files RELATIVE ${FOLDER}/${component} ${FOLDER}/${component}/*)
  list(SORT files)
  foreach(file IN LISTS files)
    string(APPEND found "${component} ${file}\n")
  endforeach()
endforeach()
# What belongs to no component.
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${FOLDER}/other --component Unspecified
  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
file(GLOB_RECURSE others RELATIVE ${FOLDER}/other ${FOLDER}/other/*)
if(others)
  message(SEND_ERROR "installed as part of no component: ${others}")
endif()

file(READ ${LIST} expected)
# Once it is chosen.
if(EXISTS ${LICENCE})
  string(REPLACE "runtime CHANGELOG.md\n" "runtime CHANGELOG.md\nruntime LICENSE.txt\n" expected "${expected}")
endif()
# The import library and the name of the configuration differ with compiler and build.
string(REGEX REPLACE "CorvelToolKitTargets-[a-z]+\\.cmake" "CorvelToolKitTargets-CONFIGURATION.cmake" found "${found}")
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "installed:\n${found}\nexpected:\n${expected}")
endif()
