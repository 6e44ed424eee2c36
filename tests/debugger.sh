# shellcheck shell=sh disable=SC2034
# What the stand-ins for gdb in tst_program.cpp can use, and tests/application.sh.

application=$7

# Prints the path of the dump file.
dump() {
    grep -D skip -l "^$NAME has closed" /tmp/vastel-mail/*.dump
}

# await TEXT: waits until the dump file has it.
await() {
    attempts=0
    until grep -qs "$1" "$(dump)" || [ $((attempts += 1)) -gt 6000 ]; do sleep 0.01; done
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
