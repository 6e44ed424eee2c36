#!/bin/sh
# The crashed application of the tests: writes down what it was started with, starts the handler as its child,
# waits for it and ends with its exit status. Its arguments are what the tests compare, so what it is to do
# comes in the environment:
#   PROBE_FOLDER   where it writes run-0, run-1, ... at each start
#   PROBE_RUNS     how often it runs; the last run only ends
#   PROBE_HANDLER  the handler's path
#   PROBE_STATE    what the handler inherits

[ "$PROBE_STATE" != "umask without the owner's rights" ] || umask 0177

run=0
while [ -e "$PROBE_FOLDER/run-$run" ]; do run=$((run + 1)); done

# As long as it is written, the record has another name.
{
    cat "/proc/$$/cmdline"
    tr '\n\0' '\001\n' < "/proc/$$/environ" | sort
    grep -E 'Sig(Blk|Ign)|Umask' /proc/self/status
    ls /proc/self/fd
    pwd -P
    cat /proc/self/limits
} > "$PROBE_FOLDER/partial-$$"
mv "$PROBE_FOLDER/partial-$$" "$PROBE_FOLDER/run-$run"
[ "$((run + 1))" -lt "$PROBE_RUNS" ] || exit 0

crash() {
    "$PROBE_HANDLER" SIGSEGV mail "$@"
}

case $PROBE_STATE in
    "signals blocked") env --block-signal "$PROBE_HANDLER" SIGSEGV mail ;;
    "signals ignored") env --ignore-signal "$PROBE_HANDLER" SIGSEGV mail ;;
    "no other debugger") PATH=$PROBE_FOLDER crash ;;
    "restart disabled") crash --disable-restart ;;
    "descriptors open") crash 3>&2 4>&2 5>&2 6>&2 7>&2 8>&2 9>&2 ;;
    "no standard streams") crash <&- >&- 2>&- ;;
    "no standard error") crash 2>&- ;;
    "log without reader")
        # The reader of a FIFO is gone when the FIFO can be opened for writing and its name vanishes.
        mkfifo "$PROBE_FOLDER/log-$$"
        : < "$PROBE_FOLDER/log-$$" &
        exec 3> "$PROBE_FOLDER/log-$$"
        wait
        crash > /dev/null 2>&3
        ;;
    "log that nobody reads")
        mkfifo "$PROBE_FOLDER/log-$$"
        exec 3<> "$PROBE_FOLDER/log-$$"
        crash 2>&3
        ;;
    "log on a full device") crash > /dev/full 2>&1 ;;
    *) crash ;;
esac
exit $?
