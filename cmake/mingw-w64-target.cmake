# What both toolchain files share: 64-bit Windows with Debian's mingw-w64 sysroot and resource
# compiler, programs run under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(KITE_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_RC_COMPILER ${KITE_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${KITE_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Packages also outside the sysroot: a host finds an unpacked KITEUpdate zip through
# CMAKE_PREFIX_PATH wherever it lies.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# wine64 itself, not the /usr/bin/wine wrapper, which prints a 32-bit hint on every start.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)
