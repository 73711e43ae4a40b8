# The reference of the interface: --target reference, into build/PRESET/reference. Anything undescribed or unresolved is
# an error.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
    message(STATUS "Reference: off; it needs Doxygen")
    return()
endif()
set(ORVEL_REFERENCE_DIR ${PROJECT_BINARY_DIR}/reference)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
add_custom_target(reference COMMAND ${DOXYGEN_EXECUTABLE} ${PROJECT_BINARY_DIR}/Doxyfile)
