#!/bin/sh
# Runs a test in a /tmp of its own, which vanishes with it: there the folder of the dumps can be anything, and
# nobody's dumps are in it. Usage: private-tmp.sh SOURCE_FOLDER BUILD_FOLDER TEST [ARGUMENT...]
#
# As an ordinary user this needs user namespaces. Everybody stays who he is in there, because the tests are to
# show what an ordinary user meets. Where the system refuses, the test uses the machine's /tmp, and skips what
# could touch other people's files.

# No core dump of a program that crashes on purpose is to stay behind. Debian's sh has the option:
# shellcheck disable=SC3045
ulimit -c 0

if [ "$1" != --inside ]; then
    identity=
    [ "$(id -u)" -eq 0 ] || identity="--user --map-current-user --keep-caps"
    # shellcheck disable=SC2086 # several words
    if unshare $identity --mount true 2> /dev/null; then
        exec unshare $identity --mount "$0" --inside "$@"
    fi
    echo "No /tmp of its own for this test: unshare(1) is refused." >&2
    shift 2
    exec "$@"
fi

source=$2
build=$3
shift 3
set -e

# What lies in /tmp itself must stay reachable under its path.
exec 8< "$source" 9< "$build"
mount -t tmpfs -o mode=1777 tmpfs /tmp
case $source in /tmp/*) mkdir -p "$source" && mount -c --bind /proc/self/fd/8 "$source" ;; esac
case $build in /tmp/*) mkdir -p "$build" && mount -c --bind /proc/self/fd/9 "$build" ;; esac

# Folders for the dumps that only a mount can make.
mkdir /tmp/read-only /tmp/full
mount -t tmpfs -o ro tmpfs /tmp/read-only
mount -t tmpfs -o size=4k,mode=1777 tmpfs /tmp/full

# The descriptors and the capabilities that this has taken are not the test's.
[ "$(id -u)" -eq 0 ] || exec setpriv --inh-caps=-all --ambient-caps=-all "$@" 8<&- 9<&-
exec "$@" 8<&- 9<&-
