#!/usr/bin/env bash
# wayland-stop.sh DIR NAME
# Stops what wayland-start.sh started and removes its folder. Services that the
# session bus started on demand (the document portal, the permission store)
# have no PID file: every process whose runtime folder or command line names
# this desktop's folder ends too. All are told at once and then awaited together.
set -uo pipefail
dir=$1
name=$2
state=$dir/$name.state
[[ -r $state ]] || exit 0
T=$(cat "$state")
pids=()
for pidfile in "$T"/state/*.pid; do
    [[ -r $pidfile ]] && pids+=("$(cat "$pidfile")")
done
for environ in /proc/[0-9]*/environ; do
    pid=${environ#/proc/}
    pid=${pid%/environ}
    [[ $pid == "$$" ]] && continue
    grep -zqxF "XDG_RUNTIME_DIR=$T/xdg" "$environ" 2>/dev/null && pids+=("$pid")
done
# And every process started with one of this desktop's files (sway and its
# configuration), whatever its environment says.
while read -r pid; do
    [[ -n $pid && $pid != "$$" ]] && pids+=("$pid")
done < <(pgrep -f "$T/" || true)
fusermount3 -u -z "$T/xdg/doc" 2>/dev/null || true
((${#pids[@]})) && kill "${pids[@]}" 2>/dev/null
for _ in $(seq 100); do
    alive=0
    for pid in "${pids[@]}"; do kill -0 "$pid" 2>/dev/null && alive=1; done
    [[ $alive == 0 ]] && break
    sleep 0.05
done
((${#pids[@]})) && kill -9 "${pids[@]}" 2>/dev/null
[[ $T == /tmp/orvanta-wayland.* ]] && rm -rf "$T"
rm -f "$state" "$dir/$name.env"
exit 0
