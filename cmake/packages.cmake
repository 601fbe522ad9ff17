# SPDX-License-Identifier: Apache-2.0
# The Debian packages, one per installed component, for CPack.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME nelvo)
set(CPACK_PACKAGE_VERSION ${NELVO_PACKAGE_VERSION})
set(CPACK_PACKAGE_VENDOR Nelvo)
set(CPACK_PACKAGE_CONTACT "The Nelvo developers <developers@nelvo.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Lets a Nelvo client drive an application")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library host testkit development tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/host ${PROJECT_BINARY_DIR}/testkit)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(same "(= ${NELVO_PACKAGE_VERSION}-1)")
# nelvo_deb(COMPONENT PACKAGE SECTION DEPENDS SUMMARY)
macro(nelvo_deb component package section depends summary)
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}")
    install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} RENAME copyright
        COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()
set(major ${PROJECT_VERSION_MAJOR})
nelvo_deb(library libnelvo${major} libs "libnelvo-host${major} ${same}"
    "Lets a Nelvo client drive an application")
nelvo_deb(host libnelvo-host${major} libs "" "Stand-in for the device platform on a desktop")
nelvo_deb(testkit libnelvo-testkit${major} libs "libnelvo-host${major} ${same}"
    "Tests applications that a Nelvo client drives")
nelvo_deb(development libnelvo-dev libdevel
    "libnelvo${major} ${same}, libnelvo-host${major} ${same}, libnelvo-testkit${major} ${same}, libexpat1-dev"
    "Headers, static libraries and documents of the Nelvo application SDK")
nelvo_deb(tools nelvo-tools devel "libnelvo-host${major} ${same}"
    "Drives Nelvo applications from the command line")
include(CPack)
