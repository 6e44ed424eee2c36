# shellcheck shell=sh disable=SC2034
# What the shell scripts of the tests can use: those of the test programs themselves, tests/application.sh, and
# the stand-ins for gdb in tst_program.cpp.

# In a stand-in for gdb:
application=$7

# Prints the paths of the row's dump files, in the order in which they were made.
dump_files() {
    find /tmp/vastel-mail/ "$FOLDER" -maxdepth 1 -type f -name '*.dump' \
        -exec grep -ls "^[^(]*$NAME has closed" {} + 2> /dev/null | sort
}

# Prints their contents.
dumps() {
    dump_files | xargs -r cat
}

# await TEXT: waits until the dump file has it.
await() {
    attempts=0
    until dumps | grep -q "$1" || [ $((attempts += 1)) -gt 6000 ]; do sleep 0.01; done
}

# Waits until the report is complete and the crash handler, whose ID is in the file "handler", sleeps: its log is full.
await_full_log() {
    await 'text to'
    attempts=0
    until grep -q '^State:.S' "/proc/$(cat handler)/status" || [ $((attempts += 1)) -gt 6000 ]; do sleep 0.01; done
}

# The pipe that is the standard input gets room for MIBS MiB; prints why not, and the room that it has (pipe(7)).
set_room() {
    perl -e 'fcntl(STDIN, 1031, $ARGV[0] << 20) or print "$!\n"' "$1"
}
room() {
    perl -e 'print fcntl(STDIN, 1032, 0), "\n"'
}

# Prints what is in the pipe, without waiting for more.
read_pipe() {
    dd if="$1" iflag=nonblock bs=1M 2> /dev/null || :
}

# Runs a command in a PID namespace of its own, with options of unshare(1).
in_pid_namespace() {
    if [ "$(id -u)" -eq 0 ]; then unshare --pid --fork "$@"; else unshare --user --map-current-user --pid --fork "$@"; fi
}

# Prints the mask of the signals that this process ignores. Not 32 and 33: posix_spawn(3), which ninja(1)
# uses, ignores them, and only the C library can change that.
ignored_signals() {
    printf '%x\n' $((0x$(sed -n 's/^SigIgn:[[:space:]]*//p' /proc/self/status) & ~0x180000000))
}

# Prints the signals that the crash handler and the debugger block, those that the debugger ignores, and its
# descriptors; the last one is that of ls(1).
show_state() {
    attempts=0 # while it starts a program, the crash handler blocks signals
    while grep -q 'SigBlk.*[1-9a-f]' "/proc/$PPID/status" && [ $((attempts += 1)) -lt 1000 ]; do sleep 0.01; done
    printf '%s\n' "$(grep -h SigBlk "/proc/$PPID/status" /proc/self/status)" "$(ignored_signals)" \
        "$(ls /proc/self/fd)"
}
