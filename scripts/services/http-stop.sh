#!/usr/bin/env bash
# http-stop.sh DIR NAME
# Stops the server that http-start.sh started, by its PID file.
set -uo pipefail
dir=$1
name=$2
if [[ -s $dir/$name.pid ]]; then
    pid=$(cat "$dir/$name.pid")
    kill "$pid" 2>/dev/null
    for _ in $(seq 1 50); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    kill -9 "$pid" 2>/dev/null || true
fi
rm -f "$dir/$name.env" "$dir/$name.port" "$dir/$name.pid"
exit 0
