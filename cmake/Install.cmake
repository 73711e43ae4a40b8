# Where everything goes: cmake --install for a prefix, from which debian/ makes packages.
#
# The components are `library` for programs that run, `development` for those that are built, `command`, `station`,
# `collector`, and `documents`.
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

# ---- Documents ----------------------------------------------------------------------------------------------------

# As in the tree: pages link to each other, and the encoder in Python reads its codes there.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
install(FILES bench/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/bench COMPONENT documents)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents
        PATTERN Doxyfile.in EXCLUDE PATTERN .clang-format EXCLUDE PATTERN __pycache__ EXCLUDE)

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

# ---- The station ----------------------------------------------------------------------------------------------------

if(TARGET orvel-station)
    install(TARGETS orvel-station RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT station)
    install(FILES station/install/station.toml DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/orvel-station/examples
            COMPONENT station)
    install(FILES station/install/orvel-station.service DESTINATION lib/systemd/system COMPONENT station)
    install(FILES station/install/orvel-station.conf DESTINATION lib/sysusers.d COMPONENT station)
endif()

# ---- The collector --------------------------------------------------------------------------------------------------

if(TARGET orvel-collector)
    install(TARGETS orvel-collector RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT collector)
    install(FILES collector/install/collector.toml DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/orvel-collector/examples
            COMPONENT collector)
    install(FILES collector/install/orvel-collector.service DESTINATION lib/systemd/system COMPONENT collector)
    install(FILES collector/install/orvel-collector.conf DESTINATION lib/sysusers.d COMPONENT collector)
endif()
