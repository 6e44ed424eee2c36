#!/bin/sh
# The application of the scenarios: records what it was started with, starts the crash handler and ends
# with its exit status. Its arguments are part of the record, so variables say what it does:
#   PROBE_FOLDER   where it records its runs: run-0, run-1, ...
#   PROBE_RUNS     how often it runs; the last run does not crash
#   PROBE_CRASH    how it starts the crash handler PROBE_HANDLER, whose command line is "$@"

run=0
while [ -e "$PROBE_FOLDER/run-$run" ]; do run=$((run + 1)); done
for file in cmdline environ; do cat "/proc/$$/$file" > "$PROBE_FOLDER/$file-$run"; done
{
    cat "/proc/$$/cmdline"
    sort -z -T "$PROBE_FOLDER" "/proc/$$/environ" # a restart does not keep their order
    grep -E 'Sig(Blk|Ign)|Umask' /proc/self/status
    ls /proc/self/fd
    pwd -P
    cat /proc/self/limits
} > "$PROBE_FOLDER/state-$run"
# The record gets its name when it is complete: somebody may wait for it.
mv "$PROBE_FOLDER/state-$run" "$PROBE_FOLDER/run-$run"
[ "$((run + 1))" -lt "$PROBE_RUNS" ] || exit 0
set -- "$PROBE_HANDLER" SIGSEGV mail
eval "$PROBE_CRASH"
