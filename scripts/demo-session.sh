#!/usr/bin/env bash
# demo-session.sh COMMAND [ARG...]
# Runs COMMAND with a screen and a sound server to look at and listen to.
# Where the caller already has them (a real desktop), they are used as they
# are. Otherwise an Xvfb with two side-by-side monitors showing the moving
# test pattern, and a PulseAudio daemon with a null sink playing a tone sweep,
# are started for the command's lifetime and stopped after it. A local web
# server (the test server of the network tests) always runs beside them: it
# announces version 9.9.9 with a 1 MiB installer and its SHA-256 digest and
# takes feedback uploads and usage reports; ORVANTA_EXAMPLE_SERVER names it.
#
# ORVANTA_PATTERN_PROGRAM   the test-pattern program (built from examples/testpattern)
# ORVANTA_DEMO_OWN_SERVICES set to 1 to start both services even where some are running
# ORVANTA_DEMO_TONE_HZ      play one steady tone of this frequency instead of the sweep
# ORVANTA_DEMO_MONITORS     how many 1920x1080 monitors side by side the own X server has (default 2)
# ORVANTA_DEMO_WAYLAND      set to 1 to start a headless Wayland desktop (scripts/services/wayland-start.sh:
#                           sway with two outputs, the desktop portal, PipeWire) instead of the X server
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
pattern=${ORVANTA_PATTERN_PROGRAM:-$root/build/examples/testpattern/orvanta_testpattern}
state=$(mktemp -d /tmp/orvanta-demo.XXXXXX)
pids=()
own=${ORVANTA_DEMO_OWN_SERVICES:-0}
tone=${ORVANTA_DEMO_TONE_HZ:-}
monitors=${ORVANTA_DEMO_MONITORS:-2}
wayland=${ORVANTA_DEMO_WAYLAND:-0}
[[ $monitors =~ ^[1-8]$ ]] || { echo "demo-session: ORVANTA_DEMO_MONITORS must be 1 to 8" >&2; exit 2; }

stop_all() {
    local pid
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    if [[ -f $state/pulse/run/pid ]]; then
        kill "$(cat "$state/pulse/run/pid")" 2>/dev/null || true
    fi
    for pid in "${pids[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    [[ -r $state/wayland.state ]] && "$root/scripts/services/wayland-stop.sh" "$state" wayland
    rm -rf "$state"
}
trap stop_all EXIT

