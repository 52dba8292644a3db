#!/usr/bin/env bash
# Runs every example of "tarvik-log SUBCOMMAND --help" as it is written, each on what looks to it like
# a machine of its own: a root with yesterday's and today's file, a service, and the peers that it
# needs. What does not end by itself is ended as by Ctrl-C. Arguments: source and build directory.
set -euo pipefail
# shellcheck source=tests/tour/lib.sh
. "$(dirname "$0")/lib.sh"
own_network "$@"
source=$(realpath "$1") build=$(realpath "$2") script=$(realpath "$0")
PATH=$build/bin:$PATH
limit=8 # seconds after which an example is ended; a service looks for its agent every 3

clean_up() {
    local group
    for group in "$home"/{,*/}*.group; do
        [ ! -e "$group" ] || kill -KILL -- "-$(cat "$group")" 2>/dev/null || true
    done
    rm -rf "$home"
}

# beside NAME COMMAND...: runs a command in the background, in a process group of its own, which
# takes signals as one in the foreground of a terminal does.
beside() {
    local name=$1
    shift
    set -m
    "$@" >"$name.out" 2>&1 &
    echo $! >"$name.group"
    set +m
}

# end NAME SIGNAL: ends what beside started; when it is there no more, it is done.
end() { kill "-$2" -- "-$(cat "$1.group")" 2>/dev/null || true; }

# start_service [NUMBER]: the service of the root; with a number, one more with root and ports of its
# own.
start_service() {
    local name=service${1:-} root=$TARVIK_ROOT
    if [ -n "${1:-}" ]; then
        cp -r root "root$1"
        root=$PWD/root$1
        sed -i -E "s/^(Port.*|nSTPort) = 198(.)/\1 = 2$(printf %02d "$1")\2/" \
            "$root/etc/tarvik/log/log.conf"
    fi
    TARVIK_ROOT=$root beside "$name" tarvik-logd app
    until_true 10 grep -qs 'Start  83' "$name.out" || fail "no service: $(cat "$name.out")"
}

# The appliances that a receiver awaits, the first of which runs already, and their agents.
start_appliances() {
    local number root
    for ((number = 1; number <= $1; number++)); do
        [ "$number" -eq 1 ] || start_service "$number"
        root=root$number
        [ "$number" -gt 1 ] || root=root
        TARVIK_ROOT=$PWD/$root beside "agent$number" \
            tarvik-log agent --receiver 127.0.0.1:4711 --node "$number"
    done
}

records() { tarvik-log show 2>/dev/null | wc -l; }
has_more() { [ "$(records)" -gt "$1" ]; }
ended() { ! kill -0 -- "-$(cat example.group)" 2>/dev/null; }

