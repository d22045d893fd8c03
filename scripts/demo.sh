#!/usr/bin/env bash
# Installs the dependencies, builds the library and runs the example
# application. On a fresh Debian 12 machine, as root:
#
#     bash scripts/demo.sh
#
# Arguments after the script name go to the example (see --help). Where no
# screen (X or Wayland) or no sound server is running, the demo starts its own.
#
#     bash scripts/demo.sh --wayland
#
# starts a headless Wayland desktop (sway with two outputs, the desktop portal
# and PipeWire) instead of the X server, so that the example can be watched on
# Wayland on any machine.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/install-deps.sh"
export CCACHE_BASEDIR=$root
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$root/build" -j"$(nproc)" --target orvanta_ambilight orvanta_testpattern
export QT_LOGGING_RULES=${QT_LOGGING_RULES:-"*.debug=false"}
# The example answers --help by itself, without a screen or sound server.
for argument in "$@"; do
    if [[ $argument == --help || $argument == -h || $argument == --help-all ]]; then
        exec "$root/build/examples/ambilight/orvanta_ambilight" "$@"
    fi
done
if [[ ${1:-} == --wayland ]]; then
    export ORVANTA_DEMO_WAYLAND=1
    shift
fi
# On a machine without a desktop, a virtual screen with a moving pattern and a
# sound server playing a tone sweep stand in for the user's.
exec "$root/scripts/demo-session.sh" "$root/build/examples/ambilight/orvanta_ambilight" "$@"
