# Compresses the manual pages, as Debian wants them; -n leaves out the time, so that equal pages are equal files.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.1)
list(FILTER pages INCLUDE REGEX "/man1/")
if(pages)
    execute_process(COMMAND gzip -9n ${pages} COMMAND_ERROR_IS_FATAL ANY)
endif()
