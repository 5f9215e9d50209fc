# Programs built here run in a Wine prefix of this build folder's own, made once before any test.
if(CMAKE_CROSSCOMPILING)
  set(wine_prefix_mark ${CMAKE_BINARY_DIR}/wineprefix/corvel-complete)
  add_custom_command(
    OUTPUT ${wine_prefix_mark}
    COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} --create-prefix ${CMAKE_BINARY_DIR}
    COMMENT "Creating the Wine prefix of this build folder"
    VERBATIM)
  add_custom_target(wine_prefix ALL DEPENDS ${wine_prefix_mark})
endif()
