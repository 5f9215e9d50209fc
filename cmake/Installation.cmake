# What is installed, where, and as part of which component: "runtime" is what a PC needs that flashes, "development"
# what building a host needs besides, "symbols" what debuggers need. The rooms keep their places, so that links between
# documents and examples hold.

include(${CMAKE_CURRENT_LIST_DIR}/Notices.cmake)
option(CORVEL_FOR_PACKAGES "As it ships: symbols in files of their own, the same bytes wherever it is built" OFF)

# Flags of whatever is built from here on.
if(CORVEL_FOR_PACKAGES AND MSVC)
  # Without the two of /OPT, /DEBUG keeps what nothing uses.
  target_compile_options(corvel_settings INTERFACE /Zi /Brepro "/pathmap:${PROJECT_SOURCE_DIR}=.")
  target_link_options(corvel_settings INTERFACE /DEBUG /OPT:REF /OPT:ICF /Brepro /PDBALTPATH:%_PDB%)
elseif(CORVEL_FOR_PACKAGES)
  target_compile_options(corvel_settings INTERFACE
    -g -ffile-prefix-map=${PROJECT_BINARY_DIR}=build -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
  target_link_options(corvel_settings INTERFACE -Wl,--no-insert-timestamp)
endif()

# split_symbols(TARGET): moves the symbols into TARGET's file with ".debug" behind its name. MSVC's linker does so by
# itself.
function(split_symbols target)
  set(file $<TARGET_FILE:${target}>)
  # It writes the present time into what it copies, unless it is told another one: the start of the year 2000.
  set(objcopy ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=946684800 ${CMAKE_OBJCOPY})
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${objcopy} --only-keep-debug ${file} ${file}.debug
    COMMAND ${objcopy} --strip-unneeded ${file}
    COMMAND ${objcopy} --add-gnu-debuglink=${file}.debug ${file}
    VERBATIM)
endfunction()

# install_program(TARGET): a program or library that ships, with its symbols when there are any.
function(install_program target)
  install(TARGETS ${target}
    EXPORT ${target}Targets
    RUNTIME DESTINATION bin COMPONENT runtime
    ARCHIVE DESTINATION lib COMPONENT development)
  if(NOT CORVEL_FOR_PACKAGES)
    return()
  endif()
  if(MSVC)
    install(FILES $<TARGET_PDB_FILE:${target}> DESTINATION bin COMPONENT symbols)
  else()
    split_symbols(${target})
    install(FILES $<TARGET_FILE:${target}>.debug DESTINATION bin COMPONENT symbols)
  endif()
endfunction()

# install_package(): the CMake package of the library, and the documents and examples of the whole.
function(install_package)
  include(CMakePackageConfigHelpers)
  set(package_folder lib/cmake/CorvelToolKit)
  set(made_folder ${PROJECT_BINARY_DIR}/package)
  if(MSVC)
    set(CORVEL_BUILT_BY_MICROSOFT 1)
    set(CORVEL_BUILT_BY "Microsoft's compiler")
  else()
    set(CORVEL_BUILT_BY_MICROSOFT 0)
    set(CORVEL_BUILT_BY "GCC or clang for mingw-w64, with libstdc++ and the C runtime msvcrt")
  endif()
  configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/package/CorvelToolKitConfig.cmake.in ${made_folder}/CorvelToolKitConfig.cmake
    INSTALL_DESTINATION ${package_folder}
    NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
  write_basic_package_version_file(${made_folder}/CorvelToolKitConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  install(FILES
    ${made_folder}/CorvelToolKitConfig.cmake ${made_folder}/CorvelToolKitConfigVersion.cmake
    ${PROJECT_SOURCE_DIR}/cmake/package/host_compiler.cpp
    DESTINATION ${package_folder} COMPONENT development)
  set_target_properties(CorvelToolKit PROPERTIES EXPORT_NAME ToolKit)
  install(EXPORT CorvelToolKitTargets NAMESPACE Corvel:: DESTINATION ${package_folder} COMPONENT development)

  install(FILES ${PROJECT_SOURCE_DIR}/hosts/CorvelConfig.ini DESTINATION examples COMPONENT runtime)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/controller ${PROJECT_SOURCE_DIR}/examples/fleet DESTINATION examples COMPONENT runtime)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/xml_document DESTINATION examples COMPONENT development)
  install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION . COMPONENT runtime)
  foreach(document abi configuration controller deployment doctor flashlog hosts log-format packages troubleshooting windows)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/${document}.md DESTINATION docs COMPONENT runtime)
  endforeach()
  foreach(schema collected flashlog hosts package)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/${schema}.schema.json DESTINATION docs COMPONENT runtime)
  endforeach()
  # The index leaves out the pages that are for those who have the sources.
  set(index ${PROJECT_SOURCE_DIR}/docs/index.md)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${index})
  file(READ ${index} index_text)
  set(mark "<!-- In the sources alone: ")
  string(REGEX REPLACE "${mark}begin -->.*${mark}end -->\n\n" "" index_text "${index_text}")
  file(CONFIGURE OUTPUT ${made_folder}/index.md CONTENT "${index_text}" @ONLY)
  install(FILES ${made_folder}/index.md DESTINATION docs COMPONENT runtime)
  foreach(picture timeline records dark side)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/pictures/flashlog-${picture}.png DESTINATION docs/pictures COMPONENT runtime)
  endforeach()
  if(MSVC AND DEFINED VCPKG_INSTALLED_DIR)
    # Looked for anew with each build.
    file(GLOB licence CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/LICENSE.txt)
    write_notices(${made_folder}/THIRD-PARTY-NOTICES.txt "${licence}" ${VCPKG_INSTALLED_DIR}/${VCPKG_TARGET_TRIPLET}/share
      cli11 nlohmann-json)
    install(FILES ${made_folder}/THIRD-PARTY-NOTICES.txt DESTINATION . COMPONENT runtime)
  endif()
  # Chosen by the owner; it goes into each package as soon as it is there.
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE.txt DESTINATION . COMPONENT runtime OPTIONAL)

  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_VERSION ${CORVEL_PACKAGE_VERSION})
  set(CPACK_PACKAGE_FILE_NAME CorvelToolKit-${CORVEL_PACKAGE_VERSION}-x64)
  set(CPACK_PACKAGE_VENDOR Corvel)
  include(CPack)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/package/package.json.in ${made_folder}/package.json @ONLY)
endfunction()
