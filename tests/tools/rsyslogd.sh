#!/usr/bin/env bash
# A real rsyslogd takes what "tarvik-log show -o syslog" writes: each record arrives over TCP with its
# time, client, severity and text, compared with "show -o json".
# Use: rsyslogd.sh TARVIK_LOG. Exit status 77: rsyslogd or jq is not installed.
set -euo pipefail

tarvik_log=$1
rsyslogd=${RSYSLOGD:-$(PATH=$PATH:/usr/sbin command -v rsyslogd)} || exit 77
command -v jq >/dev/null || exit 77

dir=$(mktemp -d)
daemon=
trap '[ -z "$daemon" ] || { kill "$daemon"; wait "$daemon"; }; rm -rf "$dir"' EXIT
export TARVIK_ROOT=$dir/root TZ=CET-1CEST,M3.5.0,M10.5.0/3 LC_ALL=C.UTF-8
mkdir -p "$TARVIK_ROOT/etc/tarvik/log"
printf '[0]\nAPP = alpha\n[1]\nAPP = my "app"\n' >"$TARVIK_ROOT/etc/tarvik/log/log.conf"

day=$dir/20261122.log
records=0

# le BYTES NUMBER
le() {
    local i
    for ((i = 0; i < $1; ++i)); do
        printf '%b' "\\x$(printf %02x $(($2 >> 8 * i & 255)))"
    done
}

# record CLIENT TYPE MONTH TEXT
record() {
    records=$((records + 1))
    {
        le 4 0x26581944; le 4 "$1"; le 4 "$2"
        le 2 2026; le 1 "$3"; le 1 22; le 1 14; le 1 $((records / 60)); le 1 $((records % 60)); le 1 0
        printf '%s' "$4"
    } >>"$day"
    truncate -s $((300 + 300 * records)) "$day"
}

truncate -s 300 "$day"
texts=(plain '' ' blanks around ' $'two\nlines\r' $'\e[31mred\x7f' 'é 漢字 😀' $'\u0085\u2028' $'no \xff UTF-8 \xe6\xbc'
    '"quoted" \ and , and ]' '<13>1 - - - - - no head' '[id a="b"] no data' '%s %d' "$(printf 'x%.0s' {1..280})")
for text in "${texts[@]}"; do
    for type in -1 0 1 2 3; do
        record $((type * 2 & 3)) "$type" $((type & 1 ? 7 : 11)) "$text"  # clients 0, 2 and others
        record 1 "$type" 11 "$text"
    done
done
{ le 4 0x26581944; le 4 $records; } | dd of="$day" conv=notrunc status=none

cat >"$dir/conf" <<CONF
global(workDirectory="$dir")
module(load="imtcp")
input(type="imtcp" address="127.0.0.1" port="0" listenPortFileName="$dir/port")
template(name="line" type="string"
  string="%timereported:::date-rfc3339% %hostname% %app-name% %syslogfacility% %syslogseverity% %msg%\n")
action(type="omfile" file="$dir/arrived" template="line")
CONF
"$rsyslogd" -n -f "$dir/conf" -i "$dir/pid" &
daemon=$!

# await WHAT CONDITION...: up to 20 s
await() {
    local tries
    for ((tries = 0; tries < 200; ++tries)); do
        if "${@:2}" 2>/dev/null; then
            return
        fi
        sleep 0.1
    done
    echo "$1 did not come" >&2
    exit 1
}
have_all() { [ "$(wc -l <"$dir/arrived")" -ge $records ]; }

await 'the port of rsyslogd' test -s "$dir/port"
"$tarvik_log" show -o syslog "$day" >"/dev/tcp/127.0.0.1/$(<"$dir/port")"
await 'every record' have_all

"$tarvik_log" show -o json "$day" | jq -r --arg host "$(uname -n)" '
  "\(.time)\(if .time[5:7] == "07" then "+02:00" else "+01:00" end) \($host) \(.name | gsub("[^!-~]"; "_")) 16 " +
  "\({unknown: 5, info: 6, warning: 4, error: 3, debug: 7}[.severity]) " +
  (.text | gsub("[\u0000-\u001f\u007f-\u009f]"; "."))' >"$dir/expected"
diff "$dir/expected" "$dir/arrived"
