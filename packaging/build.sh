#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# build.sh TREE OUTPUT: builds the Debian packages and the RPMs of a source tree into a folder, the RPMs
# against the host platform as a device's sysroot. Leaves nothing in the tree.
set -euo pipefail
tree=$1
mkdir -p "$2"
output=$(cd "$2" && pwd)
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$tree" log -1 --format=%ct)} TZ=UTC LC_ALL=C
umask 022

cmake -S "$tree" -B "$output/deb" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNELVO_TESTS=OFF \
    -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON -DCMAKE_SKIP_INSTALL_RPATH=ON \
    -DCMAKE_INSTALL_PREFIX=/usr
cmake --build "$output/deb"
(cd "$output/deb" && cpack -B "$output")

spec=$output/deb/nelvo.spec
version=$(rpmspec -q --srpm --qf '%{version}' "$spec")
mkdir -p "$output"/rpm/{SOURCES,SPECS}
git -C "$tree" archive --format=tar --prefix="nelvo-$version/" HEAD |
    gzip -n >"$output/rpm/SOURCES/nelvo-$version.tar.gz"
cp "$spec" "$output/rpm/SPECS"
# rpmbuild puts the name of its folder into what it builds, so that is always the same.
top=/tmp/nelvo-rpmbuild
ln -sn "$output/rpm" "$top" || {
    echo "build.sh: another build uses $top; when there is none, remove it" >&2
    exit 1
}
trap 'rm -f "$top"' EXIT
# The packages that it asks for are not this system's; pkg-config finds what they would hold.
"$tree/tests/programs/sysroot.sh" "$output/deb" "$output/sysroot" rpmbuild -ba --nodeps \
    --define "_topdir $top" --define '_buildhost reproducible' \
    --define 'use_source_date_epoch_as_buildtime 1' --define 'clamp_mtime_to_source_date_epoch 1' \
    --define 'build_mtime_policy clamp_to_source_date_epoch' --define 'debug_package %{nil}' \
    --define 'manifest() %{nil}' \
    "$top/SPECS/nelvo.spec" # the last: a line that only the platform's rpmbuild knows
find "$output/rpm" -name '*.rpm' -exec mv {} "$output" \;
rpmlint --config "$tree/packaging/rpmlint.toml" "$output"/rpm/SPECS/nelvo.spec
