#!/usr/bin/env bash
# Prints velstream(1), made of what the tool itself says: packaging/manpage.sh VERSION TOOL... (TOOL may be an emulator
# with its arguments and the tool).
set -euo pipefail
[[ $# -ge 2 ]] || { echo "usage: packaging/manpage.sh VERSION TOOL..." >&2; exit 2; }
version=$1
shift

# Text as it stands, for roff: no macro at a line's start, hyphens that can be searched for and copied.
verbatim() {
    echo .nf
    sed -E "s#Usage: [^ ]*velstream#Usage: velstream#; s/\\\\/\\\\e/g; s/-/\\\\-/g; s/^([.'])/\\\\\&\\1/"
    echo .fi
}

help=$("$@" --help)
mapfile -t commands < <(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p' <<<"$help")
cat <<END
.TH VELSTREAM 1 "" "velstream-gst $version" "User Commands"
.SH NAME
velstream \\- run, check and list live video streams
.SH DESCRIPTION
END
verbatim <<<"$help"
echo .SH COMMANDS
for command in "${commands[@]}"; do
    echo ".SS $command"
    "$@" "$command" --help | verbatim
done
cat <<'END'
.SH FILES
.TP
.I /usr/local/share/velstream\-gst/conf/velstream\-gst.conf
the configuration that is read when none is named
.TP
.I velstream@.service
runs the stream that stands behind the @ as a systemd service
END
