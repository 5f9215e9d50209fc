# Makes installers of what this build installs, an old and a new one, where installer_test looks for them.
#
# usage: cmake -DBUILD=<build folder> -DTOOL=<make-packages> -DOBJCOPY=<program> -DFOLDER=<scratch folder>
#              -DOUTPUT=<folder> -P ...
file(REMOVE_RECURSE ${FOLDER} ${OUTPUT})
file(MAKE_DIRECTORY ${OUTPUT})
foreach(version old=1.0.0 new=1.0.1)
  string(REGEX MATCH "(.*)=(.*)" match ${version})
  set(name ${CMAKE_MATCH_1})
  set(number ${CMAKE_MATCH_2})
  foreach(component runtime development symbols)
    file(MAKE_DIRECTORY ${FOLDER}/${name}/${component})
    execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --component ${component}
      --prefix ${FOLDER}/${name}/${component} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
  # The build for tests leaves them where they are.
  file(MAKE_DIRECTORY ${FOLDER}/${name}/symbols/bin)
  file(GLOB programs ${FOLDER}/${name}/runtime/bin/*.exe ${FOLDER}/${name}/runtime/bin/*.dll)
  foreach(program IN LISTS programs)
    cmake_path(GET program FILENAME file)
    execute_process(COMMAND ${OBJCOPY} --only-keep-debug ${program} ${FOLDER}/${name}/symbols/bin/${file}.debug
      COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
  file(WRITE ${FOLDER}/${name}/package.json "{\"name\": \"CorvelToolKit\", \"library_version\": \"1.8.1\",
    \"package_version\": \"${number}\"}")
  execute_process(COMMAND ${TOOL} ${FOLDER}/${name} ${FOLDER}/${name}-packages OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  set(installer ${FOLDER}/${name}-packages/CorvelToolKit-${number}-x64.msi)
  file(COPY_FILE ${installer} ${OUTPUT}/${name}.msi)
  execute_process(COMMAND msiinfo export ${installer} Property OUTPUT_VARIABLE properties COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCH "ProductCode\t({[^}]*})" match "${properties}")
  file(WRITE ${OUTPUT}/${name}.code "${CMAKE_MATCH_1}")
endforeach()
