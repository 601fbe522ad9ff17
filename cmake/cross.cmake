# SPDX-License-Identifier: Apache-2.0
# For another architecture, with Debian's cross compilers; NELVO_TRIPLET names it. What is built has to
# run here all the same: the kernel hands it to qemu.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NELVO_TRIPLET)
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR "${NELVO_TRIPLET}")
set(CMAKE_C_COMPILER ${NELVO_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${NELVO_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${NELVO_TRIPLET})
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${NELVO_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
