#!/bin/sh
# tests/own-tmp.sh build/PRESET/tests/PROGRAM [ARGUMENT...]
#
# Runs a test program in a /tmp of its own, without reports of other users. Where the system refuses that, the program
# has the machine's /tmp. In both, no variables and signals of the user reach it, and there are no core dumps. SOURCE
# and BUILD are the project's folders for it. In TZ, the local time is never the universal one.
#
# shellcheck disable=SC2086,SC3045 # several words; Debian's sh has the option
ulimit -c 0
SOURCE=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "$(dirname "$1")/.." && pwd)
# An ordinary user needs a user namespace, and stays the same user in it. --keep-caps: otherwise the second exec
# loses the capability to mount.
own=
[ "$(id -u)" -eq 0 ] || own="--user --map-current-user --keep-caps"
if [ -z "$INSIDE" ]; then
    # The first one shows whether the system lets it.
    unshare $own --mount mount -t tmpfs tmpfs /tmp && INSIDE=yes exec unshare $own --mount "$0" "$@"
else
    # The new /tmp covers folders below it. Their descriptors still reach them, so they are put back there.
    exec 8< "$SOURCE" 9< "$BUILD"
    mount -t tmpfs -o mode=1777 tmpfs /tmp
    case $SOURCE in /tmp/*) mkdir -p "$SOURCE" && mount -c --bind /proc/self/fd/8 "$SOURCE" ;; esac
    case $BUILD in /tmp/*) mkdir -p "$BUILD" && mount -c --bind /proc/self/fd/9 "$BUILD" ;; esac
    # The program must not have the capabilities that were kept for the mounts.
    [ -z "$own" ] || set -- setpriv --inh-caps=-all --ambient-caps=-all "$@"
fi
exec env -i --default-signal TZ=XXX-05:45 PATH="$PATH" SOURCE="$SOURCE" BUILD="$BUILD" "$@" 8<&- 9<&-
