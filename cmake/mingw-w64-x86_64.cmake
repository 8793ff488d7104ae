# Cross build for Windows x86-64 with mingw-w64 (posix thread model, so the C++
# standard threads are available). Executables run under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
# The target's OpenSSL and libsrt, built by scripts/mingw-deps into a prefix of their own,
# are searched like the compiler's own root. An environment variable, since the toolchain
# file is read again by every try_compile, which sees no cache.
if(DEFINED ENV{CORVANE_MINGW_DEPS})
  list(APPEND CMAKE_FIND_ROOT_PATH $ENV{CORVANE_MINGW_DEPS})
  # That prefix holds static libraries only: they go into Corvane.dll.
  set(OPENSSL_USE_STATIC_LIBS ON)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(CORVANE_WINE NAMES wine64 wine PATHS /usr/lib/wine /usr/bin)
if(CORVANE_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CORVANE_WINE})
endif()
