#!/usr/bin/env bash
# xvfb-stop.sh DIR NAME
# Stops the Xvfb that xvfb-start.sh started for NAME, by its PID file.
set -uo pipefail
dir=$1
name=$2
pidfile=$dir/$name.pid
if [[ -r $pidfile ]]; then
    pid=$(cat "$pidfile")
    # Only an Xvfb: the number may have gone to another process meanwhile.
    if tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep -q '^Xvfb ' && kill "$pid" 2>/dev/null; then
        for _ in $(seq 1 100); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.05
        done
        kill -0 "$pid" 2>/dev/null && kill -9 "$pid" 2>/dev/null
    fi
fi
rm -f "$pidfile" "$dir/$name.env" "$dir/$name.display"
exit 0
