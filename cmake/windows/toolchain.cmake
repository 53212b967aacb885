# Windows x64 programs from a Debian machine: the distribution's MinGW compiler with POSIX threads. The libraries are
# those that dependencies.sh builds (QS_WINDOWS_PREFIX); programs of the build run under Wine.
if(NOT QS_WINDOWS_PREFIX)
    message(FATAL_ERROR "QS_WINDOWS_PREFIX is not set: ./dev windows builds what is needed and sets it")
endif()
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(qs_target_triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${qs_target_triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${qs_target_triple}-g++-posix)
set(CMAKE_RC_COMPILER ${qs_target_triple}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${qs_target_triple} ${QS_WINDOWS_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
list(APPEND CMAKE_PREFIX_PATH ${QS_WINDOWS_PREFIX})
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QS_WINDOWS_PREFIX)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine.sh)
