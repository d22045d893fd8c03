#!/usr/bin/env bash
# Proves the README's two commands where nothing was installed by hand: each
# runs, as root, in its own Debian 12 root that holds only the base system
# (mmdebstrap's minbase variant: the Essential packages and apt), made with
# Debian's own tools and entered with chroot. The checkout's committed HEAD is
# cloned into each root, so uncommitted changes are not part of the proof.
#
#     bash scripts/fresh-machine-check.sh [demo] [test]     (default: both)
#
# Environment:
#   ORVANTA_FRESH_DIR     where the roots are made (default: a new folder under /var/tmp)
#   ORVANTA_FRESH_CCACHE  a ccache folder to lend the roots, to shorten a repeated
#                         proof; without it every root compiles from nothing
#   ORVANTA_FRESH_KEEP=1  leave the roots in place afterwards
#
# Needs root, a network path to Debian's archive, and about 6 GB of disk.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
commands=("$@")
((${#commands[@]})) || commands=(demo test)
for c in "${commands[@]}"; do
    [[ $c == demo || $c == test ]] || { echo "unknown command: $c (demo or test)" >&2; exit 2; }
done
[[ $(id -u) -eq 0 ]] || { echo "fresh-machine-check.sh: run as root" >&2; exit 2; }

base=${ORVANTA_FRESH_DIR:-$(mktemp -d /var/tmp/orvanta-fresh.XXXXXX)}
mkdir -p "$base"
mounted=()

unmount_all() {
    local i
    for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
        umount -R "${mounted[i]}" 2>/dev/null || umount -l "${mounted[i]}" 2>/dev/null || true
    done
    mounted=()
}
cleanup() {
    local status=$?
    unmount_all
    if grep -q " $base/" /proc/mounts; then
        # A bind mount of this file system would not stop rm at its border.
        echo "fresh-machine-check: $base still has mounts; left in place" >&2
    elif [[ ${ORVANTA_FRESH_KEEP:-0} != 1 ]]; then
        rm -rf --one-file-system "$base"
    fi
    exit $status
}
trap cleanup EXIT
trap 'exit 130' INT TERM

if ! command -v mmdebstrap >/dev/null; then
    DEBIAN_FRONTEND=noninteractive apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends mmdebstrap
fi

declare -A seconds
for command in "${commands[@]}"; do
    target=$base/$command
    echo "== fresh-machine-check: making a Debian 12 base root for '$command' in $target"
    mmdebstrap --quiet --variant=minbase bookworm "$target"
    # The root is a mount point of its own, so that programs in it see "/" in
    # their mount table as on a booted machine.
    mount --bind "$target" "$target"
    mounted+=("$target")
    mount -t proc proc "$target/proc"
    mounted+=("$target/proc")
    mount --rbind /dev "$target/dev"
    mount --make-rslave "$target/dev"
    mounted+=("$target/dev")
    mount --rbind /sys "$target/sys"
    mount --make-rslave "$target/sys"
    mounted+=("$target/sys")
    # The root's own /tmp, as a booted machine has; shared memory for Xvfb and PipeWire.
    mount -t tmpfs tmpfs "$target/dev/shm"
    mounted+=("$target/dev/shm")
    cp /etc/resolv.conf "$target/etc/resolv.conf"
    if [[ -n ${ORVANTA_FRESH_CCACHE:-} ]]; then
        mkdir -p "$ORVANTA_FRESH_CCACHE" "$target/root/.cache/ccache"
        mount --bind "$ORVANTA_FRESH_CCACHE" "$target/root/.cache/ccache"
        mounted+=("$target/root/.cache/ccache")
    fi
    git clone --quiet "$root" "$target/root/liborvanta"
    if [[ -d $root/../shared ]]; then
        cp -r "$root/../shared" "$target/root/shared"
    fi

    echo "== fresh-machine-check: bash scripts/$command.sh"
    start=$(date +%s)
    # A clean environment, as a user who just logged in as root has.
    chroot "$target" /usr/bin/env -i HOME=/root TERM=dumb PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        LANG=C.UTF-8 /bin/bash -c "cd /root/liborvanta && bash scripts/$command.sh"
    seconds[$command]=$(($(date +%s) - start))
    echo "== fresh-machine-check: scripts/$command.sh succeeded in ${seconds[$command]} s"
    unmount_all
done

for command in "${commands[@]}"; do
    printf 'fresh-machine-check: %-4s %4d s  (%dm%02ds)\n' "$command" "${seconds[$command]}" \
        $((seconds[$command] / 60)) $((seconds[$command] % 60))
done
