enable_language(RC)

# Dependencies of the Windows cross build that Debian ships as sources or
# headers only: GoogleTest is built from /usr/src/googletest, CLI11 is a
# header-only library whose headers sit in the build host's include tree.
if(OVSVC_BUILD_TESTS)
  set(gtest_force_shared_crt OFF CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
endif()

# Only the CLI folder is exposed, never the host's whole /usr/include.
set(OVSVC_CLI11_INCLUDE ${CMAKE_BINARY_DIR}/cli11-include)
file(MAKE_DIRECTORY ${OVSVC_CLI11_INCLUDE})
file(CREATE_LINK /usr/include/CLI ${OVSVC_CLI11_INCLUDE}/CLI SYMBOLIC)
add_library(CLI11::CLI11 INTERFACE IMPORTED)
target_include_directories(CLI11::CLI11 SYSTEM INTERFACE ${OVSVC_CLI11_INCLUDE})
