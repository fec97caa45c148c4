# Cross build for 64-bit Windows with Debian's mingw-w64; test programs run under Wine.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-target.cmake)

# The posix thread model: std::thread and std::mutex exist (GoogleTest needs them); its
# winpthread is linked statically like the rest of the runtime.
set(CMAKE_C_COMPILER ${KITE_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KITE_MINGW_TRIPLET}-g++-posix)
