#!/usr/bin/env bash
# Regenerates the resizer's shader bytecode arrays, src/Shaders/VertexShader.h
# and src/Shaders/PixelShader.h, from the HLSL sources beside them.
#
# The compiler is the system's D3DCompile (Wine's d3dcompiler_47), driven by
# the small Windows program src/Shaders/tools/hlslc.cpp under Wine.
#
# Usage: scripts/build-shaders.sh [--check]
#   --check   compare what would be generated with the checked-in headers and
#             exit 1 if they differ, changing nothing.
# Environment:
#   ORVANTA_HLSLC  an already built hlslc.exe (default: built here with
#                  x86_64-w64-mingw32-g++-posix)
#   WINEPREFIX     the Wine prefix to use (default: a temporary one, removed
#                  again afterwards)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
shaders=$root/src/Shaders
check=0
case ${1:-} in
--check) check=1 ;;
"") ;;
*)
    echo "usage: $0 [--check]" >&2
    exit 2
    ;;
esac

work=$(mktemp -d "${TMPDIR:-/tmp}/orvanta-shaders.XXXXXX")
own_prefix=0
cleanup() {
    local status=$?
    if ((own_prefix)); then
        wineserver -k 2>/dev/null || true
        wineserver -w 2>/dev/null || true
    fi
    rm -rf "$work"
    exit $status
}
trap cleanup EXIT

export WINEDEBUG=-all
if [[ -z ${WINEPREFIX:-} ]]; then
    export WINEPREFIX=$work/wineprefix WINEDLLOVERRIDES="mscoree,mshtml="
    own_prefix=1
    wineboot -i >"$work/wineboot.log" 2>&1 || { cat "$work/wineboot.log" >&2; exit 1; }
fi

hlslc=${ORVANTA_HLSLC:-}
if [[ -z $hlslc ]]; then
    hlslc=$work/hlslc.exe
    x86_64-w64-mingw32-g++-posix -std=c++17 -O2 -static -o "$hlslc" "$shaders/tools/hlslc.cpp" -ld3dcompiler_47
fi

# Wine maps the working directory, so relative paths reach the program intact.
mkdir -p "$work/out"
cp "$shaders/VertexShader.hlsl" "$shaders/PixelShader.hlsl" "$work/"
(
    cd "$work"
    wine "$hlslc" VertexShader.hlsl VS vs_5_0 kVertexShader out/VertexShader.h
    wine "$hlslc" PixelShader.hlsl PS ps_5_0 kPixelShader out/PixelShader.h
)

status=0
for header in VertexShader.h PixelShader.h; do
    if ((check)); then
        if ! cmp -s "$work/out/$header" "$shaders/$header"; then
            echo "src/Shaders/$header differs from its HLSL source; run scripts/build-shaders.sh" >&2
            diff -u "$shaders/$header" "$work/out/$header" >&2 || true
            status=1
        fi
    else
        cp "$work/out/$header" "$shaders/$header"
    fi
done
if ((check && status == 0)); then
    echo "The shader bytecode arrays match their HLSL sources."
fi
exit $status
