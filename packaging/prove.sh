#!/usr/bin/env bash
# Proves on a bare machine what the documents promise: a minimal root of a Debian or Ubuntu release, made in a temporary
# folder and removed again. The host is left as it is. Run it as root.
set -euo pipefail

usage() {
    cat <<'END'
usage: packaging/prove.sh SUITE [STEP...]

  SUITE     bookworm, trixie (Debian) or noble (Ubuntu)
  STEP      source: the README's two commands in a fresh clone, and the first one again; then the packages are made there
            test-first: the same with the tests first
            packages: in a second bare root the packages are installed, checked, run, built against, and purged
            Without a step: source and packages. packages alone makes the packages in its own clone.

Needs mmdebstrap. VELSTREAM_PROVE_DIR names the folder for the roots (default: a temporary one), VELSTREAM_PROVE_CACHE
one that keeps downloaded packages between runs (default: none).
END
}

[[ $# -ge 1 ]] || { usage >&2; exit 2; }
suite=$1
shift
steps=("$@")
[[ ${#steps[@]} -gt 0 ]] || steps=(source packages)
case $suite in
bookworm | trixie) mirror=http://deb.debian.org/debian components=main ;;
noble) mirror=http://archive.ubuntu.com/ubuntu components=main,universe ;;
*) usage >&2; exit 2 ;;
esac
for step in "${steps[@]}"; do
    case $step in source | test-first | packages) ;; *) usage >&2; exit 2 ;; esac
done
[[ $EUID -eq 0 ]] || { echo "prove: run it as root" >&2; exit 1; }
command -v mmdebstrap >/dev/null || { echo "prove: install mmdebstrap" >&2; exit 1; }

repository=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
roots=$(mktemp -d "${VELSTREAM_PROVE_DIR:-${TMPDIR:-/tmp}}/prove-$suite.XXXXXX")
cache=${VELSTREAM_PROVE_CACHE:+$VELSTREAM_PROVE_CACHE/$suite}
trap 'rm -rf --one-file-system "$roots"' EXIT

say() {
    echo "prove: $suite: $*"
}

timed() {
    local began=$SECONDS
    "$@"
    say "$* took $((SECONDS - began)) s"
}

# in_root ROOT COMMAND: in a mount namespace of its own; what is mounted in the root is gone with the command.
in_root() {
    unshare --mount --pid --fork bash -c '
        set -e
        mount --make-rprivate /
        # The root is a mount, as on a machine: what mounts inside of it asks for that.
        mount --bind "$1" "$1"
        mount -t proc proc "$1/proc"
        mount --rbind /dev "$1/dev"
        mount -t tmpfs tmpfs "$1/tmp"
        [[ -z $3 ]] || mount --bind "$3" "$1/var/cache/apt/archives"
        exec chroot "$1" /usr/bin/env -i HOME=/root LANG=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
            DEBIAN_FRONTEND=noninteractive bash -c "set -e; cd /root/velstream-gst; $2"' _ "$roots/$1" "$2" "$cache" </dev/null
}

make_root() {
    mmdebstrap --quiet --variant=apt --components="$components" "$suite" "$roots/$1" "$mirror"
    cp /etc/resolv.conf "$roots/$1/etc/resolv.conf"
    mkdir -p "$roots/$1/root/velstream-gst"
    [[ -z $cache ]] || mkdir -p "$cache/partial"
}

clone() {
    git clone --quiet --no-local "$repository" "$roots/source/root/velstream-gst"
}

# The commands as the README has them; the first one again does nothing but run.
prove_source() {
    local command
    for command in "$@" "$1"; do
        timed in_root source "./dev $command"
    done
    say "the root is $(du -sxh "$roots/source" | cut -f1) with all packages and the build"
}

# What is left of an installation, anywhere but in the folder that the proof itself works in.
leftovers() {
    find "$roots/packages" -xdev \( -iname '*velstream*' -o -iname '*velclog*' -o -name concate_video.py \) \
        -not -path '*/root/*' -not -path '*/var/cache/apt/*'
}

