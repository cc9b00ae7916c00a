#!/usr/bin/env bash
# Says whether executables and libraries were built as a distribution hardens its own: position independent, relocations
# read-only and bound at start, no executable stack, stack protector, fortified C functions.
set -euo pipefail
[[ $# -ge 1 ]] || { echo "usage: packaging/hardening.sh FILE..." >&2; exit 2; }

status=0
# expect FILE WHAT TEXT PATTERN
expect() {
    grep -qE -- "$4" <<<"$3" && return
    echo "hardening: $1: no $2" >&2
    status=1
}

for file in "$@"; do
    header=$(LC_ALL=C readelf --wide --file-header --program-headers --dynamic "$file")
    symbols=$(LC_ALL=C readelf --wide --dyn-syms "$file")
    expect "$file" "position independent code" "$header" 'Type: +DYN'
    [[ $header == *INTERP* ]] && expect "$file" "PIE flag" "$header" 'FLAGS_1.*PIE'
    expect "$file" "RELRO segment" "$header" 'GNU_RELRO'
    expect "$file" "binding at start (-z now)" "$header" 'FLAGS.*NOW'
    expect "$file" "stack without execution" "$header" 'GNU_STACK.* RW '
    expect "$file" "stack protector" "$symbols" '__stack_chk_(fail|guard)'
    # A file that formats nothing may have nothing that is fortified.
    if grep -qE ' _*(v?s?n?printf|v?fprintf)(_chk)?@' <<<"$symbols"; then
        expect "$file" "fortified function" "$symbols" ' __[a-z]+_chk@'
    fi
    echo "hardening: $file: looked at"
done
exit $status
