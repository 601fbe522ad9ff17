#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev install
#
# Installs into build/installed, builds programs from that alone, with CMake and pkg-config, and drives them.
source scripts/dev/common.sh

(($# == 0)) || die "install does not take \"$1\"; see ./dev help" 2
need g++ "${BUILD_PACKAGES[@]}" pkgconf libgtest-dev
build release
rm -rf build/installed build/outside
quietly install cmake --install build/release --prefix "$PWD/build/installed"
tests/programs/outside/check.sh "$PWD/build/installed" build/outside
