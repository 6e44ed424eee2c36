#!/bin/sh
# Runs the test program $TEST in a /tmp of its own, where the folder of the dump files can be anything, with the
# signals as they are by default. $SOURCE and $BUILD are the project's folders. For the test, OWN_TMP is true(1)
# or false(1), and CLEAN_UP the command that removes the folder of the dump files after a row.
#
# An ordinary user needs a user namespace for that, and stays the same user in it. Where the system
# refuses, the test has the machine's /tmp, and skips the rows that would plant something there.
#
# Programs that crash on purpose must not leave core dumps. Debian's sh has the option.
# shellcheck disable=SC3045
ulimit -c 0
if [ "${1-}" != --inside ]; then
    own=
    # --keep-caps: otherwise the exec below loses the capability to mount.
    if [ "$(id -u)" -ne 0 ]; then own="--user --map-current-user --keep-caps"; fi
    # shellcheck disable=SC2086 # several words
    if unshare $own --mount mount -t tmpfs tmpfs /tmp 2> /dev/null; then
        # shellcheck disable=SC2086 # several words
        exec unshare $own --mount "$0" --inside "$@"
    fi
    echo "No /tmp of its own for this test: the system refuses it." >&2
    clean_up='rmdir --ignore-fail-on-non-empty /tmp/vastel-mail'
    [ ! -e /tmp/vastel-mail ] || clean_up=true
    exec env --default-signal OWN_TMP=false CLEAN_UP="$clean_up" "$TEST" "$@"
fi

set -e
shift
set -- "$TEST" "$@"
# The new /tmp covers folders below it. Their descriptors still reach them, so they are put back there.
exec 8< "$SOURCE" 9< "$BUILD"
mount -t tmpfs -o mode=1777 tmpfs /tmp
case $SOURCE in /tmp/*) mkdir -p "$SOURCE" && mount -c --bind /proc/self/fd/8 "$SOURCE" ;; esac
case $BUILD in /tmp/*) mkdir -p "$BUILD" && mount -c --bind /proc/self/fd/9 "$BUILD" ;; esac
# The test must not have the capabilities that were kept for the mounts.
[ "$(id -u)" -eq 0 ] || set -- setpriv --inh-caps=-all --ambient-caps=-all "$@"
exec env --default-signal OWN_TMP=true CLEAN_UP='rm -rf /tmp/vastel-mail' "$@" 8<&- 9<&-
