#!/usr/bin/env bash
# The programs and the library are built as docs/security.md says: at addresses that cannot be guessed,
# with tables that cannot be written, a stack that cannot be executed, and calls of the C library that
# check the length of buffers. Arguments: the files.
set -euo pipefail
command -v readelf >/dev/null || { echo "readelf is missing"; exit 77; }

# has FILE WHAT OPTION PATTERN: readelf with the option says so.
has() { readelf -W "$3" "$1" 2>/dev/null | grep -E "$4" >/dev/null || { echo "$1: no $2"; failed=1; }; }

failed=0
for file; do
    has "$file" "position independence" -h 'Type: +DYN'
    has "$file" "read-only relocations" -l 'GNU_RELRO'
    has "$file" "immediate binding" -d 'BIND_NOW|FLAGS.* NOW'
    has "$file" "stack that cannot be executed" -l 'GNU_STACK .* RW '
    has "$file" "checked calls" --dyn-syms '__[a-z]+_chk@'
done
exit "$failed"
