# A second compiler for the same target: Debian's clang and lld building 64-bit Windows with
# mingw-w64's headers, libstdc++ and runtime. Any warning fails the build, so code that only g++
# accepts quietly shows up here. scripts/test.sh builds the library and the DLL with it.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-target.cmake)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${KITE_MINGW_TRIPLET})
set(CMAKE_CXX_COMPILER_TARGET ${KITE_MINGW_TRIPLET})

# clang does not find Debian's mingw-w64 libstdc++ by itself. The posix thread model, as the g++
# build uses: the DLL must hand a std::string across its boundary exactly as that build does.
set(KITE_GCC_MINGW /usr/lib/gcc/${KITE_MINGW_TRIPLET}/12-posix)
set(CMAKE_CXX_FLAGS_INIT
  "-isystem ${KITE_GCC_MINGW}/include/c++ -isystem ${KITE_GCC_MINGW}/include/c++/${KITE_MINGW_TRIPLET}")
string(APPEND CMAKE_C_FLAGS_INIT " -Wall -Wextra -Werror")
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wall -Wextra -Werror")
# That libstdc++ needs winpthread, which g++-posix adds by itself; lld finds archives in any order.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT
    "-fuse-ld=lld -L${KITE_GCC_MINGW} -static -static-libgcc -static-libstdc++ -lwinpthread")
endforeach()
