#!/bin/sh
# The application of tst_program: records what it was started with, starts the crash handler, and says with which
# exit status that ends. Its arguments are part of the record, so variables say what it does:
#   FOLDER         where it records its runs: run-0, run-1, ...
#   CRASHES        how often it crashes; the next run ends at once
#   START_HANDLER  how it starts the crash handler, whose command line is "$@"
#   NAME           the end of the name that it gives itself in the report
#   SOURCE, BUILD  the project's folders

. "$SOURCE/tests/functions.sh"
run=0
while [ -e "$FOLDER/run-$run" ]; do run=$((run + 1)); done
cat "/proc/$$/environ" > "$FOLDER/environ-$run"
{
    # As lines: each argument and variable with a visible NUL at its end. A restart does not keep their order.
    LC_ALL=C sed -z 's/$/\\0/' "/proc/$$/cmdline" | tr '\000' '\n'
    sort -z -T "$FOLDER" "/proc/$$/environ" | LC_ALL=C sed -z 's/$/\\0/' | tr '\000' '\n'
    ignored_signals
    grep -E 'SigBlk|Umask' /proc/self/status
    ls /proc/self/fd
    readlink "/proc/$$/cwd"
    cat /proc/self/limits
} > "$FOLDER/run-$run"
[ "$run" -lt "$CRASHES" ] || exit 0
# Percent signs, and letters that are not ASCII, must come through unchanged.
set -- "$BUILD/crash-handler" SIGSEGV "Pöst%2b%1-$NAME"
eval "$START_HANDLER"
echo "exit status $?"
