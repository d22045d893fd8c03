#!/usr/bin/env bash
# check-installed-package.sh BUILD_DIR SOURCE_DIR WORK_DIR
# Installs the built library into a private prefix, then builds the consumer
# program against it twice, through the CMake package and through pkg-config,
# and runs both.
set -euo pipefail
build=$1 source=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
test -f "$prefix/include/LibOrvanta/ConfigurationManager.h"
test -f "$prefix/lib/cmake/LibOrvanta/LibOrvantaConfig.cmake"
test -f "$prefix/lib/pkgconfig/liborvanta.pc"

expect() {
    local output=$1
    for line in "answer 42" "newer yes" "saved yes"; do
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
expect "$(LD_LIBRARY_PATH=$prefix/lib "$work/cmake-build/consumer" "$work/config-cmake")"

# Through pkg-config.
flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs liborvanta)
# shellcheck disable=SC2086
c++ -std=c++17 "$source/tests/example/consumer/main.cpp" -o "$work/consumer-pc" $flags
expect "$(LD_LIBRARY_PATH=$prefix/lib "$work/consumer-pc" "$work/config-pc")"
echo "installed package works through CMake and pkg-config"
