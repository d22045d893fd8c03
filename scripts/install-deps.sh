#!/usr/bin/env bash
# Installs every Debian 12 package that the library, its tests, benchmarks and
# example need. Safe to run again: apt-get skips what is already there.
#
#     install-deps.sh          installs what is missing
#     install-deps.sh --list   prints the packages, one a line, and installs nothing
set -euo pipefail

if [[ $(id -u) -ne 0 ]]; then
    SUDO=sudo
else
    SUDO=
fi

packages=(
    # toolchain
    build-essential cmake ninja-build ccache pkg-config git clang-format
    # Qt 5.15 with the private Gui headers (QZipWriter)
    qtbase5-dev qtbase5-private-dev qtmultimedia5-dev libqt5multimedia5-plugins
    # computation libraries
    libopencv-core-dev libopencv-imgproc-dev libavutil-dev libswresample-dev
    # benchmarks, with FFTW's transform as the reference of the sound benchmarks
    libbenchmark-dev libfftw3-dev
    # the whole-job benchmark's reference: ffmpeg's x11grab
    ffmpeg
    # audio: PulseAudio client API and a server for the tests
    libpulse-dev pulseaudio pulseaudio-utils
    # displays: XCB with RandR, SHM, DAMAGE, an X server for the tests
    libxcb1-dev libxcb-shm0-dev libxcb-randr0-dev libxcb-damage0-dev
    libxcb-xfixes0-dev libxcb-image0-dev xvfb x11-xserver-utils x11-utils
    # GPU scaling: EGL + OpenGL ES with Mesa's software rasteriser
    libegl-dev libgles-dev libegl-mesa0 libgl1-mesa-dri
    # machine information: PCI ID database
    libpci-dev pci.ids
    # installer digests: OpenSSL's libcrypto
    libssl-dev
    # local HTTP server for the network tests
    python3
    # feedback zips: independent readers for the tests, zip for the benchmark's reference
    zip unzip
    # graphics capture: portal client (D-Bus) and PipeWire streams; for the tests a
    # session bus, PipeWire with its video test source, WirePlumber and a stand-in
    # portal written with the D-Bus and GLib bindings of Python
    libdbus-1-dev libpipewire-0.3-dev dbus pipewire pipewire-bin wireplumber
    libspa-0.2-modules python3-dbus python3-gi
    # Wayland: the client library and its protocol descriptions; for the tests a
    # headless sway with wallpapers, XWayland and a screenshot tool, the desktop
    # portal with its wlroots back-end, and setpriv/xhost to run sway as a user
    libwayland-dev libwayland-bin wayland-protocols
    sway swaybg xwayland grim xdg-desktop-portal xdg-desktop-portal-wlr fuse3 util-linux
    # the session-bus provider the desktop portal depends on (its fixture starts its own bus)
    dbus-user-session
    # the example and its test pattern on Wayland: Qt's Wayland platform
    qtwayland5
    # audio tests against PipeWire's PulseAudio-compatible server
    pipewire-pulse
    # https tests: the openssl tool makes the test certificate authority
    openssl
    # the API reference (the docs target)
    doxygen
    # fuzzing (scripts/fuzz.sh): clang with libFuzzer and its sanitizer runtimes
    clang libclang-rt-14-dev
)

if [[ ${1:-} == --list ]]; then
    printf '%s\n' "${packages[@]}"
    exit 0
fi

export DEBIAN_FRONTEND=noninteractive
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
    $SUDO apt-get update -qq
    $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
