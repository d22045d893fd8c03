#!/usr/bin/env bash
# pipewire-stop.sh DIR NAME
# Stops what pipewire-start.sh started, by its PID files, and waits for it.
set -uo pipefail
dir=$1
name=$2
T=$dir/$name.d
for service in portal wireplumber pipewire dbus; do
    pidfile=$T/$service.pid
    [[ -r $pidfile ]] || continue
    pid=$(cat "$pidfile")
    if [[ -n $pid ]] && kill "$pid" 2>/dev/null; then
        for _ in $(seq 60); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
        kill -9 "$pid" 2>/dev/null || true
    fi
    rm -f "$pidfile"
done
rm -f "$dir/$name.env"
exit 0
