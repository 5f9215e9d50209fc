# Header-only libraries that hosts and tools use: command lines and JSON.
include(LibraryFromPackage)

add_library(host_libraries INTERFACE)
link_library_from_package(host_libraries
  PACKAGE CLI11 TARGET CLI11::CLI11 HEADERS CLI FOLDER_VARIABLE HOST_LIBRARY_INCLUDES)
link_library_from_package(host_libraries
  PACKAGE nlohmann_json TARGET nlohmann_json::nlohmann_json HEADERS nlohmann FOLDER_VARIABLE HOST_LIBRARY_INCLUDES)
