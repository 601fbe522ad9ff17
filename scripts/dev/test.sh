#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev test [OPTION]
#
# Builds and runs the tests. OPTION is one of
#   --sanitize                 under the address, leak and undefined-behaviour sanitizers
#   --threads                  those that use threads, under the thread sanitizer
#   --compiler gcc|clang       with that compiler, gcc unless named
#   --device                   with clang, as for a device: the platform is what pkg-config finds in a
#                              sysroot, into which the host platform is installed
#   --arch aarch64|armv7       for another architecture, run by qemu
source scripts/dev/common.sh

# The compiler, libraries and emulator for another architecture. Says what is missing and how to get it:
# adding an architecture and telling the kernel about qemu change more than this project.
need_architecture() {
    local debian triplet qemu missing=()
    case $1 in
    aarch64) debian=arm64 triplet=aarch64-linux-gnu qemu=qemu-aarch64 ;;
    armv7) debian=armhf triplet=arm-linux-gnueabihf qemu=qemu-arm ;;
    esac
    local packages=("g++-$triplet" qemu-user-static binfmt-support
        {libstdc++6,libexpat1-dev,libedit-dev,libgtest-dev,libgmock-dev}:"$debian")
    dpkg --print-foreign-architectures | grep -qx "$debian" ||
        missing+=("dpkg --add-architecture $debian && apt-get update")
    local package absent=()
    for package in "${packages[@]}"; do
        is_installed "$package" || absent+=("$package")
    done
    ((${#absent[@]} == 0)) || missing+=("apt-get install --no-install-recommends ${absent[*]}")
    [[ -e /proc/sys/fs/binfmt_misc/$qemu ]] ||
        missing+=("mount -t binfmt_misc none /proc/sys/fs/binfmt_misc; update-binfmts --enable $qemu")
    ((${#missing[@]})) || return 0
    echo "dev: tests for $1 need the following once, as root:" >&2
    printf '  %s\n' "${missing[@]}" >&2
    exit 1
}


case $* in
'' | '--compiler gcc') preset=dev ;;
'--compiler clang') preset=clang ;;
--sanitize) preset=asan ;;
--threads) preset=tsan ;;
--device) preset=device ;;
'--arch aarch64' | '--arch armv7') preset=$2 ;;
*) die "test does not take \"$*\"; see ./dev help" 2 ;;
esac

compilers=(g++)
case $preset in
clang) compilers=(clang) ;;
device) compilers+=(clang) ;;
esac
need "${compilers[@]}" "${BUILD_PACKAGES[@]}" libgtest-dev libgmock-dev python3 pkgconf
[[ $* != --arch* ]] || need_architecture "$preset"
if [[ $preset == device ]]; then
    build release
    quietly sysroot tests/programs/sysroot.sh build/release "$PWD/build/sysroot" true
    export PKG_CONFIG_SYSROOT_DIR=$PWD/build/sysroot PKG_CONFIG_LIBDIR
    PKG_CONFIG_LIBDIR=$(find "$PKG_CONFIG_SYSROOT_DIR" -path '*/nelvo-host/pkgconfig')
fi
build "$preset"
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
only=()
case $preset in
tsan) only=(--tests-regex '^ThreadsTest') ;;
# Not what looks at other processes' programs: all of them are qemu.
aarch64 | armv7) only=(--exclude-regex '^(NelvoctlTest.NamesWhatIsWrongWithAProcess|docs_debugging)$') ;;
esac
ctest --test-dir "build/$preset" "${only[@]}" --output-on-failure --no-tests=error --parallel "$(nproc)"
