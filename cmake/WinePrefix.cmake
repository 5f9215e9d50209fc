# Programs built here run in a Wine prefix of this build folder's own, made once before any test.
if(CMAKE_CROSSCOMPILING)
  add_custom_command(
    OUTPUT ${CMAKE_BINARY_DIR}/wineprefix/system.reg
    COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} --create-prefix ${CMAKE_BINARY_DIR}
    COMMENT "Creating the Wine prefix of this build folder"
    VERBATIM)
  add_custom_target(wine_prefix ALL DEPENDS ${CMAKE_BINARY_DIR}/wineprefix/system.reg)
endif()
