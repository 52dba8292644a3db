# What the scripts of this folder share. Sourced by them, never run.
# shellcheck shell=bash

# What is drawn is compared, so it is drawn in the same way everywhere.
export LC_ALL=C.UTF-8

fail() {
    echo "${0##*/}: $1" >&2
    exit 1
}

# own_network ARGUMENT...: starts the script anew in a network of its own, where the system lets it,
# so that its ports are free and nobody else answers there. TARVIK_OWN_NETWORK then holds the command
# that makes one, and is empty where the system does not.
own_network() {
    local way
    [ -z "${TARVIK_OWN_NETWORK+set}" ] || return 0
    for way in "unshare -n" "unshare -rn"; do
        # shellcheck disable=SC2086,SC2016  # two words; expanded by the inner shell
        if $way ip link set lo up 2>/dev/null; then
            export TARVIK_OWN_NETWORK="unshare -n"
            exec $way bash -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
        fi
    done
    export TARVIK_OWN_NETWORK=
}

# zone OFFSET: a time zone in which it is 14:20 now, of today; with OFFSET 24, of the day before.
zone() {
    local west=$((($(date -u +%s) + 86400 - 51600) % 86400 - 86400 + 3600 * $1)) sign=+
    if [ "$west" -lt 0 ]; then
        sign=- west=$((-west))
    fi
    printf 'TOUR%s%02d:%02d:%02d' "$sign" $((west / 3600)) $((west / 60 % 60)) $((west % 60))
}

# until_true SECONDS COMMAND...: waits until the command succeeds; 1 when it does not in that time.
until_true() {
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$end" ] || return 1
        sleep 0.1
    done
}
