#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev package [--twice]
#
# Builds Debian packages and RPMs of what is committed, and uses them from clean roots.
# The packages go to build/packages. With --twice it builds them again elsewhere, which must give the same
# bytes.
source scripts/dev/common.sh

[[ $# == 0 || $* == --twice ]] || die "package does not take \"$*\"; see ./dev help" 2
need g++ "${BUILD_PACKAGES[@]}" pkgconf libgtest-dev rpm rpmlint cpio file dpkg-dev git
rm -rf build/packages build/again
quietly package packaging/build.sh . build/packages
packaging/check.sh build/packages build/packages-check
(($#)) || exit 0
quietly again git clone --quiet . build/again/in/another/folder
quietly again packaging/build.sh build/again/in/another/folder build/again/packages
different=0
for file in build/packages/*.{deb,rpm}; do
    cmp "$file" "build/again/packages/${file##*/}" || different=$((different + 1))
done
echo "package: $different packages differ when they are built elsewhere"
((different == 0))
