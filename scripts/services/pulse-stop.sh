#!/usr/bin/env bash
# pulse-stop.sh DIR NAME
# Stops what pulse-start.sh started for the fixture NAME, by its PID files.
set -uo pipefail
dir=$1
name=$2
base=$dir/$name

# Gone, or a zombie that nobody reaps (an orphan under a PID 1 that doesn't wait).
gone() {
    local state
    state=$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null) || return 0
    [[ -z $state || $state == Z ]]
}

stop_pid() {
    local pid=$1
    [[ -n $pid ]] || return 0
    kill "$pid" 2>/dev/null || return 0
    for _ in $(seq 1 100); do
        gone "$pid" && return 0
        sleep 0.05
    done
    kill -9 "$pid" 2>/dev/null || true
}

for file in "$base"/silence-*.pid; do
    [[ -e $file ]] || continue
    stop_pid "$(cat "$file")"
    rm -f "$file"
done
if [[ -r $base/run/pid ]]; then
    stop_pid "$(tr -d '[:space:]' <"$base/run/pid")"
    rm -f "$base/run/pid"
fi
exit 0
