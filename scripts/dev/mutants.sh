#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev mutants [--matrix] [N]
#
# Breaks the library in N small ways, or in all that there are, and looks whether the tests notice. With
# --matrix it says how many of them each suite of tests notices, and how many no other suite does.
source scripts/dev/common.sh

need g++ "${BUILD_PACKAGES[@]}" libgtest-dev libgmock-dev python3
mkdir -p build
python3 -B scripts/mutants.py "$@"
