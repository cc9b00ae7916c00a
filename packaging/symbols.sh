#!/usr/bin/env bash
# Prints what a library exports, one name a line, as the checked-in lists hold it. Left out is what a compiler may or may
# not leave of an inline function, a template or an inline variable (nm: W, u); the lists are the same for every
# compiler, platform and architecture.
set -euo pipefail
[[ $# -eq 1 ]] || { echo "usage: packaging/symbols.sh LIBRARY" >&2; exit 2; }

nm --dynamic --defined-only --demangle "$1" |
    sed -nE 's/^[0-9a-f]+ [TDBRV] //p' |
    sed -E 's/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >/std::string/g; s/\[abi:[a-z0-9]+\]//g' |
    LC_ALL=C sort -u
