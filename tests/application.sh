#!/bin/sh
# The application of tst_program: records what it was started with, then starts the crash handler and ends
# with its exit status. Its arguments are part of the record, so variables say what it does:
#   FOLDER         where it records its runs: run-0, run-1, ...
#   RUNS           how often it runs; the last run does not crash
#   START_HANDLER  how it starts the crash handler, whose command line is "$@"
#   HANDLER        path of the crash handler
#   NAME           name that it gives itself in the report
#   SOURCE         the source folder

. "$SOURCE/tests/debugger.sh"
run=0
while [ -e "$FOLDER/run-$run" ]; do run=$((run + 1)); done
cat "/proc/$$/environ" > "$FOLDER/environ-$run"
{
    cat "/proc/$$/cmdline"
    sort -z -T "$FOLDER" "/proc/$$/environ" # a restart does not keep their order
    ignored_signals
    grep -E 'SigBlk|Umask' /proc/self/status
    ls /proc/self/fd
    readlink "/proc/$$/cwd"
    cat /proc/self/limits
} > "$FOLDER/run-$run"
[ "$((run + 1))" -lt "$RUNS" ] || exit 0
set -- "$HANDLER" SIGSEGV "$NAME"
eval "$START_HANDLER"
