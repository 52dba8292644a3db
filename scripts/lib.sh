# What the scripts of this folder share. Sourced by them, never run.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# fail MESSAGE [STATUS]: one line on standard error, then the end.
fail() {
    echo "${0##*/}: $1" >&2
    exit "${2:-1}"
}

# Reads a tool's output line by line, keeps all of it in the file $1 and prints how far it is, in
# steps of ten per cent. A line counts when it matches the pattern $2: a percentage, or "n/total".
show_progress() {
    local log=$1 pattern=$2 line percent next=10
    : >"$log"
    while IFS= read -r line; do
        printf '%s\n' "$line" >>"$log"
        [[ $line =~ $pattern ]] || continue
        percent=$((10#${BASH_REMATCH[1]}))
        [ -z "${BASH_REMATCH[2]:-}" ] || percent=$((100 * percent / BASH_REMATCH[2]))
        while [ "$next" -le "$percent" ]; do
            printf ' %d%%' "$next"
            next=$((next + 10))
        done
    done
    echo
}

# build_preset PRESET [TARGET...]: configures and builds, all targets when none is named. What the
# tools say is shown when they fail. Returns 1 then.
build_preset() {
    local preset=$1 log=$root/build/$1.log
    shift
    mkdir -p "$root/build"
    if ! (cd "$root" && cmake --preset "$preset") >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
    printf 'Building %s (minutes the first time):' "$preset"
    if ! (cd "$root" && cmake --build --preset "$preset" ${1:+--target "$@"}) 2>&1 |
        show_progress "$log" '^\[ *([0-9]+)%\]'; then
        grep -vE '^\[ *[0-9]+%\]' "$log" | head -n 200 >&2
        return 1
    fi
}
