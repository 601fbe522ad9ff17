#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev interop
#
# Drives nelvoctl mcp with the official clients of the Model Context Protocol; fetches them with npm, in the
# versions that tests/interop/package-lock.json names. Exit code 77: they cannot be had here.
source scripts/dev/common.sh

(($# == 0)) || die "interop does not take \"$*\"; see ./dev help" 2
major=$(node --version 2>/dev/null | sed -n 's/^v\([0-9]*\).*/\1/p')
if ((${major:-0} < 20)) || ! command -v npm >/dev/null; then
    die "interop needs node 20 or later and npm, and found ${major:+node }${major:-no node}. Debian 13 and Ubuntu 25.04
have them: sudo apt-get install nodejs npm. For older systems take them from https://nodejs.org/en/download" 77
fi
need g++ "${BUILD_PACKAGES[@]}"
build release
mkdir -p build/interop
cp tests/interop/* build/interop/
(cd build/interop && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error) ||
    die "npm could not fetch the clients; see above, and npm config get registry" 77
NELVOCTL=$PWD/build/release/tools/nelvoctl/nelvoctl \
    PLAYER=$PWD/build/release/examples/player/player HELLO=$PWD/build/release/examples/hello/hello \
    node --test --test-timeout=60000 --test-reporter=spec build/interop/interop.test.mjs
