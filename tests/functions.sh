# shellcheck shell=sh
# What the shell scripts of the tests can use: those of the test programs themselves, tests/application.sh, and
# the stand-ins for gdb in tst_program.cpp.

# Prints the paths of the row's dump files, in the order in which they were made.
dump_files() {
    find /tmp/vastel-mail/ "$FOLDER" -maxdepth 1 -type f -name '*.dump' \
        -exec grep -ls "^[^(]*$NAME has closed" {} + 2> /dev/null | sort
}

# Prints their contents.
dumps() {
    dump_files | xargs -r cat
}

# Installs the library below $PREFIX, and builds $APP against it. Not optimized, with debug information: the
# reports have the functions of the source.
install_and_build() {
    DESTDIR='' cmake --install "$BUILD" --prefix "$PREFIX" > /dev/null
    # shellcheck disable=SC2046 # several words
    cc -std=c11 -Wall -Wextra -Wpedantic -Werror -g -O0 -pthread -o "$APP" \
        "$SOURCE/tests/crashingapplication.c" $(pkg-config --cflags --libs "$(package)")
}
package() {
    find "$PREFIX" -name '*.pc'
}

# build_example GENERATOR COMPILER: copies it, and gives it the row's name.
build_example() {
    cp "$SOURCE/examples"/* .
    sed -i "s/Example Mail/$NAME/" examplemail.cpp
    cmake -G "$1" -D CMAKE_CXX_COMPILER="$2" -D CMAKE_PREFIX_PATH="$PREFIX" . >&2 && cmake --build . >&2
}

# Prints how the list of installed files differs from the files.
compare_manifest() {
    DESTDIR=$PWD/root cmake --install "$BUILD" --prefix /usr > log || cat log
    find root -type f | sed s/^root// | sort > found
    sort "$BUILD/install_manifest.txt" | diff found -
}

# wait_until COMMAND...: waits until it succeeds, for ten seconds at least.
wait_until() {
    attempts=0
    until "$@" || [ $((attempts += 1)) -gt 1000 ]; do sleep 0.01; done
}

# await TEXT: waits until a dump file has it.
await() {
    wait_until has_dump_with "$1"
}
has_dump_with() {
    dumps | grep -q "$1"
}

# Prints the mask of the signals that this process ignores. Not 32 and 33: posix_spawn(3), which ninja(1)
# uses, ignores them, and only the C library can change that.
ignored_signals() {
    printf '%x\n' $((0x$(sed -n 's/^SigIgn:[[:space:]]*//p' /proc/self/status) & ~0x180000000))
}

# The stand-in for gdb prints its command line, if it ends with the ID of the crashed process, its commands, the
# mode of their file, and its working directory.
show_task() {
    [ "$7" = "$(cut -d ' ' -f 4 "/proc/$PPID/stat")" ] || return
    file=${5#"$FOLDER"/}
    printf '%s\n' "$1 $2 $3 $4 ${file%.*} $6" "$(cat "$5")" "$(stat -c %a "$5")" "$(pwd -P)"
}

# It prints the signals that the crash handler and it block, those that it ignores, and its descriptors; the last
# one is that of ls(1). While it starts a program, the crash handler blocks signals.
show_state() {
    wait_until grep -q 'SigBlk.*[[:space:]]0*$' "/proc/$PPID/status"
    printf '%s\n' "$(grep -h SigBlk "/proc/$PPID/status" /proc/self/status)" "$(ignored_signals)" \
        "$(ls /proc/self/fd)"
}

# Runs a command in a PID namespace of its own, with options of unshare(1) in front.
in_pid_namespace() {
    [ "$(id -u)" -eq 0 ] || set -- --user --map-current-user "$@"
    unshare --pid --fork "$@"
}

# Runs a command as a background process of a terminal that stops those that write to it.
in_background() {
    export command="$1" argument="$2"
    # shellcheck disable=SC2016 # for the inner shell
    script -q -c 'stty tostop; set -m; "$command" "$argument" > status & wait' /dev/null
}

# What follows runs the crash handler, whose command line is "$@", with a pipe as its standard error.

# with_slow_reader FLAG COMMAND...: nobody reads before the log is full. dd(1) sets FLAG, sync or nonblock, on the
# pipe; the crash handler must leave the pipe's flags alone.
with_slow_reader() {
    flag=$1
    shift
    mkfifo log
    { wait_until log_is_full; cat; } < log &
    exec 3> log
    dd oflag="$flag" count=0 status=none >&3
    flags=$(cat "/proc/$$/fdinfo/3")
    "$@" 2>&3 &
    echo $! > handler
    wait $!
    [ "$(cat "/proc/$$/fdinfo/3")" = "$flags" ] || echo "other flags"
    exec 3>&-
    wait
}
# The crash handler sleeps, and not because it waits for gdb. It is asked without another process: on a busy
# machine, that could take longer than the crash handler waits.
log_is_full() {
    { read -r pid < handler && read -r _ _ state _ < "/proc/$pid/stat"; } 2> /dev/null || return
    [ "$state" = S ] && ! { read -r _ < "/proc/$pid/task/$pid/children"; } 2> /dev/null
}

# Makes the log, whose descriptor is 3, and fills it: nothing more fits in.
make_full_log() {
    mkfifo log
    exec 3<> log
    set_room 1 <&3
    dd if=/dev/zero of=log oflag=nonblock 2> full
}

# Each page is read late. Prints a line of the log's end, if it comes to that.
with_late_reader() {
    make_full_log
    {
        perl -e 'while (sysread STDIN, $page, 4096) {
            print $page;
            select undef, undef, undef, 0.02 unless -e "ended";
        }' < log | grep -a 'debug Destroying'
    } 3>&- &
    "$@" 2>&3 3>&-
    : > ended
    exec 3>&-
    wait
}

# The log is full from the start. Prints what it has got after that, and whether this has taken much more than a second.
with_full_log() {
    make_full_log
    began=$(date +%s)
    "$@" 2>&3
    read_pipe log
    [ $(($(date +%s) - began)) -lt 20 ] || echo late
}

# Says so if the log does not mention that the memory is used up, in the words of C++ or of the sanitizer.
listen_to() {
    { "$@"; } 2>&1 | grep -aq -e std::bad_alloc -e "Failed to mmap" || echo "nothing heard"
}

# set_room MIBS: gives the pipe that is the standard input room for so many MiB, or prints why not (pipe(7)).
set_room() {
    perl -e '$F_SETPIPE_SZ = 1031; fcntl(STDIN, $F_SETPIPE_SZ, $ARGV[0] << 20) or print "$!\n"' "$1"
}

# Prints how much room it has.
room() {
    perl -e '$F_GETPIPE_SZ = 1032; print fcntl(STDIN, $F_GETPIPE_SZ, 0), "\n"'
}

# Prints what is in a pipe, without waiting for more.
read_pipe() {
    dd if="$1" iflag=nonblock bs=1M 2> /dev/null || :
}
