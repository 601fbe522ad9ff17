# SPDX-License-Identifier: Apache-2.0
# The platform as a device toolchain knows it: through pkg-config.
find_package(PkgConfig REQUIRED)
pkg_check_modules(NELVO_DEVICE REQUIRED IMPORTED_TARGET GLOBAL ${NELVO_PLATFORM_MODULES})
add_library(nelvo::platform ALIAS PkgConfig::NELVO_DEVICE)
add_library(nelvo::platform_static ALIAS PkgConfig::NELVO_DEVICE)

if(NELVO_TESTS) # they need a simulated one
    pkg_check_modules(NELVO_HOST REQUIRED IMPORTED_TARGET GLOBAL nelvo-host)
    add_library(nelvo::host ALIAS PkgConfig::NELVO_HOST)
    add_subdirectory(host)
endif()
