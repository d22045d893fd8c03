#!/usr/bin/env bash
# wayland-start.sh DIR NAME
# Starts a headless Wayland desktop with the real desktop portal:
#   - sway (pixman renderer, no input devices) with two outputs,
#     HEADLESS-1 1280x720 at 0,0 painted #c03020 and HEADLESS-2 1920x1080 at
#     1280,0 painted #2060c0;
#   - a session bus, PipeWire and WirePlumber;
#   - xdg-desktop-portal with its wlr back-end, whose output chooser is a
#     script that prints the content of the file $ORVANTA_WAYLAND_CHOICE (the
#     output "the user" picks; empty means the user declines) and appends a
#     line to $ORVANTA_WAYLAND_STARTS each time it runs.
# A NAME containing "xwayland" also starts sway's XWayland and exports its
# DISPLAY; otherwise the environment has no DISPLAY at all.
#
# sway refuses to run as root, so it, its wallpapers and its XWayland run as
# the unprivileged user orvanta-wl (made here when missing); XWayland admits
# only its own user, so that user lets root in with xhost. Everything else runs as the caller:
# the portal asks /proc who its callers are, which only works for a caller it
# may look at, and the tests run as root. Root reaches the user's sockets.
#
# The wlr back-end only starts a cast when the compositor offers a DMA-BUF
# format; a compositor without a GPU offers shared memory only. The fixture
# therefore preloads screencopy-dmabuf-shim.c (built here) into the back-end,
# which repeats each shared-memory format as a DMA-BUF one; the back-end then
# streams shared memory. The portal, the back-end and sway stay Debian's.
#
# Writes DIR/NAME.env; everything started is recorded for wayland-stop.sh.
set -euo pipefail
dir=$1
name=$2
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=service-lib.sh
source "$here/service-lib.sh"
user=orvanta-wl
xwayland=0
[[ $name == *xwayland* ]] && xwayland=1

mkdir -p "$dir"
# A desktop left from an earlier start of the same fixture is stopped first.
"$here/wayland-stop.sh" "$dir" "$name" || true

id -u "$user" >/dev/null 2>&1 || useradd --create-home --shell /usr/sbin/nologin "$user"
uid=$(id -u "$user")
gid=$(id -g "$user")

# Outside the build tree: the user must reach it, and a build under /root is
# closed to everyone else.
T=$(mktemp -d /tmp/orvanta-wayland.XXXXXX)
echo "$T" >"$dir/$name.state"
mkdir -p "$T/state" "$T/home/.config" "$T/xdg"
chown "$uid:$gid" "$T" "$T/xdg"
chmod 0755 "$T"
chmod 0700 "$T/xdg"
export XDG_RUNTIME_DIR=$T/xdg HOME=$T/home XDG_CONFIG_HOME=$T/home/.config
unset DISPLAY WAYLAND_DISPLAY SWAYSOCK PIPEWIRE_REMOTE PIPEWIRE_RUNTIME_DIR