readme_block() {
    sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" "$repository/README.md" | sed -e '1d' -e '/^```$/,$d'
}

prepare_packages_root() {
    local folder=$roots/packages/root/velstream-gst
    cp "$roots"/source/root/velstream-gst/build/package/packages/*.deb "$folder"
    cp "$roots"/source/root/velstream-gst/out/demo/demo.mp4 "$folder"
    readme_block cpp >"$folder/app.cpp"
    readme_block cmake >"$folder/CMakeLists.txt"
    sed -n 's/^    \(g++ -std=.*app.cpp.*\)/\1/p' "$repository/README.md" >"$folder/build-app.sh"
    cat >"$folder/demo.conf" <<'END'
{ "streams": [ { "streamsId": "file",
                 "properties": { "inputType": "file", "inputAddr": "/root/velstream-gst/demo.mp4", "decodeType": "H264" } },
               { "streamsId": "demo",
                 "properties": { "inputType": "file", "inputAddr": "/root/velstream-gst/demo.mp4", "decodeType": "H264" } } ] }
END
}

install_packages() {
    in_root packages 'apt-get update >/dev/null
        apt-get install -y --no-install-recommends ./*.deb >install.log 2>&1 || { tail -n 30 install.log; exit 1; }'
    say "the root is $(du -sxh "$roots/packages" | cut -f1) with the packages and what they depend on"
}

# An error in the default configuration is expected: it names cameras that are not there. What it must not find is a
# missing element or a file that it cannot read.
run_installed() {
    in_root packages '
        velstream --version
        velstream check --elements software --config demo.conf
        status=0; velstream check --elements software >check.log 2>&1 || status=$?
        [[ $status -le 1 ]] && ! grep -i "missing" check.log || { cat check.log; exit 1; }
        velstream elements --elements software >/dev/null
        velstream run demo --config demo.conf --elements software --snapshot pictures
        ls pictures | head -n 3
        test -s /usr/share/man/man1/velstream.1.gz || grep -q "path-exclude.*man" /etc/dpkg/dpkg.cfg.d/*
        # As "systemctl enable" leaves it, for the purge to find.
        mkdir -p /etc/systemd/system/multi-user.target.wants
        ln -s /lib/systemd/system/velstream@.service /etc/systemd/system/multi-user.target.wants/velstream@demo.service'
}

build_application() {
    in_root packages 'apt-get install -y --no-install-recommends g++ pkg-config cmake make >build.log 2>&1 || { tail build.log; exit 1; }
        bash -e build-app.sh
        export GST_PLUGIN_PATH=$(pkg-config --variable=plugindir velstream-gst)
        { sleep 20; echo; } | ./app demo.conf 2>&1 | grep "first frame"
        cmake -S . -B app-build >/dev/null && cmake --build app-build >/dev/null
        { sleep 20; echo; } | app-build/app demo.conf 2>&1 | grep "first frame"'
}

purge_packages() {
    in_root packages 'apt-get purge -y velstream velstream-gst-software libvelstream-gst-dev libvelstream-gst1 libvelclog >purge.log 2>&1 || { tail purge.log; exit 1; }
        if dpkg -l "*velstream*" libvelclog 2>/dev/null | grep -E "^[a-z]i|^rc"; then exit 1; fi
        if ldconfig -p | grep -E "velstream|velclog"; then exit 1; fi
        ls -d /usr/local/bin /usr/local/share >/dev/null'
    local left
    left=$(leftovers)
    [[ -z $left ]] || { say "left behind:"; echo "$left"; exit 1; }
    say "nothing is left behind"
}

prove_packages() {
    timed make_root packages
    prepare_packages_root
    timed install_packages
    timed run_installed
    timed build_application
    timed purge_packages
}

timed make_root source
clone
for step in "${steps[@]}"; do
    case $step in
    source) prove_source run test ;;
    test-first) prove_source test run ;;
    packages)
        [[ -s $roots/source/root/velstream-gst/out/demo/demo.mp4 ]] || timed in_root source "./dev run"
        timed in_root source "./dev package"
        prove_packages
        ;;
    esac
done
say "proven: ${steps[*]}"
