#!/usr/bin/env bash
# Runs the tour of README.md: its "sh" blocks as they are written, in order, in one shell, and
# compares what they print with what the README shows. One thing is replaced: the block that
# builds, by what is built already. Arguments: README.md, build directory.
set -euo pipefail
# shellcheck source=tests/tour/lib.sh
. "$(dirname "$0")/lib.sh"
own_network "$@"
readme=$(realpath "$1") source=$(realpath "$(dirname "$0")/../..") build=$(realpath "$2")
command -v jq >/dev/null || { echo "jq is missing"; exit 77; }

home=$(mktemp -d -t tarvik-tour-XXXXXX)
tour=
clean_up() {
    [ -z "$tour" ] || kill -KILL -- "-$tour" 2>/dev/null || true
    rm -rf "$home"
}
trap clean_up EXIT

# Puts block N of the tour into N.sh, and what the README shows behind it into N.wanted.
split_tour() {
    awk -v home="$home" '
        /^## /        { inside = $0 == "## The tour" }
        !inside       { next }
        /^```/        { open = !open
                        if ($0 == "```sh") file = sprintf("%s/%02d.sh", home, ++n)
                        else if (open) file = sprintf("%s/%02d.wanted", home, n)
                        next }
        open          { print > file }' "$readme"
}

# What differs from run to run: times, days, processes, the directory.
plain() {
    sed -E 's/[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}/TIME/g; s/[0-9]{8}\.log/DAY.log/g
        s/pid [0-9]+, user [^ ]+/PROCESS/g
        s#[^ ]*/tmp\.[[:alnum:]]{10}#ROOT#g' "$1"
}

# True when the lines of $2 are those of $1, where a line "..." stands for any lines.
same_lines() {
    awk '
        NR == FNR      { want[++n] = $0; next }
        want[i + 1] == "..." { gap = 1; i++ }
        i < n && $0 == want[i + 1] { gap = 0; i++; next }
        !gap           { exit bad = 1 }
        END            { if (!bad && want[i + 1] == "...") i++
                         exit bad || i < n }' <(plain "$1") <(plain "$2")
}

# The blocks in one script. Between two of them it waits, as who types does, until the service has
# taken what was sent (its record port is 1982, 07BE).
whole_tour() {
    local block
    cat <<'END'
set -eu -o pipefail
taken() {
    while grep -qE '^ *[0-9]+: [0-9A-F]+:07BE .* [0-9A-F]{8}:0*[1-9A-F][0-9A-F]* ' /proc/net/udp; do
        sleep 0.1
    done
    sleep 0.3
}
END
    for block in "$home"/*.sh; do
        printf 'exec >%q 2>&1\n' "${block%.sh}.got"
        printf 'echo %q >%q\n' "${block##*/}" "$home/block"
        if grep -qx scripts/setup "$block"; then
            echo ": built already"
        else
            cat "$block"
        fi
        echo "taken"
    done
    printf 'echo end >%q\n' "$home/block"
}

split_tour
blocks=("$home"/*.sh)
shown=("$home"/*.wanted)
if [ ${#blocks[@]} -lt 10 ] || [ ${#shown[@]} -lt 8 ]; then
    fail "${#blocks[@]} blocks and ${#shown[@]} outputs: this is not the tour"
fi
[ "$(cat "${blocks[@]}" | grep -cx scripts/setup)" = 1 ] || fail "the tour does not build once"
whole_tour >"$home/tour"

# The source tree as it is after the build of the tour.
mkdir -p "$home/tree/build" "$home/tmp"
ln -s "$source"/{client,docs} "$home/tree"
ln -s "$build" "$home/tree/build/release"
TZ=$(zone 0)
export TZ TMPDIR=$home/tmp
set -m
(cd "$home/tree" && exec timeout --foreground 120 bash "$home/tour") &
tour=$!
status=0
wait "$tour" || status=$?
set +m

last=$(cat "$home/block")
if [ "$status" -ne 0 ]; then
    cat "$home/${last%.sh}.sh" "$home/${last%.sh}.got" >&2
    fail "the block above ended with status $status"
fi
[ "$last" = end ] || fail "the tour ended in block $last"
for wanted in "${shown[@]}"; do
    got=${wanted%.wanted}.got
    same_lines "$wanted" "$got" || {
        diff "$wanted" "$got" >&2 || true
        fail "block ${got##*/}: README.md shows (<) what does not come (>)"
    }
done
! kill -0 -- "-$tour" 2>/dev/null || fail "the tour leaves a process behind"
[ -z "$(ls "$home/tmp")" ] || fail "the tour leaves behind: $(ls "$home/tmp")"
echo "${#blocks[@]} blocks ran, ${#shown[@]} outputs are as shown"
