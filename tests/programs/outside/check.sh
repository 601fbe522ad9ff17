#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check.sh PREFIX WORK [SYSROOT]: builds programs in WORK from what is installed under PREFIX alone,
# which may lie in a SYSROOT, and drives them.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
examples=$here/../../../examples
work=$2 sysroot=${3:-} prefix=${3:-}$1
mkdir -p "$work"

stands_alone() {
    if readelf -d "$1" | grep 'NEEDED.*nelvo'; then
        echo "check: $1 should need no library of ours" >&2
        exit 1
    fi
}

# C with pkg-config.
pc=$(find "$prefix" -name nelvo.pc)
PKG_CONFIG_PATH=$(dirname "$pc")
export PKG_CONFIG_PATH ${sysroot:+PKG_CONFIG_SYSROOT_DIR="$sysroot"}
lib=${PKG_CONFIG_PATH%/pkgconfig}
flags() { pkg-config --cflags --libs "$@"; }
read -ra shared < <(flags nelvo)
read -ra static < <(flags --static nelvo)
read -ra testkit < <(flags nelvo-testkit)
cc -Wall -o "$work/hello" "$examples/hello/main.c" "${shared[@]}" -Wl,-rpath,"$lib"
cc -Wall -o "$work/hello-static" "$examples/hello/main.c" -Wl,-Bstatic "${static[@]}" \
    -Wl,-Bdynamic
stands_alone "$work/hello-static"

# The guide's complete test.
sed -n '/^```cpp$/,/^```$/ { /^```/!p }' "$here/../../../docs/testing-applications.md" \
    >"$work/guide_test.cpp"
c++ -std=c++17 -Wall -o "$work/guide_test" "$work/guide_test.cpp" "${testkit[@]}" \
    -lgtest_main -lgtest -Wl,-rpath,"$lib"
"$work/guide_test"

# C++ with CMake.
cmake -G Ninja -S "$here" -B "$work/player" -DCMAKE_PREFIX_PATH="$prefix" \
    -DPLAYER="$(cd "$examples/player" && pwd)" >"$work/cmake.log" || { cat "$work/cmake.log"; exit 1; }
cmake --build "$work/player" >"$work/build.log" || { cat "$work/build.log"; exit 1; }
stands_alone "$work/player/player-nelvo_static"
ctest --test-dir "$work/player/player_tests" --output-on-failure --no-tests=error

nelvoctl=$(cat "$work/player/nelvoctl")
NELVO_HOST_RUNTIME_DIR=$(mktemp -d)
export NELVO_HOST_RUNTIME_DIR
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$NELVO_HOST_RUNTIME_DIR"' EXIT
for program in hello hello-static player/player-nelvo player/player-nelvo_static; do
    app=$(sed -E 's/.*(hello|player).*/\1/' <<<"${program##*/}")
    NELVO_HOST_MANIFEST=$examples/$app/tizen-manifest.xml "$work/$program" &
    "$nelvoctl" state "demo.$app" --wait 20 --json || (($? == 1)) # hello has no state
    kill $! && { wait $! || true; }
done
