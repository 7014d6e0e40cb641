#!/usr/bin/env bash
# Stands in for ketra in the workflow test. It runs $KETRA_REAL, except the
# first time it is called with "-o $KILL_RUN" and "-chunk $KILL_CHUNK": then
# it lets that run go in 10 ms steps until a record file is being written,
# freezes it, notes the run's folder in $KILL_NOTE, and cancels its own Slurm
# job, as an operator or a failing node would.
set -u
if [[ " $* " == *" -o $KILL_RUN "* && " $* " == *" -chunk $KILL_CHUNK "* ]] && mkdir "$KILL_NOTE.lock" 2> /dev/null; then
    name=$(basename "$KILL_RUN").chunk${KILL_CHUNK/ /of}.part
    folder=$(dirname "$KILL_RUN")
    "$KETRA_REAL" "$@" &
    pid=$!
    kill -STOP "$pid"
    while kill -0 "$pid" 2> /dev/null && ! compgen -G "$folder/.$name.*" > /dev/null; do
        kill -CONT "$pid"
        sleep 0.01
        kill -STOP "$pid" 2> /dev/null
    done
    { ls -a "$folder"; echo "index ends: $(tail -n 1 "$folder/$name" 2> /dev/null)"; } > "$KILL_NOTE"
    scancel "$SLURM_JOB_ID"
    wait "$pid"
    exit 1
fi
exec "$KETRA_REAL" "$@"
