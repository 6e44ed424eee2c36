#!/bin/sh
# Runs a test in a /tmp of its own, where the folder of the dump files can be anything, with the signals as
# they are by default. Usage: own-tmp.sh SOURCE_FOLDER BUILD_FOLDER TEST [ARGUMENT...]
#
# An ordinary user needs a user namespace for that, and stays the same user in it. Where the system
# refuses, the test has the machine's /tmp, and skips the rows that would plant something there.
#
# Programs that crash on purpose must not leave core dumps. Debian's sh has the option.
# shellcheck disable=SC3045
ulimit -c 0
if [ "$1" != --inside ]; then
    own=
    # --keep-caps: otherwise the exec below loses the capability to mount.
    if [ "$(id -u)" -ne 0 ]; then own="--user --map-current-user --keep-caps"; fi
    # shellcheck disable=SC2086 # several words
    if unshare $own --mount mount -t tmpfs tmpfs /tmp 2> /dev/null; then
        # shellcheck disable=SC2086 # several words
        exec unshare $own --mount "$0" --inside "$@"
    fi
    echo "No /tmp of its own for this test: the system refuses it." >&2
    shift 2
    exec env --default-signal TEST_IN_PLACE=yes "$@"
fi

set -e
# The new /tmp covers folders below it. Their descriptors still reach them, so they are put back there.
exec 8< "$2" 9< "$3"
mount -t tmpfs -o mode=1777 tmpfs /tmp
case $2 in /tmp/*) mkdir -p "$2" && mount -c --bind /proc/self/fd/8 "$2" ;; esac
case $3 in /tmp/*) mkdir -p "$3" && mount -c --bind /proc/self/fd/9 "$3" ;; esac
shift 3
# The test must not have the capabilities that were kept for the mounts.
[ "$(id -u)" -eq 0 ] || set -- setpriv --inh-caps=-all --ambient-caps=-all "$@"
exec env --default-signal TEST_IN_PLACE=yes TEST_HAS_OWN_TMP=yes "$@" 8<&- 9<&-
