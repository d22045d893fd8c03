#!/usr/bin/env bash
# pipewire-pulse-start.sh DIR NAME
# Starts the sound server as most Linux desktops run it, in a private runtime
# directory: a session bus, PipeWire, WirePlumber and pipewire-pulse (the
# PulseAudio-compatible server), with the null sinks of ci.pa made through the
# PulseAudio protocol, and a silent low-latency stream per sink as
# pulse-start.sh plays. Writes DIR/NAME.env for its clients.
# Running it again for a fixture whose server was stopped starts it anew.
set -euo pipefail
dir=$1
name=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=service-lib.sh
source "$here/service-lib.sh"
T=$dir/$name.d
[[ -d $T ]] && "$here/pipewire-pulse-stop.sh" "$dir" "$name" || true
rm -rf "$T"
mkdir -p "$T/home/.config"
mkdir -p -m 700 "$T/xdg"
export XDG_RUNTIME_DIR=$T/xdg HOME=$T/home XDG_CONFIG_HOME=$T/home/.config
unset PIPEWIRE_REMOTE PIPEWIRE_RUNTIME_DIR PULSE_SERVER PULSE_RUNTIME_PATH PULSE_STATE_PATH DISPLAY WAYLAND_DISPLAY

start_pipewire_session "$T"
pipewire-pulse >"$T/pipewire-pulse.log" 2>&1 &
echo $! >"$T/pipewire-pulse.pid"

# A client that looks for the server before its socket exists makes the
# runtime folder's "pulse" entry itself, and the server then refuses to start.
ready=0
for _ in $(seq 200); do
    if [[ -S $XDG_RUNTIME_DIR/pulse/native ]] && pactl info >/dev/null 2>&1; then
        ready=1
        break
    fi
    sleep 0.05
done
if [[ $ready != 1 ]]; then
    echo "pipewire-pulse did not come up" >&2
    cat "$T/pipewire.log" "$T/pipewire-pulse.log" "$T/wireplumber.log" >&2 || true
    "$here/pipewire-pulse-stop.sh" "$dir" "$name" || true
    exit 1
fi

# The sinks of ci.pa, through the PulseAudio protocol.
pactl load-module module-null-sink sink_name=sinkA rate=48000 channels=2 \
    sink_properties=device.description=SinkA >/dev/null
pactl load-module module-null-sink sink_name=sinkB rate=44100 channels=6 channel_map=surround-51 \
    sink_properties=device.description=SinkB >/dev/null
for _ in $(seq 200); do
    pactl list short sinks | grep -q sinkB && break
    sleep 0.05
done
pactl set-default-sink sinkA

play_silence "$T" sinkA 48000
play_silence "$T" sinkB 44100

cat >"$dir/$name.env" <<ENV
export XDG_RUNTIME_DIR=$XDG_RUNTIME_DIR
export DBUS_SESSION_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS
export HOME=$HOME
export ORVANTA_SOUND_SERVER=pipewire
export ORVANTA_SOUND_SERVER_START=$here/pipewire-pulse-start.sh
export ORVANTA_SOUND_SERVER_STOP=$here/pipewire-pulse-stop.sh
export ORVANTA_PULSE_FIXTURE_DIR=$dir
export ORVANTA_PULSE_FIXTURE=$name
ENV
