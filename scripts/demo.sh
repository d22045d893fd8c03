#!/usr/bin/env bash
# Installs the dependencies, builds the library and runs the example
# application. On a fresh Debian 12 machine, as root:
#
#     bash scripts/demo.sh
#
# Arguments after the script name go to the example (see --help).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/scripts/install-deps.sh"
export CCACHE_BASEDIR=$root
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$root/build" -j"$(nproc)" --target orvanta_ambilight
export QT_LOGGING_RULES=${QT_LOGGING_RULES:-"*.debug=false"}
exec "$root/build/examples/ambilight/orvanta_ambilight" "$@"