# True when the example $1, whose machine is the working directory, did what it is for.
did() {
    case $1 in
        *"send "*--realtime*) true ;; # nobody has switched real-time records on
        *"send "*) until_true 5 has_more "$before" ;;
        *"stats --live"*) grep -q 'in all: [1-9]' example.out ;;
        *"--live-to "*) grep -q '"link is up"' live.json ;;
        *"--live "*) grep -q 'webd *warning link is up' example.out ;;
        *"--set-language english"*) grep -q '^LANGUAGE *= *English' root/etc/tarvik/log/log.conf ;;
        *"receive "*)
            [ "$(find . -path "*history/*/$yesterday.log" \
                -exec cmp {} "root/hislog/$yesterday.log" \; -print | wc -l)" -eq "$appliances" ]
            ;;
        *"fetch --get"*) [ -s "tarvik-history/$(date +%Y%m%d).log" ] ;;
        *"--into today"*) [ -s "today/$(date +%Y%m%d).log" ] && [ ! -e "today/$yesterday.log" ] ;;
        *"fetch"*) cmp "tarvik-history/$yesterday.log" "root/hislog/$yesterday.log" ;;
        *"console "*seen.txt*) grep -q 'live link up' seen.txt ;;
        *"console "*grep*) grep -q 'live link up' example.out ;;
        *"console "*) grep -q '^  0  webd' example.out ;;
        *"agent "*--receiver*) until_true 5 grep -q 'session with node' receiver.out ;;
        *"agent "*) grep -q 'keep-alive' example.out ;;
        *"check "* | *"check") grep -qE 'would start|"starts":true' example.out ;;
        *"show "* | *"stats"*) grep -q 'link\|webd' example.out ;;
        *) echo "no check for: $1"; return 1 ;;
    esac
}

# run_example COMMAND: on the machine that is the working directory. Leaves a line in "result", "ok"
# when all is well.
run_example() {
    local command=$1 status=0 wanted=0 appliances=1 client=0 before other
    [[ ! $command =~ --sessions\ ([0-9]+) ]] || appliances=${BASH_REMATCH[1]}
    if [ -n "$TARVIK_OWN_NETWORK" ]; then ip link set lo up; fi
    cp -r "$home/root" root
    cp root/etc/tarvik/log/log.conf .
    export TARVIK_ROOT=$PWD/root
    start_service
    before=$(records)
    case $command in
        *" receive "*) start_appliances "$appliances" ;;
        *" agent "*--receiver*) beside receiver tarvik-log receive --port 4711 --into received ;;
        *" console "*)
            client=1 # the control port of 0 is that of the program at the console
            echo quietharbor >password
            beside live bash -c \
                "yes live link up | tarvik-log send --client 0 --realtime --rate 4"
            ;;
    esac
    case $command in
        *" send "*) ;;
        *) beside sender bash -c "yes link is up | tarvik-log send --client $client --type warning --rate 4" ;;
    esac
    beside example bash -c "$command"
    if ! until_true "$limit" ended; then
        # A program that follows ends as any does by Ctrl-C; the others end their work in order.
        [[ $command != *"show -f"* ]] || wanted=130
        end example INT
        until_true 5 ended || end example KILL
    fi
    wait "$(cat example.group)" || status=$?
    if [ "$status" -ne "$wanted" ]; then
        echo "status $status" >result
    elif ! did "$command" >>example.out 2>&1; then
        echo "did not do what it is for" >result
    else
        echo ok >result
    fi
    for other in *.group; do
        end "${other%.group}" TERM
    done
    wait # the next example may have the same ports
}

# The example $1 in the directory $2, started in a network of its own where that can be had.
if [ "${3:-}" = --example ]; then
    cd "$5"
    home=$(dirname "$5") yesterday=$6
    run_example "$4"
    exit 0
fi

# A root with a file of yesterday and one of today, and the language that no example sets.
make_root() {
    local yesterday today=$TZ
    yesterday=$(zone 24)
    mkdir -p root/{log,hislog,var/log,etc/tarvik/log,config/etc/tarvik/log}
    sed 's/^LANGUAGE = .*/LANGUAGE = Chinese/' "$source/docs/log.conf" >root/etc/tarvik/log/log.conf
    export TARVIK_ROOT=$PWD/root
    for TZ in "$yesterday" "$today"; do
        start_service
        tarvik-log send --client webd --type error "Link down"
        printf 'link up\nlink to eth0 is slow\n' | tarvik-log send --client 0 --type info
        until_true 10 test "$(stat -c %s "root/log/$(date +%Y%m%d).log")" -gt 1000 ||
            fail "records are not stored"
        end service TERM
        wait "$(cat service.group)"
        rm service.*
        [ "$TZ" = "$today" ] || mv root/log/*.log root/hislog
    done
}

# The examples of all subcommands, a line each: indented by two in the list at the end of the help.
list_examples() {
    local subcommand
    for subcommand in $(tarvik-log --help | sed -n '/^Subcommands:/,$s/^  \([a-z]*\)  .*/\1/p'); do
        tarvik-log "$subcommand" --help | sed -n '/^Examples:$/,$s/^  \([^ ]\)/\1/p' >"$home/list"
        [ "$(wc -l <"$home/list")" -ge 2 ] || fail "$subcommand has too few examples"
        cat "$home/list"
    done
}

home=$(mktemp -d -t tarvik-examples-XXXXXX)
trap clean_up EXIT
TZ=$(zone 0)
export TZ
cd "$home"
make_root
yesterday=$(basename root/hislog/*.log .log)
list_examples >examples
[ "$(wc -l <examples)" -ge 25 ] || fail "only $(wc -l <examples) examples"
number=0
while IFS= read -r command; do
    number=$((number + 1))
    mkdir "$number"
    # shellcheck disable=SC2086  # a command of several words
    beside "$number" $TARVIK_OWN_NETWORK "$script" "$source" "$build" --example "$command" \
        "$home/$number" "$yesterday" </dev/null
    [ -n "$TARVIK_OWN_NETWORK" ] || wait
done <examples
wait

failed=0
number=0
while IFS= read -r command; do
    number=$((number + 1))
    result=$(cat "$number/result" 2>/dev/null) || result="was not run"
    if [ "$result" != ok ]; then
        printf '%s\n  %s; it printed:\n' "$command" "$result"
        cat "$number.out" "$number/example.out" 2>/dev/null | sed 's/^/    /' || true
        failed=$((failed + 1))
    fi
done <examples
echo "$number examples, $failed of them failed"
[ "$failed" -eq 0 ]
