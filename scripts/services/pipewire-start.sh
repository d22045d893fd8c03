#!/usr/bin/env bash
# pipewire-start.sh DIR NAME
# Starts, in a private runtime directory: a session bus, PipeWire with a video
# test source node ("test-videotestsrc", colour bars), WirePlumber, and a
# stand-in ScreenCast portal that hands out a video test source of the same
# kind per session (or a node of the program named in the file
# $ORVANTA_PORTAL_SOURCE). Writes DIR/NAME.env.
# Everything started is recorded in PID files for pipewire-stop.sh.
set -euo pipefail
dir=$1
name=$2
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=service-lib.sh
source "$here/service-lib.sh"
T=$dir/$name.d
[[ -d $T ]] && "$here/pipewire-stop.sh" "$dir" "$name" || true
rm -rf "$T"
mkdir -p "$T/home/.config/pipewire/pipewire.conf.d"
mkdir -p -m 700 "$T/xdg"
export XDG_RUNTIME_DIR=$T/xdg HOME=$T/home XDG_CONFIG_HOME=$T/home/.config
unset PIPEWIRE_REMOTE PIPEWIRE_RUNTIME_DIR WAYLAND_DISPLAY DISPLAY

cat >"$T/home/.config/pipewire/pipewire.conf.d/50-videotestsrc.conf" <<'CONF'
context.spa-libs = { videotestsrc = videotestsrc/libspa-videotestsrc }
context.objects = [ { factory = spa-node-factory args = { factory.name = videotestsrc
  node.name = test-videotestsrc media.class = "Video/Source" Spa:Pod:Object:Param:Props:patternType = 0 } } ]
CONF

start_pipewire_session "$T"

# The distribution's interpreter: the D-Bus and GLib bindings are its packages.
/usr/bin/python3 "$here/fake-screencast-portal.py" --size "${ORVANTA_SCREENCAST_SIZE:-640x360}" \
    --dialogs "$T/portal-dialogs" --cursor "$T/portal-cursor" --source-program "$T/portal-source" \
    >"$T/portal.log" 2>&1 &
echo $! >"$T/portal.pid"

ready=0
for _ in $(seq 200); do
    if dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:org.freedesktop.portal.Desktop 2>/dev/null | grep -q true \
        && pw-dump 2>/dev/null | grep -q '"node.name": "test-videotestsrc"'; then
        ready=1
        break
    fi
    sleep 0.05
done
if [[ $ready == 1 ]] && ! kill -0 "$(cat "$T/wireplumber.pid")" 2>/dev/null; then
    echo "wireplumber exited" >&2
    cat "$T/wireplumber.log" >&2 || true
    ready=0
fi
if [[ $ready != 1 ]]; then
    echo "the portal or the test source did not come up" >&2
    cat "$T/portal.log" "$T/pipewire.log" >&2 || true
    "$here/pipewire-stop.sh" "$dir" "$name" || true
    exit 1
fi

cat >"$dir/$name.env" <<ENV
export XDG_RUNTIME_DIR=$XDG_RUNTIME_DIR
export DBUS_SESSION_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS
export ORVANTA_PIPEWIRE_PIDFILE=$T/pipewire.pid
export ORVANTA_PORTAL_DIALOGS=$T/portal-dialogs
export ORVANTA_PORTAL_CURSOR=$T/portal-cursor
export ORVANTA_PORTAL_PERSIST=$T/portal-persist
export ORVANTA_PORTAL_SOURCE=$T/portal-source
ENV
