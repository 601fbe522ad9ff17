#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What the commands of ./dev share: packages and building. Sourced by each of them, in the project's folder.
set -euo pipefail

die() {
    printf 'dev: %s\n' "$1" >&2
    exit "${2:-1}"
}

# --- packages ------------------------------------------------------------------------------------

why() {
    case $1 in
    make) echo "the compiler links with several processes at a time through it" ;;
    cmake | ninja-build) echo "builds the project" ;;
    g++ | g++-* | clang) echo "the compiler" ;;
    debootstrap) echo "makes bare installations" ;;
    qemu-user-static) echo "runs programs for another architecture" ;;
    binfmt-support) echo "hands programs for another architecture to qemu" ;;
    libstdc++6) echo "what the compiler builds runs with it" ;;
    libexpat1-dev) echo "the host platform reads application manifests with it" ;;
    libcli11-dev) echo "nelvoctl reads its arguments with it" ;;
    libedit-dev) echo "nelvoctl's prompt edits lines with it" ;;
    libvalijson-dev) echo "nelvoctl checks what assistants send with it" ;;
    nlohmann-json3-dev) echo "nelvoctl and the example player write JSON with it" ;;
    libgtest-dev | libgmock-dev) echo "the tests are written with it" ;;
    gcovr) echo "reports which lines and branches the tests reach" ;;
    libclang-rt-dev) echo "holds the compiler's fuzzer and sanitizers" ;;
    python3) echo "checks the documents in ./dev test, makes the mutants of ./dev mutants, runs the measurements of ./dev bench" ;;
    strace) echo "shows the system calls of ./dev soak and ./dev bench" ;;
    valgrind) echo "counts instructions" ;;
    libsystemd-dev | dbus-daemon) echo "sd-bus, which ./dev bench compares with" ;;
    libgrpc++-dev | libprotobuf-dev | protobuf-compiler-grpc)
        echo "gRPC, which ./dev bench compares with"
        ;;
    libbenchmark-dev) echo "measures the pieces of a round trip" ;;
    doxygen) echo "describes the public headers" ;;
    clang-format) echo "formats the sources" ;;
    rpm | rpmlint | cpio) echo "builds and checks the RPMs" ;;
    file) echo "tells programs from texts" ;;
    dpkg-dev) echo "finds what the Debian packages depend on" ;;
    abigail-tools) echo "compares binary interfaces" ;;
    clang-tidy | cppcheck | shellcheck) echo "looks for mistakes" ;;
    git) echo "tells what is committed" ;;
    pkgconf) echo "tells where libraries are" ;;
    esac
}

# For this architecture, unless the package is NAME:ARCHITECTURE; others may be there as well.
is_installed() {
    local architecture=${1#*:}
    [[ $1 == *:* ]] || architecture=$(dpkg --print-architecture)
    dpkg-query --show --showformat '${Architecture} ${db:Status-Status}\n' "$1" 2>/dev/null |
        grep -qxE "($architecture|all) installed"
}

# Makes sure that the packages given are there.
need() {
    local package missing=()
    if ! command -v dpkg-query >/dev/null; then
        echo "dev: no Debian packages on this system; going on as if these were there: $*" >&2
        return
    fi
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    ((${#missing[@]})) || return 0

    if ((EUID != 0)); then
        echo "sudo apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    echo "These packages are missing and will now be installed:"
    for package in "${missing[@]}"; do
        printf '  %-20s %s\n' "$package" "$(why "${package%:*}")"
    done
    install_packages "${missing[@]}"
}

install_packages() {
    # An index that can't be had need not be one that is wanted.
    (quietly packages apt-get update) || echo "dev: going on with the lists there are" >&2
    quietly packages env DEBIAN_FRONTEND=noninteractive \
        apt-get install --yes --no-install-recommends "$@"
}

# --- building ------------------------------------------------------------------------------------

# Runs a command; its output is kept in build/NAME.log and shown only when it fails.
quietly() {
    local log=build/$1.log
    shift
    mkdir -p build
    if ! "$@" >"$log" 2>&1; then
        cat "$log" >&2
        die "failed: $*"
    fi
}

# Configures and builds build/NAME: a preset, or a preset with options of its own. With NELVO_WERROR=ON in the
# environment warnings are errors, as in .ci/run.
build() {
    local name=$1 from=(--preset "$1") target=()
    case $name in
    device) from=(--preset clang -DNELVO_PLATFORM=device) ;;
    coverage) from=(--preset dev -DCMAKE_BUILD_TYPE=Debug -DNELVO_INSTRUMENT=coverage) ;;
    fuzz)
        from=(--preset clang -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNELVO_INSTRUMENT=fuzz -DNELVO_TESTS=OFF)
        target=(--target fuzzers)
        ;;
    tsan) target=(--target threads_test) ;;
    bench) from=(--preset release -DNELVO_BENCH=ON) ;;
    abi) # with what tells the types of the interface
        from=(--preset release -DCMAKE_C_FLAGS=-g -DCMAKE_CXX_FLAGS=-g
            -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=OFF)
        target=(--target nelvo)
        ;;
    aarch64) from=(-G Ninja -DNELVO_TRIPLET=aarch64-linux-gnu) ;;
    armv7) from=(-G Ninja -DNELVO_TRIPLET=arm-linux-gnueabihf) ;;
    esac
    [[ ${from[0]} == --preset ]] ||
        from+=(-DCMAKE_TOOLCHAIN_FILE=cmake/cross.cmake -DCMAKE_BUILD_TYPE=Release)
    echo "Building in build/$name ..."
    quietly "$name" cmake -S . -B "build/$name" "${from[@]}" \
        -DCMAKE_COMPILE_WARNING_AS_ERROR="${NELVO_WERROR:-OFF}"
    quietly "$name" cmake --build "build/$name" "${target[@]}"
}

# shellcheck disable=SC2034 # used by the commands
BUILD_PACKAGES=(cmake ninja-build make libexpat1-dev libcli11-dev libedit-dev libvalijson-dev nlohmann-json3-dev)
