#!/usr/bin/env bash
# Unpacks arm64 packages of the host's own release into .sysroot/arm64, for the cross compiler and for what runs under
# emulation. Nothing is configured or installed: the host's packages stay as they are. Done again only when the list of
# packages changes.
set -euo pipefail
[[ $# -ge 1 ]] || { echo "usage: packaging/sysroot.sh PACKAGE..." >&2; exit 2; }
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."

sysroot=.sysroot/arm64
. /etc/os-release
case $ID in
ubuntu) mirror=http://ports.ubuntu.com/ubuntu-ports components=main,universe ;;
*) mirror=http://deb.debian.org/debian components=main ;;
esac
packages=$(printf '%s\n' libc6-dev "$@" | sort -u | paste -sd,)
wanted="$VERSION_CODENAME $packages"
[[ $(cat $sysroot/.packages 2>/dev/null) == "$wanted" ]] && exit 0

echo "Unpacking arm64 packages of $VERSION_CODENAME into $sysroot"
rm -rf --one-file-system .sysroot/arm64 .sysroot/part
mkdir -p .sysroot
mmdebstrap --quiet --architectures=arm64 --variant=extract --components="$components" --include="$packages" \
    "$VERSION_CODENAME" .sysroot/part "$mirror"
# The links that the packages' alternatives would make.
for library in blas lapack; do
    folder=.sysroot/part/usr/lib/aarch64-linux-gnu
    [[ -e $folder/$library/lib$library.so.3 ]] && ln -sf "$library/lib$library.so.3" "$folder/lib$library.so.3"
done
rm -rf .sysroot/part/dev .sysroot/part/var/cache/apt/archives
echo "$wanted" >.sysroot/part/.packages
mv .sysroot/part $sysroot
