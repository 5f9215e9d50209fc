# write_host_of_page(PAGE SOURCE FOLDER): the project that the page for integrators shows, with SOURCE as its program.
function(write_host_of_page page source folder)
  file(READ ${page} text)
  if(NOT text MATCHES "\n```cmake\n([^`]+)```\n")
    message(FATAL_ERROR "${page} shows no project")
  endif()
  file(WRITE ${folder}/CMakeLists.txt "${CMAKE_MATCH_1}")
  file(COPY_FILE ${source} ${folder}/main.cpp)
endfunction()
