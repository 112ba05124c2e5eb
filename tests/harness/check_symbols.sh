#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# No name of the kernel in the process meets one of libc or of a library: a linked image defines for others exactly
# the functions that its headers declare, and asks from outside only for the host's door, the string functions that the
# compiler knows as its own, the bounds of the program (for symbols in reports), and what the sanitizers bring.
# usage: check_symbols.sh IMAGE.o HEADER...
set -euo pipefail
image=$1
shift

# A preprocessor run takes the comments away.
declared=$(cat "$@" | cc -E -P -w -I"$(dirname "$0")/../.." -x c - | grep -oE '\buk_[a-z0-9_]+ *\(' | tr -d '( ' | sort -u)
[ -n "$declared" ] || { echo "no function is declared in $*"; exit 1; }
defined=$(nm --defined-only --extern-only "$image" | awk 'NF == 3 { print $3 }' | sort -u)
different=$(diff <(echo "$declared") <(echo "$defined") | sed -n 's/^</declared only:/p; s/^>/defined only:/p' || true)
[ -z "$different" ] || { printf 'the image and its headers differ:\n%s\n' "$different"; exit 1; }

undefined=$(nm --undefined-only "$image" | awk '$1 == "U" { print $2 }' |
  grep -vE '^(host_|mem(cpy|set|move|cmp|chr)$|str(len|nlen|cpy|ncpy|cat|ncat|cmp|ncmp|chr|rchr|str|pbrk|spn|cspn)$|__executable_start$|_?end$|_etext$|etext$|__etext$|__(asan|ubsan|tsan|sanitizer|start_|stop_)|_GLOBAL_OFFSET_TABLE_$|__tls_get_addr$)' || true)
[ -z "$undefined" ] || { printf 'asked from outside:\n%s\n' "$undefined"; exit 1; }
nm "$image" | grep ' [tT] printk$' >/dev/null || { echo "printk is not in the image at all"; exit 1; }
echo "symbols: ok"
