#!/usr/bin/env bash
# What goes wrong in the first five minutes is told, not waited for. Arguments: source and build
# directory.
set -euo pipefail
# shellcheck source=tests/tour/lib.sh
. "$(dirname "$0")/lib.sh"
source=$(realpath "$1") build=$(realpath "$2")
home=$(mktemp -d -t "tarvik first-XXXXXX")
trap 'rm -rf "$home"' EXIT
mkdir "$home/bin" "$home/tmp"
cp "$build/bin/tarvik-log" "$home/bin" # where another user can run it, too
chmod 755 "$home" "$home/bin"
tool=$home/bin/tarvik-log

# says STATUS TEXT COMMAND...: the command ends so, with one line on standard error that has the text.
says() {
    local wanted=$1 text=$2 status=0
    shift 2
    "$@" >"$home/out" 2>"$home/errors" </dev/null || status=$?
    [ "$status" -eq "$wanted" ] || fail "$*: status $status, not $wanted: $(cat "$home/errors")"
    if [ "$(wc -l <"$home/errors")" -ne 1 ] || ! grep -qF -- "$text" "$home/errors"; then
        fail "$*: said '$(cat "$home/errors")', not '$text'"
    fi
}

says 2 "'sho' is no subcommand" "$tool" sho --help

# Whoever may not read log.conf is told what to do, and "check" says nothing about the service.
export TARVIK_ROOT=$home/root
mkdir -p "$TARVIK_ROOT"/{log,hislog,etc/tarvik/log}
cp "$source/docs/log.conf" "$TARVIK_ROOT/etc/tarvik/log"
outsider=()
reason="run this as root"
chmod 640 "$TARVIK_ROOT/etc/tarvik/log/log.conf"
if [ "$(id -u)" -eq 0 ]; then
    outsider=(setpriv --reuid 65534 --regid 65534 --clear-groups)
    chgrp tty "$TARVIK_ROOT/etc/tarvik/log/log.conf" # any group but root's own
    reason="join the group tty"
else
    chmod 0 "$TARVIK_ROOT/etc/tarvik/log/log.conf"
fi
says 1 "$reason" "${outsider[@]}" "$tool" check
says 1 "$reason" "${outsider[@]}" "$tool" send --client 0 hello
says 1 "$reason" "${outsider[@]}" "$tool" fetch --into "$home/tmp/history"
says 0 "$reason" "${outsider[@]}" "$tool" show

# Installed under any prefix, the unit starts what was installed there, and the documents that it
# names are there.
DESTDIR=$home/install cmake --install "$build" --prefix /opt/appliance >"$home/out"
unit=$home/install/opt/appliance/lib/systemd/system/tarvik-logd.service
program=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
[ "$program" = /opt/appliance/sbin/tarvik-logd ] && [ -x "$home/install$program" ] ||
    fail "the unit starts '$program'"
documents=$(grep -o 'file://[^ ]*' "$unit" | sed 's#^file://##')
[ "$(wc -l <<<"$documents")" -ge 2 ] || fail "the unit names no documents"
for document in $documents "$(dirname "$(head -n 1 <<<"$documents")")/LICENSE"; do
    [ -s "$home/install$document" ] || fail "$document is not installed"
done

# The demonstration: a hang-up leaves nothing behind, and a service that cannot start is told.
if [ "$build" = "$source/build/release" ]; then
    unset TARVIK_ROOT
    export TMPDIR=$home/tmp
    has_begun() { grep -qs 'Start  83' "$home"/tmp/tarvik-demo-*/progress; }
    (trap - HUP && exec "$source/scripts/demo" --stay) >"$home/out" 2>&1 &
    demo=$!
    until_true 60 has_begun || fail "the demonstration does not begin: $(cat "$home/out")"
    kill -HUP "$demo"
    wait "$demo" || true
    rm -rf "$home/tmp/history"
    [ -z "$(ls "$home/tmp")" ] || fail "a hang-up leaves behind: $(ls "$home/tmp")"
fi
echo "all is told"
