#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev lint
#
# Looks for mistakes in sources and scripts without running them.
source scripts/dev/common.sh

# The public header, alone, as each language that may include it.
lint_headers() {
    local standard compiler
    for compiler in gcc clang; do
        for standard in c89 c99 c11 c17 c++11 c++14 c++17 c++20 c++2b; do
            "$compiler" -x "${standard%%[0-9]*}" -std="$standard" -fsyntax-only \
                -Wall -Wextra -Wpedantic -Werror -Iinclude -isystem host/include - <<<'#include <nelvo.h>
                int used(void); int used(void) { return nelvo_initialize(); }'
        done
    done
}

(($# == 0)) || die "lint does not take \"$1\"; see ./dev help" 2
need g++ clang clang-tidy cppcheck shellcheck "${BUILD_PACKAGES[@]}"
lint_headers
echo "lint: the public header is good C from C89 and C++ from C++11 on"
git ls-files '*.sh' dev .ci/run | xargs shellcheck --exclude SC2016,SC1091 # quoted for a shell inside; sourced
echo "lint: shellcheck has no finding"
quietly lint cmake --preset clang -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
printf '%s\n' src/*.cpp src/message/*.cpp |
    xargs -P "$(nproc)" -n 2 clang-tidy -p build/clang --quiet >build/tidy.log 2>&1 ||
    { grep -E 'error:|warning:' build/tidy.log >&2; die "clang-tidy has findings; see build/tidy.log"; }
echo "lint: clang-tidy has no finding in src/"
# Not what is called performance: operations with a fixed signature take texts by value.
cppcheck --quiet --std=c++17 --enable=warning,portability --error-exitcode=1 \
    -Iinclude -Ihost/include src
echo "lint: cppcheck has no finding in src/"
# Its reader of C++ takes what a call that throws would have returned for a value that is read.
for source in src/*.cpp src/message/*.cpp; do
    g++ -std=c++17 -O1 -fanalyzer -Werror -Wno-analyzer-use-of-uninitialized-value \
        -Iinclude -Ihost/include -c \
        -o build/analyzed.o "$source"
done
echo "lint: gcc's analyzer has no finding in src/"