# A Wayland session of the caller's own counts as a screen, as an X display does.
has_wayland() {
    local socket=${WAYLAND_DISPLAY:-}
    [[ -n $socket ]] || return 1
    [[ $socket == /* ]] || socket=${XDG_RUNTIME_DIR:-/nonexistent}/$socket
    [[ -S $socket ]]
}

if [[ $wayland == 1 ]]; then
    "$root/scripts/services/wayland-start.sh" "$state" wayland
    # shellcheck disable=SC1091
    source "$state/wayland.env"
    # The pattern is a Wayland window of its own; the compositor tiles it over
    # the first output. Qt follows XDG_SESSION_TYPE to its Wayland platform.
    "$pattern" >"$state/pattern.log" 2>&1 &
    pids+=($!)
    echo "demo-session: started a headless Wayland desktop ($WAYLAND_DISPLAY: HEADLESS-1 1280x720, HEADLESS-2" \
        "1920x1080) with the desktop portal and a moving test pattern"
elif [[ $own == 1 ]] || { ! has_wayland && { [[ -z ${DISPLAY:-} ]] || ! xdpyinfo >/dev/null 2>&1; }; }; then
    Xvfb -displayfd 3 -screen 0 $((1920 * monitors))x1080x24 +extension RANDR +extension DAMAGE +extension MIT-SHM \
         -nolisten tcp -noreset 3>"$state/display" 2>"$state/xvfb.log" &
    pids+=($!)
    for _ in $(seq 50); do [[ -s $state/display ]] && break; sleep 0.1; done
    [[ -s $state/display ]] || { echo "demo-session: Xvfb did not start" >&2; cat "$state/xvfb.log" >&2; exit 1; }
    export DISPLAY=:$(cat "$state/display")
    if ((monitors == 2)); then
        names=(LEFT RIGHT)
    else
        names=()
        for ((i = 1; i <= monitors; i++)); do names+=("MONITOR$i"); done
    fi
    if ((monitors > 1)); then
        for ((i = 0; i < monitors; i++)); do
            # The first monitor covers the server's one output, the others none.
            xrandr --setmonitor "${names[i]}" 1920/508x1080/286+$((1920 * i))+0 "$( ((i == 0)) && echo screen || echo none)" \
                >/dev/null
        done
    fi
    QT_QPA_PLATFORM=xcb "$pattern" >"$state/pattern.log" 2>&1 &
    pids+=($!)
    echo "demo-session: started Xvfb on $DISPLAY ($monitors 1920x1080 monitors) with a moving test pattern"
fi

if [[ $own == 1 ]] || ! pactl info >/dev/null 2>&1; then
    unset PULSE_SERVER
    export PULSE_RUNTIME_PATH=$state/pulse/run PULSE_STATE_PATH=$state/pulse/state
    mkdir -p "$PULSE_RUNTIME_PATH" "$PULSE_STATE_PATH" "$state/pulse/home"
    chmod 700 "$PULSE_RUNTIME_PATH"
    cat >"$state/pulse/demo.pa" <<'PA'
.fail
load-module module-native-protocol-unix auth-anonymous=1
load-module module-null-sink sink_name=demo rate=48000 channels=2 sink_properties=device.description=Demo
set-default-sink demo
PA
    HOME=$state/pulse/home pulseaudio -n -F "$state/pulse/demo.pa" --daemonize=yes --exit-idle-time=-1 \
        --disallow-exit --log-target=file:"$state/pulse/pa.log" 2>/dev/null
    for _ in $(seq 50); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
    pactl info >/dev/null 2>&1 || { echo "demo-session: PulseAudio did not start" >&2; exit 1; }
    if [[ -n $tone ]]; then
        low=$tone high=$tone sound="a steady $tone Hz tone"
    else
        low=200 high=2000 sound="a 200-2000 Hz tone sweep"
    fi
    /usr/bin/python3 "$root/scripts/tone-sweep.py" 48000 "$low" "$high" 5 |
        pacat --raw --format=s16le --rate=48000 --channels=2 --latency-msec=20 -d demo &
    pids+=($!)
    echo "demo-session: started PulseAudio with the null sink 'demo' playing $sound"
fi

# The local web server, on a free port of 127.0.0.1.
/usr/bin/python3 "$root/tests/feedback/server/http_test_server.py" --port 0 --port-file "$state/http.port" \
    >"$state/http.log" 2>&1 </dev/null &
pids+=($!)
for _ in $(seq 100); do [[ -s $state/http.port ]] && break; sleep 0.1; done
[[ -s $state/http.port ]] || { echo "demo-session: the web server did not start" >&2; cat "$state/http.log" >&2; exit 1; }
server=http://127.0.0.1:$(cat "$state/http.port")
/usr/bin/python3 - "$server" <<'PY'
import json, sys, urllib.request
server = sys.argv[1]
size, seed = 1024 * 1024, 7
digest = json.load(urllib.request.urlopen(f"{server}/control/digest?size={size}&seed={seed}"))["sha256"]
reply = {"var": "9.9.9", "download_url": f"{server}/blob?size={size}&seed={seed}", "md5": digest}
script = {"path": "/update_check.php", "mode": "reply", "body": json.dumps(reply)}
request = urllib.request.Request(f"{server}/control/script", data=json.dumps(script).encode(), method="POST")
urllib.request.urlopen(request).read()
PY
export ORVANTA_EXAMPLE_SERVER=$server
echo "demo-session: started a web server on $server announcing version 9.9.9"

status=0
"$@" || status=$?
exit $status
