#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# with_allow_list.sh IDLE COMMAND...: runs the command where /usr/share/nelvo/allow_list.dat lists
# the clients of the benchmark, IDLE idle ones and the working one. Nobody else sees that file: it
# lies in a mount namespace of the command's own, for which no root is needed.
set -eu
idle=$1
shift
exec unshare --map-root-user --mount sh -euc '
    mount -t tmpfs none /usr/share
    mkdir /usr/share/nelvo
    {
        echo bench.client
        [ "$0" -eq 0 ] || seq -f bench.idle.%.0f 0 "$(($0 - 1))"
    } >/usr/share/nelvo/allow_list.dat
    # The new namespace has cleared it: the command ends with its parent.
    exec setpriv --pdeathsig KILL "$@"
' "$idle" "$@"
