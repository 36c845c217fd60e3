# Cross-compiling for 64-bit Windows with Debian's mingw-w64 toolchain, in its
# posix thread model (std::thread, std::mutex and std::condition_variable
# need it). ZRX_WIN64_PREFIX names the prefix of the dependencies that
# tools/windows/deps.sh builds; packages and libraries are found there and in
# the toolchain's own tree, never on the Linux side.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZRX_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZRX_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZRX_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ZRX_MINGW_TRIPLE}-windres)

# Try-compile projects get the same view of the prefix.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZRX_WIN64_PREFIX)
if(NOT ZRX_WIN64_PREFIX AND DEFINED ENV{ZRX_WIN64_PREFIX})
  set(ZRX_WIN64_PREFIX "$ENV{ZRX_WIN64_PREFIX}")
endif()

set(CMAKE_FIND_ROOT_PATH /usr/${ZRX_MINGW_TRIPLE})
if(ZRX_WIN64_PREFIX)
  list(APPEND CMAKE_FIND_ROOT_PATH "${ZRX_WIN64_PREFIX}")
  list(APPEND CMAKE_PREFIX_PATH "${ZRX_WIN64_PREFIX}")
  # pkg-config looks in the prefix only, never at the Linux .pc files.
  set(ENV{PKG_CONFIG_LIBDIR} "${ZRX_WIN64_PREFIX}/lib/pkgconfig")
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "")
endif()
# The prefixes a project names in CMAKE_PREFIX_PATH, as a variable or in
# the environment (an installed zrx2dsticker, say), hold Windows files too:
# they are searched as roots.
set(zrx_prefixes ${CMAKE_PREFIX_PATH})
if(DEFINED ENV{CMAKE_PREFIX_PATH})
  file(TO_CMAKE_PATH "$ENV{CMAKE_PREFIX_PATH}" zrx_env_prefixes)
  list(APPEND zrx_prefixes ${zrx_env_prefixes})
endif()
foreach(zrx_prefix IN LISTS zrx_prefixes)
  list(APPEND CMAKE_FIND_ROOT_PATH "${zrx_prefix}")
endforeach()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test executables run through Wine (tests/run-windows.sh prepares its prefix).
find_program(ZRX_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(ZRX_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${ZRX_WINE}")
endif()