fail() {
    echo "wayland-start.sh: $1" >&2
    for log in "$T"/state/*.log; do
        [[ -r $log ]] && { echo "--- $log" >&2; tail -n 30 "$log" >&2; }
    done
    "$here/wayland-stop.sh" "$dir" "$name" || true
    exit 1
}

cat >"$T/sway.conf" <<CONF
output HEADLESS-1 resolution 1280x720 position 0 0 bg #c03020 solid_color
output HEADLESS-2 resolution 1920x1080 position 1280 0 bg #2060c0 solid_color
xwayland $([[ $xwayland == 1 ]] && echo force || echo disable)
exec sh -c '[ -z "\$DISPLAY" ] || xhost +si:localuser:root >$T/xhost.log 2>&1; echo "\$DISPLAY" >$T/display'
CONF
chmod 0644 "$T/sway.conf"

setpriv --reuid="$uid" --regid="$gid" --clear-groups \
    env -i PATH=/usr/local/bin:/usr/bin:/bin HOME="$T" XDG_RUNTIME_DIR="$T/xdg" \
    WLR_BACKENDS=headless WLR_RENDERER=pixman WLR_LIBINPUT_NO_DEVICES=1 WLR_HEADLESS_OUTPUTS=2 \
    sway -c "$T/sway.conf" >"$T/state/sway.log" 2>&1 </dev/null &
echo $! >"$T/state/sway.pid"

swaysock=
for _ in $(seq 200); do
    swaysock=$(compgen -G "$T/xdg/sway-ipc.*.sock" | head -n1 || true)
    [[ -n $swaysock && -s $T/display ]] && break
    kill -0 "$(cat "$T/state/sway.pid")" 2>/dev/null || fail "sway exited"
    sleep 0.05
done
[[ -n $swaysock ]] || fail "sway did not open its IPC socket"
socket=$(cd "$T/xdg" && compgen -G 'wayland-*' | grep -v '\.lock$' | head -n1 || true)
[[ -n $socket ]] || fail "sway did not open a Wayland socket"
export WAYLAND_DISPLAY=$socket SWAYSOCK=$swaysock

# Both outputs up and painted before any test looks at them: a pixel of each
# must already show its colour.
pixel() { grim -t ppm -o "$1" - 2>/dev/null | tail -c 3 | od -An -tx1 | tr -d ' \n'; }
painted=0
for _ in $(seq 200); do
    if [[ $(pixel HEADLESS-1) == c03020 && $(pixel HEADLESS-2) == 2060c0 ]]; then
        painted=1
        break
    fi
    kill -0 "$(cat "$T/state/sway.pid")" 2>/dev/null || fail "sway exited"
    sleep 0.05
done
[[ $painted == 1 ]] || fail "sway did not bring up and paint both outputs"

display=$(cat "$T/display")
if [[ $xwayland == 1 ]]; then
    [[ -n $display ]] || fail "sway started no XWayland"
    for _ in $(seq 200); do
        [[ -S /tmp/.X11-unix/X${display#:} ]] && break
        sleep 0.05
    done
    [[ -S /tmp/.X11-unix/X${display#:} ]] || fail "XWayland did not open $display"
fi

start_pipewire_session "$T/state"

cat >"$T/chooser.sh" <<CHOOSER
#!/bin/sh
# The user's choice of output, as the test wrote it.
echo start >>"$T/starts"
cat "$T/choice"
CHOOSER
chmod 0755 "$T/chooser.sh"
echo HEADLESS-1 >"$T/choice"
: >"$T/starts"
cat >"$T/portal-wlr.conf" <<CONF
[screencast]
chooser_type=simple
chooser_cmd=$T/chooser.sh
CONF

gcc -shared -fPIC -O2 -o "$T/screencopy-dmabuf-shim.so" "$here/screencopy-dmabuf-shim.c" -ldl \
    || fail "the back-end's shim did not build"
LD_PRELOAD=$T/screencopy-dmabuf-shim.so XDG_CURRENT_DESKTOP=sway \
    /usr/libexec/xdg-desktop-portal-wlr --loglevel=DEBUG --config="$T/portal-wlr.conf" --replace \
    >"$T/state/portal-wlr.log" 2>&1 </dev/null &
echo $! >"$T/state/portal-wlr.pid"
wait_for_name() {
    for _ in $(seq 200); do
        dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
            org.freedesktop.DBus.NameHasOwner "string:$1" 2>/dev/null | grep -q true && return 0
        sleep 0.05
    done
    return 1
}
wait_for_name org.freedesktop.impl.portal.desktop.wlr || fail "the wlr back-end did not take its name"

XDG_CURRENT_DESKTOP=sway /usr/libexec/xdg-desktop-portal --replace >"$T/state/portal.log" 2>&1 </dev/null &
echo $! >"$T/state/portal.pid"
wait_for_name org.freedesktop.portal.Desktop || fail "the portal did not take its name"
kill -0 "$(cat "$T/state/wireplumber.pid")" 2>/dev/null || fail "wireplumber exited"

{
    echo "export XDG_RUNTIME_DIR=$XDG_RUNTIME_DIR"
    echo "export WAYLAND_DISPLAY=$WAYLAND_DISPLAY"
    echo "export SWAYSOCK=$SWAYSOCK"
    echo "export DBUS_SESSION_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS"
    echo "export XDG_SESSION_TYPE=wayland"
    echo "export XDG_CURRENT_DESKTOP=sway"
    echo "export ORVANTA_WAYLAND_USER=$user"
    echo "export ORVANTA_WAYLAND_CHOICE=$T/choice"
    echo "export ORVANTA_WAYLAND_STARTS=$T/starts"
    echo "export ORVANTA_WAYLAND_PORTAL_LOG=$T/state/portal-wlr.log"
    if [[ $xwayland == 1 ]]; then
        echo "export DISPLAY=$display"
    else
        echo "unset DISPLAY"
    fi
} >"$dir/$name.env"
