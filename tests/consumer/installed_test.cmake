# Installs the library into an empty folder, and builds and runs a host against that folder alone, as the page for
# integrators says.
#
# usage: cmake -DBUILD=<build folder> -DFOLDER=<scratch folder> -DCONSUMER=<folder of consumer.cpp> -DPAGE=<docs/abi.md>
#              -DTOOLCHAIN=<file> -DCONFIGURATION=<Debug or Release> -DRUN=<emulator> -P installed_test.cmake
include(${CMAKE_CURRENT_LIST_DIR}/host_of_page.cmake)
file(REMOVE_RECURSE ${FOLDER})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}: ${result}\n${output}")
  endif()
endfunction()

foreach(component runtime development)
  run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${FOLDER}/installed --component ${component})
endforeach()
write_host_of_page(${PAGE} ${CONSUMER}/consumer.cpp ${FOLDER}/host)
run(${CMAKE_COMMAND} -G Ninja -S ${FOLDER}/host -B ${FOLDER}/build
  -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_BUILD_TYPE=${CONFIGURATION}
  -DCorvelToolKit_DIR=${FOLDER}/installed/lib/cmake/CorvelToolKit)
run(${CMAKE_COMMAND} --build ${FOLDER}/build)
# Beside the host, as the page says.
file(COPY ${FOLDER}/installed/bin/CorvelToolKit.dll DESTINATION ${FOLDER}/build)
run(${RUN} ${FOLDER}/build/corvel_cmdline_mine.exe ${FOLDER}/build)
