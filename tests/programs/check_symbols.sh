#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_symbols.sh LIBRARY: fails unless the library exports (T) and imports (U) exactly what symbols.txt
# lists, apart from imports of the C and C++ libraries.
set -euo pipefail
export LC_ALL=C
list=$(dirname "${BASH_SOURCE[0]}")/symbols.txt

# A symbol of the C and C++ libraries carries one of these versions; w is an import that may be missing.
symbols=$(nm -D "$1" | awk '{ print $(NF - 1), $NF }' |
    grep -vE '^w |@(GLIBC|GLIBCXX|CXXABI|GCC|LIBC)_[0-9.]+$' | sort)
if ! difference=$(diff "$list" <(echo "$symbols")); then
    echo "check_symbols: $1 differs from symbols.txt (< missing, > too many):" >&2
    grep '^[<>]' <<<"$difference" >&2
    exit 1
fi
