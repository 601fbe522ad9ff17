#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check.sh PACKAGES WORK: unpacks the packages into clean roots in WORK, and from these alone builds an
# application and drives it: from the Debian packages as on a desktop; from the RPMs with the library as
# a device gets it.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
packages=$1
rm -rf "$2" && mkdir -p "$2/deb" "$2/rpm"
work=$(cd "$2" && pwd)

for package in "$packages"/*.deb; do
    dpkg-deb -x "$package" "$work/deb"
done
LD_LIBRARY_PATH=$(dirname "$(find "$work/deb" -name libnelvo.so.1)") \
    "$here/../tests/programs/outside/check.sh" /usr "$work/outside" "$work/deb"

for package in "$packages"/nelvo-*."$(uname -m)".rpm; do
    rpm2cpio "$package" | (cd "$work/rpm" && cpio --quiet -idm)
done
example=$here/../examples/hello
library=$(dirname "$(find "$work/rpm" -name libnelvo.so.1)")
host=$(dirname "$(find "$work/deb" -name libnelvo-host.so.1)")
cc -o "$work/hello" "$example/main.c" -I"$work/rpm/usr/include" -I"$work/deb/usr/include/nelvo-host" \
    -L"$library" -lnelvo -L"$host" -lnelvo-host
export LD_LIBRARY_PATH=$library:$host
NELVO_HOST_RUNTIME_DIR=$(mktemp -d)
export NELVO_HOST_RUNTIME_DIR NELVO_HOST_MANIFEST=$example/tizen-manifest.xml
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$NELVO_HOST_RUNTIME_DIR"' EXIT
"$work/hello" &
"$work/deb/usr/bin/nelvoctl" call demo.hello greet Ann --wait 20
