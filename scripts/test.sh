#!/usr/bin/env bash
# Installs the dependencies, builds the library with its tests, and runs the
# whole suite. On a fresh Debian 12 machine, as root:
#
#     bash scripts/test.sh
#
# Options:
#   --sanitizers LIST   build with sanitizers, e.g. "address;undefined" or "thread"
#   --label REGEX       run only the tests whose label matches (ctest -L)
#   --build-dir DIR     where to build (default: build, or build-<sanitizers>)
#   --no-install        skip the package installation step
#   --no-windows        skip the Windows stage (mingw-w64 cross build run under Wine)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
sanitizers=""
label=""
build=""
install=1
windows=1
while [[ $# -gt 0 ]]; do
    case $1 in
        --sanitizers) sanitizers=$2; shift 2 ;;
        --label) label=$2; shift 2 ;;
        --build-dir) build=$2; shift 2 ;;
        --no-install) install=0; shift ;;
        --no-windows) windows=0; shift ;;
        *) echo "unknown option: $1" >&2; exit 2 ;;
    esac
done

if ((install)); then
    bash "$root/scripts/install-deps.sh"
fi

if [[ -z $build ]]; then
    if [[ -n $sanitizers ]]; then
        build=$root/build-${sanitizers//;/-}
    else
        build=$root/build
    fi
fi

# A plain run records what every program it starts loads (glibc's loader
# logs, one file a process), so that the package check at the end also sees
# the libraries opened at run time and the programs that the tests and the
# scripts start.
trace=0
if [[ -z $sanitizers ]]; then
    trace=1
    rm -rf "$build/ld-debug"
    mkdir -p "$build/ld-debug"
    export LD_DEBUG=libs LD_DEBUG_OUTPUT=$build/ld-debug/ld
fi

# ccache keys on paths relative to the checkout, so a fresh clone reuses what
# an earlier build on this machine compiled.
export CCACHE_BASEDIR=$root
export CCACHE_MAXSIZE=${CCACHE_MAXSIZE:-5G}

build_type=RelWithDebInfo
[[ -n $sanitizers ]] && build_type=Debug
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=$build_type \
      -DORVANTA_SANITIZERS="$sanitizers" -DORVANTA_BUILD_BENCHMARKS=$([[ -z $sanitizers ]] && echo ON || echo OFF)
cmake --build "$build" -j"$(nproc)"
# The API reference; any Doxygen warning fails the run.
if [[ -z $sanitizers ]]; then
    cmake --build "$build" --target docs
fi

# Sanitizer reports fail the run; Qt's and the drivers' own process-lifetime
# allocations are listed in the suppression files.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=0}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/tests/sanitizers/lsan.supp:print_suppressions=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/sanitizers/tsan.supp}
# GCC 12's LeakSanitizer misreads the thread-local blocks of libraries that
# glibc places in its spare static TLS (Mesa's driver, loaded at run time) and
# its tracer crashes at exit. Without the spare room those blocks are ordinary
# dynamic TLS, which it reads right.
if [[ $sanitizers == *address* ]]; then
    export GLIBC_TUNABLES=${GLIBC_TUNABLES:-glibc.rtld.optional_static_tls=0}
fi

ctest_args=(--test-dir "$build" --output-on-failure --timeout 900)
[[ -n $label ]] && ctest_args+=(-L "$label")
# LeakSanitizer stops every thread at exit to scan for leaks; now and then its
# tracer itself crashes on a thread that Mesa or Qt is winding down, after
# every test has passed. A sanitizer run therefore gives a failed program one
# more run; a failure that repeats still fails.
[[ -n $sanitizers ]] && ctest_args+=(--repeat until-pass:2)
ctest "${ctest_args[@]}"

# The Windows adapters: cross-compiled and run under Wine after the Linux
# suite. Sanitizer builds and label-filtered runs leave it out.
if ((windows)) && [[ -z $sanitizers && -z $label ]]; then
    ORVANTA_SKIP_INSTALL=$((1 - install)) bash "$root/scripts/test-windows.sh" "$root/build-windows"
fi

# Every library and program used above must come from a package that the
# project's scripts install.
if ((trace)); then
    unset LD_DEBUG LD_DEBUG_OUTPUT
    /usr/bin/python3 "$root/scripts/check-packages.py" --build-dir "$build" --loaded-dir "$build/ld-debug"
fi
