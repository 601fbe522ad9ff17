#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev fresh [--all] [RELEASE...]
#
# Runs demo and test of what is committed on bare installations of Debian releases. Without names, on bookworm
# and trixie. Says for each how long it took, what was installed and how often the compiler warned. With --all
# it runs .ci/run, package, coverage and samples of mutants, faults and soak as well. It needs root, and leaves
# build/fresh/RELEASE.log. Exit code 77: this machine does not let it.
source scripts/dev/common.sh

COMMANDS=('./dev demo' './dev test')
EVERYTHING=(.ci/run './dev package' './dev coverage' './dev mutants 5' './dev faults 200' './dev soak 1000')

# The mirror that this machine uses.
mirror() {
    apt-get indextargets --format '$(SITE)' 'Created-By: Packages' | grep -m 1 '/debian$' ||
        echo http://deb.debian.org/debian
}

# Inside: runs a command in the installation, in the folder of the clone.
inside() {
    chroot "$root" env -i HOME=/root TERM=dumb LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin NELVO_FRESH=1 \
        bash -c "cd /nelvo && $1"
}

installed() {
    # shellcheck disable=SC2016 # for dpkg-query
    chroot "$root" dpkg-query --show --showformat '${Package}\n' | wc -l
}

# Inside: one release, from nothing.
try_release() {
    local command begin before
    debootstrap --variant=minbase --include=git,ca-certificates "$1" "$root" "$(mirror)" >>"$log" 2>&1 ||
        die "debootstrap failed; see the end of $log"
    mount -t proc proc "$root/proc"
    mount --rbind /dev "$root/dev"
    cp /etc/resolv.conf "$root/etc/"
    git clone --quiet --no-hardlinks . "$root/nelvo"
    before=$(installed)
    for command in "${@:2}"; do
        begin=$SECONDS
        if ! inside "$command" >>"$log" 2>&1 </dev/null; then
            tail -n 40 "$log" >&2
            die "$1: $command failed after $((SECONDS - begin)) s; see $log"
        fi
        echo "$1: $command passed in $((SECONDS - begin)) s"
    done
    grep -h 'warning:' "$root"/nelvo/build/*.log | sort -u >"$log.warnings" || true
    cat "$log.warnings"
    echo "$1: $(inside 'g++ --version | head -n 1'), $(($(installed) - before)) packages installed," \
        "$(wc -l <"$log.warnings") warnings"
}

if [[ ${NELVO_FRESH_ROOT:-} ]]; then # in namespaces of its own
    root=$NELVO_FRESH_ROOT log=$NELVO_FRESH_ROOT.log
    try_release "$@"
    exit
fi

commands=("${COMMANDS[@]}")
releases=()
for argument; do
    case $argument in
    --all) commands+=("${EVERYTHING[@]}") ;;
    -*) die "fresh does not take \"$argument\"; see ./dev help" 2 ;;
    *) releases+=("$argument") ;;
    esac
done
((${#releases[@]})) || releases=(bookworm trixie)
[[ ! ${NELVO_FRESH:-} ]] || die "this is a fresh installation already" 77
((EUID == 0)) || die "fresh needs root, to make installations: sudo ./dev fresh $*" 77
unshare --mount --pid --fork true 2>/dev/null || die "fresh needs mount namespaces, which this machine does not allow" 77
need debootstrap git
for release in "${releases[@]}"; do
    root=$PWD/build/fresh/$release
    trap 'rm -rf --one-file-system "$root" "$root.log.warnings"' EXIT
    rm -rf --one-file-system "$root"
    mkdir -p "$root"
    : >"$root.log"
    NELVO_FRESH_ROOT=$root unshare --mount --pid --fork --kill-child bash scripts/dev/fresh.sh "$release" "${commands[@]}"
    rm -rf --one-file-system "$root"
done
