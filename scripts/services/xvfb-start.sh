#!/usr/bin/env bash
# xvfb-start.sh DIR NAME
# Starts an Xvfb on a free display number (chosen by the server through
# -displayfd, so that parallel runs never collide) with RandR, DAMAGE and
# MIT-SHM, and splits its screen into two RandR monitors, LEFT and RIGHT,
# side by side. Writes DIR/NAME.env with DISPLAY and DIR/NAME.pid for the stop
# script. ORVANTA_XVFB_SCREEN overrides the screen (default 3840x1080x24);
# ORVANTA_XVFB_SPLIT=0 leaves the screen whole.
set -euo pipefail
dir=$1
name=$2
screen=${ORVANTA_XVFB_SCREEN:-3840x1080x24}
split=${ORVANTA_XVFB_SPLIT:-1}
mkdir -p "$dir"
# A server left from an earlier start of the same fixture (CTest repeats
# setups without their cleanups) is stopped first, so none is left behind.
"$(dirname "$0")/xvfb-stop.sh" "$dir" "$name"

# The server's output goes to a file: an inherited pipe would keep CTest
# waiting for a test that has long finished.
Xvfb -displayfd 3 -screen 0 "$screen" +extension RANDR +extension DAMAGE +extension MIT-SHM \
    -nolisten tcp -noreset 3>"$dir/$name.display" >"$dir/$name.log" 2>&1 </dev/null &
pid=$!
echo "$pid" >"$dir/$name.pid"

for _ in $(seq 1 200); do
    [[ -s $dir/$name.display ]] && break
    if ! kill -0 "$pid" 2>/dev/null; then
        echo "xvfb-start.sh: Xvfb exited; see $dir/$name.log" >&2
        exit 1
    fi
    sleep 0.05
done
if [[ ! -s $dir/$name.display ]]; then
    echo "xvfb-start.sh: Xvfb did not report a display" >&2
    kill "$pid" 2>/dev/null || true
    exit 1
fi
display=":$(head -n1 "$dir/$name.display")"

if [[ $split == 1 ]]; then
    width=${screen%%x*}
    rest=${screen#*x}
    height=${rest%%x*}
    half=$((width / 2))
    # Physical sizes in millimetres for 96 dots an inch.
    mm_w=$((half * 254 / 960))
    mm_h=$((height * 254 / 960))
    DISPLAY=$display xrandr --setmonitor LEFT "$half/${mm_w}x$height/$mm_h+0+0" screen
    DISPLAY=$display xrandr --setmonitor RIGHT "$half/${mm_w}x$height/$mm_h+$half+0" none
fi

echo "export DISPLAY=$display" >"$dir/$name.env"
echo "xvfb-start.sh: $name on $display (pid $pid)"
