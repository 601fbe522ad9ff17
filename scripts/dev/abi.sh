#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev abi [--update]
#
# Compares the library's interface with abi/; fails when something was taken away that is promised. With
# --update it writes abi/ anew.
source scripts/dev/common.sh

[[ $# == 0 || $* == --update ]] || die "abi does not take \"$*\"; see ./dev help" 2
need g++ "${BUILD_PACKAGES[@]}" abigail-tools
build abi
library=build/abi/src/libnelvo.so
major=$(readelf -d "$library" | sed -n 's/.*SONAME.*\[libnelvo.so.\([0-9]*\)\]/\1/p')
baseline=abi/libnelvo-$major.abi
if (($#)); then
    mkdir -p abi
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs --headers-dir include \
        --drop-private-types --exported-interfaces-only --out-file "$baseline" "$library"
    sed -i "s|path='$PWD/|path='|" "$baseline"
fi
[[ -f $baseline ]] || die "there is no $baseline; a new major version begins with ./dev abi --update"
abidiff --headers-dir2 include --drop-private-types "$baseline" "$library" ||
    die "the interface has changed; if nothing was taken away run ./dev abi --update, else the major version must move"
echo "abi: no change against $baseline"
