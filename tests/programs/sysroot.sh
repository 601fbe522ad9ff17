#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# sysroot.sh BUILD SYSROOT COMMAND...: installs what was built in BUILD as a device's sysroot and runs
# the command with pkg-config looking there alone, as in a device toolchain.
set -euo pipefail
build=$1 sysroot=$2
shift 2
rm -rf "$sysroot"
for component in host development; do
    DESTDIR=$sysroot cmake --install "$build" --prefix /usr --component $component >"$build/sysroot.log"
done
# The library is what is about to be built.
find "$sysroot" -name 'nelvo.h' -delete -o -name 'libnelvo.*' -delete -o -name nelvo.pc -delete
PKG_CONFIG_LIBDIR=$(find "$sysroot" -path '*/nelvo-host/pkgconfig')
export PKG_CONFIG_SYSROOT_DIR=$sysroot PKG_CONFIG_LIBDIR
exec "$@"
