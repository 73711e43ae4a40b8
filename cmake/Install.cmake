# Where everything goes: cmake --install for a prefix, cpack for Debian packages.
#
# The components are the three packages: `library` for programs that run, `development` for those that are built, and
# `command`.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/liborvel)
set(generated ${PROJECT_BINARY_DIR}/install)
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)

# ---- The library --------------------------------------------------------------------------------------------------

install(TARGETS orvel_shared EXPORT liborvelTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS orvel_static EXPORT liborvelStaticTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/liborvel.h include/liborvel.hpp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

# ---- How others find it -------------------------------------------------------------------------------------------

set_target_properties(orvel_shared PROPERTIES EXPORT_NAME liborvel)
set_target_properties(orvel_static PROPERTIES EXPORT_NAME liborvel_static)
foreach(targets liborvelTargets liborvelStaticTargets)
    install(EXPORT ${targets} NAMESPACE liborvel:: DESTINATION ${package_dir} COMPONENT development)
endforeach()
configure_package_config_file(cmake/liborvelConfig.cmake.in ${generated}/liborvelConfig.cmake
                              INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${generated}/liborvelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${generated}/liborvelConfig.cmake ${generated}/liborvelConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT development)

# liborvel.pc derives its prefix from its own location, so that a tree may be installed or moved anywhere.
file(RELATIVE_PATH pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
foreach(directory LIBDIR INCLUDEDIR)
    set(pc_${directory} "\${prefix}/${CMAKE_INSTALL_${directory}}")
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${directory}}")
        set(pc_${directory} "${CMAKE_INSTALL_${directory}}")
    endif()
endforeach()
configure_file(cmake/liborvel.pc.in ${generated}/liborvel.pc @ONLY)
install(FILES ${generated}/liborvel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT development)
# Next to the examples as in the tree: the encoder in Python reads its codes there.
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT development PATTERN Doxyfile.in EXCLUDE)

# ---- The command --------------------------------------------------------------------------------------------------

if(ORVEL_BUILD_TOOLS)
    install(TARGETS orvel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)
    install(DIRECTORY man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command FILES_MATCHING PATTERN "*.1")
    set(completions ${PROJECT_BINARY_DIR}/completions)  # as tools/ writes them
    install(FILES ${completions}/orvel DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            COMPONENT command)
    install(FILES ${completions}/_orvel DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT command)
    install(FILES ${completions}/orvel.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d
            COMPONENT command)
endif()

# ---- Debian packages ----------------------------------------------------------------------------------------------

set(ORVEL_PACKAGE_CONTACT "liborvel maintainers <maintainers@liborvel.invalid>" CACHE STRING
    "Maintainer that the packages name")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME liborvel)
set(CPACK_PACKAGE_CONTACT ${ORVEL_PACKAGE_CONTACT})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/compress.cmake)
set(CPACK_COMPONENTS_ALL library development)
set(package_of_library liborvel1)
set(package_of_development liborvel-dev)
set(package_of_command orvel)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${package_of_library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/postinst
    ${PROJECT_SOURCE_DIR}/cmake/debian/postrm)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
"Finds and decodes OPERA and ORVEL frames in a block of audio: who sent, when,
at which frequency and how strong. Also renders, plays and captures them.
This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${package_of_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${package_of_library} (= ${PROJECT_VERSION}), libfftw3-dev, portaudio19-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"This package holds the headers for C and C++, the static library, what
pkg-config and CMake need, and examples with recordings.")

if(ORVEL_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL command)
    set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME ${package_of_command})
    set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION hamradio)
    set(CPACK_DEBIAN_COMMAND_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_COMMAND_DESCRIPTION
"This package holds the command, which decodes recordings and the input of a
sound card, and which encodes, renders and sends OPERA and ORVEL frames.")
endif()
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    install(FILES cmake/debian/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package_of_${component}}
            COMPONENT ${component})
endforeach()
include(CPack)
