#!/usr/bin/env bash
# The Windows stage: cross-compiles the Qt-free platform layer and its tests
# with mingw-w64 and runs them under Wine, against a private Wine prefix, a
# private X server and a private PulseAudio server with a null sink.
#
# Usage: scripts/test-windows.sh [build-dir]      (default: build-windows)
#        scripts/test-windows.sh --list-packages  (the Debian packages it needs, one a line)
# Environment: JOBS (parallel compile jobs, default 2), CTEST_ARGS (extra ctest
# arguments), ORVANTA_SKIP_INSTALL=1 to skip the package check.
#
# Everything started here is stopped again on exit, whatever the outcome.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# --- packages ----------------------------------------------------------------
packages=(cmake ninja-build ccache
    g++-mingw-w64-x86-64-posix mingw-w64-x86-64-dev googletest
    wine wine64 xvfb pulseaudio pulseaudio-utils)
if [[ ${1:-} == --list-packages ]]; then
    printf '%s\n' "${packages[@]}"
    exit 0
fi
build_dir=${1:-$root/build-windows}
jobs=${JOBS:-2}
if [[ ${ORVANTA_SKIP_INSTALL:-0} != 1 ]]; then
    if [[ $(id -u) -ne 0 ]]; then SUDO=sudo; else SUDO=; fi
    export DEBIAN_FRONTEND=noninteractive
    missing=()
    for p in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    if ((${#missing[@]})); then
        $SUDO apt-get update -qq
        $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
    fi
fi

# --- services, stopped by the trap -------------------------------------------
work=$(mktemp -d "${TMPDIR:-/tmp}/orvanta-windows.XXXXXX")
xvfb_pid=
stop_services() {
    local status=$?
    if [[ -n ${WINEPREFIX:-} && -d ${WINEPREFIX} ]]; then
        wineserver -k 2>/dev/null || true
        wineserver -w 2>/dev/null || true
    fi
    if [[ -f $work/pulse/run/pid ]]; then
        kill "$(cat "$work/pulse/run/pid")" 2>/dev/null || true
    fi
    if [[ -n $xvfb_pid ]]; then
        kill "$xvfb_pid" 2>/dev/null || true
        wait "$xvfb_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
    exit $status
}
trap stop_services EXIT
trap 'exit 130' INT TERM

# X server on a free display: Wine's user32 needs one even for console programs.
Xvfb -displayfd 3 -screen 0 1280x720x24 -nolisten tcp -noreset 3>"$work/display" 2>"$work/xvfb.log" &
xvfb_pid=$!
for _ in $(seq 100); do
    [[ -s $work/display ]] && break
    sleep 0.1
done
[[ -s $work/display ]] || { echo "Xvfb did not start:" >&2; cat "$work/xvfb.log" >&2; exit 1; }
export DISPLAY=:$(cat "$work/display")

# PulseAudio with a null sink: Wine's winepulse driver offers it as the render
# endpoint and its monitor as a capture endpoint.
export PULSE_RUNTIME_PATH=$work/pulse/run PULSE_STATE_PATH=$work/pulse/state
mkdir -p "$PULSE_RUNTIME_PATH" "$PULSE_STATE_PATH" "$work/home"
chmod 700 "$PULSE_RUNTIME_PATH"
cat >"$work/pulse/ci.pa" <<'PA'
.fail
load-module module-native-protocol-unix auth-anonymous=1
load-module module-null-sink sink_name=sinkA rate=44100 channels=2 sink_properties=device.description=SinkA
set-default-sink sinkA
PA
HOME=$work/home pulseaudio -n -F "$work/pulse/ci.pa" --daemonize=yes --exit-idle-time=-1 --disallow-exit \
    --log-target=file:"$work/pulse/pa.log"
export PULSE_SERVER=unix:$PULSE_RUNTIME_PATH/native

# A private Wine prefix, made without Mono and Gecko prompts, and a wineserver
# kept alive for the whole run so that each test program starts quickly.
export WINEPREFIX=$work/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" HOME=$work/home
echo "-- preparing the Wine prefix"
wineboot -i >"$work/wineboot.log" 2>&1 || { cat "$work/wineboot.log" >&2; exit 1; }
wineserver -w
wineserver -p
# Start Wine's own background processes now, with their output going to a
# file: started by the first test instead, they would inherit its pipes and
# CTest would wait on them for ever.
wine cmd.exe /c exit >"$work/winestart.log" 2>&1

# --- build and test ----------------------------------------------------------
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$root}
cmake -S "$root" -B "$build_dir" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/mingw-w64-x86_64-posix.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build_dir" -j "$jobs"
# shellcheck disable=SC2086
ctest --test-dir "$build_dir" -L windows --output-on-failure ${CTEST_ARGS:-}
