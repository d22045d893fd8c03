#!/usr/bin/env bash
# pulse-start.sh DIR NAME
# Starts a private, headless PulseAudio daemon for the fixture NAME, with the
# null sinks of ci.pa, and writes DIR/NAME.env for its clients. Each null sink
# gets a silent low-latency stream, so that its monitor delivers data at once
# instead of in the two-second chunks of an idle sink.
# Running it again for a fixture whose daemon was stopped starts it anew.
set -euo pipefail
dir=$1
name=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=service-lib.sh
source "$here/service-lib.sh"
base=$dir/$name
mkdir -p "$base/run" "$base/state" "$base/home"
chmod 700 "$base/run"
export PULSE_RUNTIME_PATH=$base/run PULSE_STATE_PATH=$base/state HOME=$base/home
unset PULSE_SERVER

pulseaudio -n -F "$here/ci.pa" --daemonize=yes --exit-idle-time=-1 --disallow-exit \
    --log-target=file:"$base/pulseaudio.log"

ready=0
for _ in $(seq 1 100); do
    if pactl info >/dev/null 2>&1; then
        ready=1
        break
    fi
    sleep 0.1
done
if [[ $ready -ne 1 ]]; then
    echo "pulse-start.sh: the daemon did not come up; see $base/pulseaudio.log" >&2
    exit 1
fi

play_silence "$base" sinkA 48000
play_silence "$base" sinkB 44100

cat >"$dir/$name.env" <<ENV
export PULSE_RUNTIME_PATH=$base/run
export PULSE_STATE_PATH=$base/state
export HOME=$base/home
export ORVANTA_PULSE_FIXTURE_DIR=$dir
export ORVANTA_PULSE_FIXTURE=$name
export ORVANTA_PULSE_SCRIPTS=$here
export ORVANTA_SOUND_SERVER=pulseaudio
export ORVANTA_SOUND_SERVER_START=$here/pulse-start.sh
export ORVANTA_SOUND_SERVER_STOP=$here/pulse-stop.sh
ENV
