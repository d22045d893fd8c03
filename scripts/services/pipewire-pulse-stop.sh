#!/usr/bin/env bash
# pipewire-pulse-stop.sh DIR NAME
# Stops what pipewire-pulse-start.sh started, by its PID files, and waits for
# it. The environment file stays: the server may be started again under it.
set -uo pipefail
dir=$1
name=$2
T=$dir/$name.d

# Gone, or a zombie that nobody reaps (an orphan under a PID 1 that doesn't wait).
gone() {
    local state
    state=$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null) || return 0
    [[ -z $state || $state == Z ]]
}

for service in silence-sinkA silence-sinkB pipewire-pulse wireplumber pipewire dbus; do
    pidfile=$T/$service.pid
    [[ -r $pidfile ]] || continue
    pid=$(cat "$pidfile")
    if [[ -n $pid ]] && kill "$pid" 2>/dev/null; then
        for _ in $(seq 60); do gone "$pid" && break; sleep 0.05; done
        gone "$pid" || kill -9 "$pid" 2>/dev/null || true
    fi
    rm -f "$pidfile"
done
exit 0
