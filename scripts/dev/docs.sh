#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev docs
#
# Describes the public headers in build/docs; fails when something is left out or wrong.
source scripts/dev/common.sh

(($# == 0)) || die "docs does not take \"$1\"; see ./dev help" 2
need doxygen
quietly docs doxygen docs/Doxyfile
echo "The public headers: build/docs/html/files.html"
