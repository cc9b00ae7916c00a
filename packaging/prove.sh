#!/usr/bin/env bash
# Types the README's two commands into a fresh clone on a bare machine: a minimal root of a Debian or Ubuntu release,
# made in a temporary folder and removed again. The host is left as it is. Run it as root.
set -euo pipefail

usage() {
    cat <<'END'
usage: packaging/prove.sh SUITE [run-first|test-first]

  SUITE       bookworm, trixie (Debian) or noble (Ubuntu)
  run-first   ./dev run, then ./dev test (default); test-first: the other way round

Needs mmdebstrap. VELSTREAM_PROVE_DIR names the folder for the root (default: a temporary one).
END
}

[[ $# -ge 1 ]] || { usage >&2; exit 2; }
suite=$1
order=${2:-run-first}
case $suite in
bookworm | trixie) mirror=http://deb.debian.org/debian components=main ;;
noble) mirror=http://archive.ubuntu.com/ubuntu components=main,universe ;;
*) usage >&2; exit 2 ;;
esac
case $order in
run-first) commands=(run test) ;;
test-first) commands=(test run) ;;
*) usage >&2; exit 2 ;;
esac
[[ $EUID -eq 0 ]] || { echo "prove: run it as root" >&2; exit 1; }
command -v mmdebstrap >/dev/null || { echo "prove: install mmdebstrap" >&2; exit 1; }

repository=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
root=$(mktemp -d "${VELSTREAM_PROVE_DIR:-${TMPDIR:-/tmp}}/prove-$suite.XXXXXX")
trap 'rm -rf --one-file-system "$root"' EXIT

timed() {
    local began=$SECONDS
    "$@"
    echo "prove: $suite: $* took $((SECONDS - began)) s"
}

# A mount namespace of its own: what is mounted in the root is gone with the command.
in_root() {
    unshare --mount --pid --fork bash -c '
        mount --make-rprivate /
        mount -t proc proc "$1/proc"
        mount --rbind /dev "$1/dev"
        mount -t tmpfs tmpfs "$1/tmp"
        exec chroot "$1" /usr/bin/env -i HOME=/root LANG=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
            bash -c "cd /root/velstream-gst && $2"' _ "$root" "$1" </dev/null
}

make_root() {
    mmdebstrap --quiet --variant=apt --components="$components" "$suite" "$root" "$mirror"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
}

timed make_root
git clone --quiet --no-local "$repository" "$root/root/velstream-gst"
for command in "${commands[@]}" "${commands[0]}"; do
    timed in_root "./dev $command"
done
echo "prove: $suite: the root is $(du -sxh "$root" | cut -f1) with all packages and the build"
