# Cross-build for 64-bit Windows with Debian's MinGW-w64 (package g++-mingw-w64-x86-64).
# The posix thread model gives std::thread and std::mutex; the win32 one lacks them.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(PALIMBO_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${PALIMBO_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${PALIMBO_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${PALIMBO_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${PALIMBO_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Programs run on a bare Windows: the compiler's own runtime goes into each executable.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
# A library exports its own symbols only, not those of the runtime linked into it.
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -Wl,--exclude-libs,ALL")

# Test programs are started through Wine on the build machine.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)
