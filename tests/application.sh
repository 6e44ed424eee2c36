#!/bin/sh
# The application of tst_program: records what it was started with, and starts the crash handler. Its arguments are
# those of a row, so variables say what it does:
#   FOLDER         where it records its runs: run-0, run-1, ...
#   CRASHES        how often it crashes; the next run ends at once
#   START_HANDLER  how it starts the crash handler, whose command line is "$@"
#   NAME           the end of the name that it gives itself in the report

run=0
while [ -e "$FOLDER/run-$run" ]; do run=$((run + 1)); done
echo $$ > "$FOLDER/pid-$run"
{
    tr '\000' '\n' < "/proc/$$/cmdline"
    sort -z -T "$FOLDER" "/proc/$$/environ" | tr '\000' '\n' # a restart does not keep the order
    grep -E 'Sig(Blk|Ign)|Umask' /proc/self/status
    readlink "/proc/$$/cwd"
    cat /proc/self/limits
    cut -d ' ' -f 6 "/proc/$$/stat" >> "$FOLDER/sessions"
    uniq -d "$FOLDER/sessions" | sed 's/^/in the session of an earlier run: /'
} > "$FOLDER/run-$run"
[ "$run" -lt "$CRASHES" ] || exit 0
# Percent signs, and letters that are not ASCII, must come through unchanged.
set -- "$BUILD/crash-handler" SIGSEGV "Pöst%2b%1-$NAME"
eval "$START_HANDLER"
echo "exit status $?" >&2
