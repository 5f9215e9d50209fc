# Installs the library into an empty folder, and builds and runs a host against that folder alone.
#
# usage: cmake -DBUILD=<build folder> -DFOLDER=<scratch folder> -DCONSUMER=<folder of consumer.cpp>
#              -DTOOLCHAIN=<file> -DCONFIGURATION=<Debug or Release> -DRUN=<emulator> -P installed_test.cmake
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
run(${CMAKE_COMMAND} -G Ninja -S ${CONSUMER}/installed -B ${FOLDER}/build
  -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_BUILD_TYPE=${CONFIGURATION} -DCONSUMER_SOURCE=${CONSUMER}/consumer.cpp
  -DCorvelToolKit_DIR=${FOLDER}/installed/lib/cmake/CorvelToolKit)
run(${CMAKE_COMMAND} --build ${FOLDER}/build)
run(${RUN} ${FOLDER}/build/corvel_cmdline_consumer.exe ${FOLDER}/build)
