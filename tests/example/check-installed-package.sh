#!/usr/bin/env bash
# check-installed-package.sh BUILD_DIR SOURCE_DIR WORK_DIR
# Installs the built library into a private prefix, then builds the consumer
# program (every public header, every public class) against it twice, through
# the CMake package and through pkg-config, and runs both.
set -euo pipefail
build=$1 source=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
test -f "$prefix/include/LibOrvanta/ConfigurationManager.h"
test -f "$prefix/lib/cmake/LibOrvanta/LibOrvantaConfig.cmake"
test -f "$prefix/lib/pkgconfig/liborvanta.pc"

# Every installed header is one that the consumer includes.
for header in "$prefix"/include/LibOrvanta/*.h; do
    name=$(basename "$header")
    if ! grep -qxF "#include <LibOrvanta/$name>" "$source/tests/example/consumer/main.cpp"; then
        echo "the consumer does not include the installed header $name"
        exit 1
    fi
done

# The consumer includes every public header and calls into each public
# class; it runs with no display and no sound server, on Qt's offscreen
# platform, so that the registries find nothing whatever the machine has.
run_consumer() {
    env -u DISPLAY -u WAYLAND_DISPLAY QT_QPA_PLATFORM=offscreen PULSE_SERVER=unix:$work/no-sound-server \
        LD_LIBRARY_PATH=$prefix/lib "$@"
}

expect() {
    local output=$1
    for line in "answer 42" "newer yes" "saved yes" "date 2026-11-04" "code No error" "own capture 0 16 -" \
                "own registry 16" "option 2 Mode 3" "unbound 1" "outputs 0" "block 2048 0" "default endpoint none" \
                "endpoints 0" "memory yes" "zip yes" "server http://127.0.0.1:9 30000" "done"; do
        if ! grep -qx "$line" <<<"$output"; then
            echo "consumer output lacks '$line':"
            echo "$output"
            exit 1
        fi
    done
}

# Through find_package(LibOrvanta).
cmake -S "$source/tests/example/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_BUILD_TYPE=Release >"$work/configure.log"
cmake --build "$work/cmake-build" >"$work/build.log"
expect "$(run_consumer "$work/cmake-build/consumer" "$work/config-cmake")"

# Through pkg-config.
flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs liborvanta)
# shellcheck disable=SC2086
c++ -std=c++17 "$source/tests/example/consumer/main.cpp" -o "$work/consumer-pc" $flags
expect "$(run_consumer "$work/consumer-pc" "$work/config-pc")"
echo "installed package works through CMake and pkg-config"
