# Small Windows programs and libraries that carry a real version resource: product files at a
# chosen release for the tests and for the main job's sample installation.
#
#   kite_add_versioned_pe(<target> EXE|DLL <major.minor.build.revision>)
#
# builds bin/fixtures/<target>.exe or bin/fixtures/<target>.dll; its FILEVERSION and
# PRODUCTVERSION are the given four numbers (each at most 65535). Copy it under the product's
# file name where a test or a demonstration needs it.
set(KITE_VERSIONED_PE_DIR ${CMAKE_CURRENT_LIST_DIR}/versioned-pe)

function(kite_add_versioned_pe target kind version)
  if(NOT version MATCHES "^([0-9]+)\\.([0-9]+)\\.([0-9]+)\\.([0-9]+)$")
    message(FATAL_ERROR "kite_add_versioned_pe(${target}): version ${version} is not a.b.c.d")
  endif()
  foreach(part ${CMAKE_MATCH_1} ${CMAKE_MATCH_2} ${CMAKE_MATCH_3} ${CMAKE_MATCH_4})
    if(part GREATER 65535)
      message(FATAL_ERROR "kite_add_versioned_pe(${target}): ${part} does not fit 16 bits")
    endif()
  endforeach()
  string(REPLACE "." "," KITE_PE_VERSION_COMMAS "${version}")
  set(KITE_PE_VERSION "${version}")
  set(KITE_PE_NAME "${target}")
  if(kind STREQUAL "EXE")
    set(KITE_PE_FILETYPE VFT_APP)
    set(source ${KITE_VERSIONED_PE_DIR}/program.c)
    add_executable(${target} ${source})
  elseif(kind STREQUAL "DLL")
    set(KITE_PE_FILETYPE VFT_DLL)
    set(source ${KITE_VERSIONED_PE_DIR}/library.c)
    add_library(${target} SHARED ${source})
  else()
    message(FATAL_ERROR "kite_add_versioned_pe(${target}): kind must be EXE or DLL")
  endif()
  set(rc ${CMAKE_CURRENT_BINARY_DIR}/versioned-pe/${target}.rc)
  configure_file(${KITE_VERSIONED_PE_DIR}/version.rc.in ${rc} @ONLY)
  target_sources(${target} PRIVATE ${rc})
  set_target_properties(${target} PROPERTIES
    PREFIX ""
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin/fixtures)
endfunction()
