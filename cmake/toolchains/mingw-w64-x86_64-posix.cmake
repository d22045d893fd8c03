# Cross-compiles the Qt-free platform layer for 64-bit Windows with mingw-w64.
#
# The posix thread variant of the compilers is required: the default (win32)
# variant ships a C++ standard library without std::thread and std::mutex.
# Programs are linked statically so that Wine finds no missing runtime DLLs,
# and CTest runs them through Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(_orvanta_mingw_prefix x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${_orvanta_mingw_prefix}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_orvanta_mingw_prefix}-g++-posix)
set(CMAKE_RC_COMPILER ${_orvanta_mingw_prefix}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${_orvanta_mingw_prefix})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

find_program(ORVANTA_WINE_PROGRAM NAMES wine wine64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ORVANTA_WINE_PROGRAM})
