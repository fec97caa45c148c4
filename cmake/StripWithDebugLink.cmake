# Runs at install time: the installed KITEUpdate.dll loses its debug information, which moves to
# KITEUpdate.dll.debug beside it; the DLL names that file, so a debugger finds it there.
set(dll "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/bin/KITEUpdate.dll")
foreach(step "--only-keep-debug;${dll};${dll}.debug" "--strip-all;${dll}")
  execute_process(COMMAND ${KITE_OBJCOPY} ${step} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
# The link holds the file's name only, so it is added from the folder that holds both.
get_filename_component(folder ${dll} DIRECTORY)
execute_process(COMMAND ${KITE_OBJCOPY} --add-gnu-debuglink=KITEUpdate.dll.debug KITEUpdate.dll
  WORKING_DIRECTORY ${folder} COMMAND_ERROR_IS_FATAL ANY)
