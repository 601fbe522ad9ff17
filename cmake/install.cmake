# SPDX-License-Identifier: Apache-2.0
# What lies where after cmake --install. Components are packages: library, development, host,
# testkit, tools.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(CMAKE_BUILD_RPATH_USE_ORIGIN ON) # nothing that is built depends on where
if(NOT DEFINED CMAKE_INSTALL_RPATH) # so that any prefix works; a distribution skips it
    file(RELATIVE_PATH library_dir /p/${CMAKE_INSTALL_BINDIR} /p/${CMAKE_INSTALL_LIBDIR})
    set(CMAKE_INSTALL_RPATH "$ORIGIN/${library_dir}")
endif()

set(NELVO_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/nelvo)
set(NELVO_HOST_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/nelvo-host)

# nelvo_install(SET LIBRARY_COMPONENT TARGET...): one set is one component of find_package(nelvo).
function(nelvo_install set component)
    install(TARGETS ${ARGN} EXPORT nelvo-${set}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component}
            NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    install(EXPORT nelvo-${set} FILE nelvo-${set}-targets.cmake NAMESPACE nelvo::
        DESTINATION ${NELVO_CONFIG_DIR} COMPONENT development)
endfunction()

# nelvo_pkgconfig(NAME FROM TO): the paths inside are relative to the file, so that it can be moved.
function(nelvo_pkgconfig name from to)
    file(RELATIVE_PATH up /p/${to} /p)
    set(NELVO_PC_PREFIX "\${pcfiledir}/${up}")
    configure_file(${from} ${PROJECT_BINARY_DIR}/${to}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${to}/${name}.pc DESTINATION ${to} COMPONENT development)
endfunction()

function(nelvo_install_package)
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/nelvo-config.cmake.in
        ${PROJECT_BINARY_DIR}/nelvo-config.cmake INSTALL_DESTINATION ${NELVO_CONFIG_DIR})
    write_basic_package_version_file(${PROJECT_BINARY_DIR}/nelvo-config-version.cmake
        COMPATIBILITY SameMajorVersion)
    install(FILES ${PROJECT_BINARY_DIR}/nelvo-config.cmake
        ${PROJECT_BINARY_DIR}/nelvo-config-version.cmake
        DESTINATION ${NELVO_CONFIG_DIR} COMPONENT development)
    install(FILES README.md CHANGELOG.md LICENSE
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
    set(share ${CMAKE_INSTALL_DATADIR})
    nelvo_install_as(tools/nelvoctl/nelvoctl.1 ${CMAKE_INSTALL_MANDIR}/man1 nelvoctl.1)
    nelvo_install_as(tools/nelvoctl/completions/nelvoctl.bash
        ${share}/bash-completion/completions nelvoctl)
    nelvo_install_as(tools/nelvoctl/completions/_nelvoctl ${share}/zsh/site-functions _nelvoctl)
    nelvo_install_as(tools/nelvoctl/completions/nelvoctl.fish
        ${share}/fish/vendor_completions.d nelvoctl.fish)
    install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT development)
endfunction()

# nelvo_install_as(FILE DESTINATION NAME): one of the tools' files, if the tree has it.
function(nelvo_install_as file destination name)
    if(EXISTS ${PROJECT_SOURCE_DIR}/${file})
        install(FILES ${file} DESTINATION ${destination} RENAME ${name} COMPONENT tools)
    endif()
endfunction()
