# Cross build for 64-bit Windows with Debian's mingw-w64 (posix thread model).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(OVSVC_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${OVSVC_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${OVSVC_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${OVSVC_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${OVSVC_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Programs and the DLL carry their runtime: no libgcc, libstdc++ or
# winpthread DLLs to ship beside them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

# Test discovery and test runs go through Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-exec.sh)
