#!/usr/bin/env bash
# Runs a command in which arm64 programs run too, under qemu's user emulation and with the sysroot's libraries: those
# that CMake's emulator starts, and those that they start in turn. The kernel (6.7 or newer) keeps the registration in
# a user namespace of the command's own; with an older one it is looked for on the host.
set -euo pipefail
[[ $# -ge 1 ]] || { echo "usage: packaging/emulated.sh COMMAND..." >&2; exit 2; }
repository=$(cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.." && pwd)
sysroot=$repository/.sysroot/arm64
qemu=$(command -v qemu-aarch64-static || command -v qemu-aarch64) || { echo "emulated: install qemu-user-static" >&2; exit 1; }

# The GStreamer programs that tests start are the sysroot's, so that one registry file serves all.
programs=$repository/.sysroot/bin
mkdir -p "$programs"
ln -sf "$sysroot"/usr/bin/gst-*-1.0 "$programs"
export PATH=$programs:$PATH QEMU_LD_PREFIX=$sysroot GST_REGISTRY_FORK=no

if [[ -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ]]; then
    exec "$@"
fi
exec unshare --user --map-root-user --mount bash -c '
    set -euo pipefail
    binfmt=/proc/sys/fs/binfmt_misc
    if ! mount -t binfmt_misc none $binfmt 2>/dev/null || [[ ! -w $binfmt/register ]]; then
        echo "emulated: this kernel registers no emulator for a namespace, and the host has none: install binfmt-support" >&2
        exit 1
    fi
    magic="\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00"
    mask="\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff"
    printf "%s" ":qemu-aarch64:M::$magic:$mask:$1:F" >$binfmt/register
    shift
    exec "$@"' _ "$qemu" "$@"
