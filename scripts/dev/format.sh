#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev format [--check]
#
# Formats the sources; with --check only says which are not formatted.
source scripts/dev/common.sh

mode=(-i)
case ${1:-} in
'') ;;
--check) mode=(--dry-run --Werror) ;;
*) die "format does not take \"$1\"; see ./dev help" 2 ;;
esac
need clang-format
find . -path ./build -prune -o -type f \( -name '*.h' -o -name '*.c' -o -name '*.cpp' \) \
    -print0 | xargs -0 clang-format "${mode[@]}" ||
    die "these sources are not formatted; run ./dev format"
