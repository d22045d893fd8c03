# Functions shared by the service start scripts; sourced, never run.

# start_pipewire_session STATE_DIR
# Starts a session bus, PipeWire and WirePlumber for the runtime folder in
# $XDG_RUNTIME_DIR, whose configuration lies under $XDG_CONFIG_HOME. Leaves
# dbus.pid, pipewire.pid and wireplumber.pid (and their logs) in STATE_DIR and
# exports DBUS_SESSION_BUS_ADDRESS.
start_pipewire_session() {
    local state=$1
    # WirePlumber's Bluetooth monitor asks logind which seat is active, and
    # WirePlumber exits when logind's state folders are missing (a container,
    # a fresh root without systemd). The tests use no Bluetooth device.
    mkdir -p "$XDG_CONFIG_HOME/wireplumber/bluetooth.lua.d"
    cat >"$XDG_CONFIG_HOME/wireplumber/bluetooth.lua.d/51-no-logind.lua" <<'LUA'
bluez_monitor.properties["with-logind"] = false
LUA

    dbus-daemon --session --fork --print-pid=4 --address="unix:path=$XDG_RUNTIME_DIR/bus" 4>"$state/dbus.pid"
    export DBUS_SESSION_BUS_ADDRESS=unix:path=$XDG_RUNTIME_DIR/bus

    pipewire >"$state/pipewire.log" 2>&1 &
    echo $! >"$state/pipewire.pid"
    for _ in $(seq 100); do [[ -S $XDG_RUNTIME_DIR/pipewire-0 ]] && break; sleep 0.05; done
    [[ -S $XDG_RUNTIME_DIR/pipewire-0 ]] || { echo "pipewire did not start" >&2; cat "$state/pipewire.log" >&2; return 1; }

    wireplumber >"$state/wireplumber.log" 2>&1 &
    echo $! >"$state/wireplumber.pid"
}

# play_silence STATE_DIR SINK RATE
# Plays silence into SINK at its own rate (a stream at another rate could
# switch an idle sink to it), so that its monitor delivers blocks; the
# player's PID goes to STATE_DIR/silence-SINK.pid.
play_silence() {
    local state=$1 sink=$2 rate=$3
    pacat --playback --latency-msec=20 --device="$sink" --raw --format=s16le --rate="$rate" --channels=2 \
        </dev/zero >/dev/null 2>&1 &
    echo $! >"$state/silence-$sink.pid"
}
