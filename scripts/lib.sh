# What the scripts of this folder share. Sourced by them, never run.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# fail MESSAGE [STATUS]: one line on standard error, then the end.
fail() {
    echo "${0##*/}: $1" >&2
    exit "${2:-1}"
}

# show_progress LABEL LOG LOOK: reads a tool's output line by line, keeps all of it in the file LOG
# and shows how far it is. LOOK is a function that is called with each line; it leaves how far that is
# in $progress_at and what is being waited for in $progress_for. On a terminal that is one line, drawn
# anew each second; elsewhere a line for each step of ten per cent and after ten seconds without one.
show_progress() {
    local label=$1 log=$2 look=$3 line='' piece status begin=$SECONDS drawn=-1 told=$SECONDS
    local progress_at='' progress_percent=0 progress_for='' step=0 told_text=''
    local -A progress_running=()
    local -a progress_order=()
    : >"$log"
    while :; do
        status=0
        IFS= read -r -t 1 piece || status=$?
        line+=$piece
        if [ "$status" -eq 0 ]; then
            printf '%s\n' "$line" >>"$log"
            "$look" "$line"
            line=''
        elif [ "$status" -le 128 ]; then
            break # the tool has ended
        fi
        if [ -t 1 ]; then
            [ "$SECONDS" -eq "$drawn" ] || draw_progress
            drawn=$SECONDS
        elif [ $((progress_percent / 10)) -gt "$step" ] || [ $((SECONDS - told)) -ge 10 ]; then
            tell_progress
            step=$((progress_percent / 10)) told=$SECONDS
        fi
    done
    if [ -n "$line" ]; then
        printf '%s\n' "$line" >>"$log"
    fi
    progress_at=${progress_at:-done} progress_for=
    if [ -t 1 ]; then
        draw_progress
        echo
    else
        tell_progress
    fi
}

# These two are part of show_progress and use its variables.
draw_progress() {
    local text
    text="$label: ${progress_at:-begins}, $((SECONDS - begin)) s${progress_for:+, $progress_for}"
    printf '\r\033[K%.*s' $((${COLUMNS:-$(tput cols 2>/dev/null || echo 80)} - 1)) "$text"
}

tell_progress() {
    local text="$label: ${progress_at:-begins}, $((SECONDS - begin)) s${progress_for:+, $progress_for}"
    [ "$text" = "$told_text" ] || echo "$text"
    told_text=$text
}

# What make says: "[ 42%] Building CXX object core/CMakeFiles/room_core.dir/Buff.cpp.o".
look_at_build() {
    [[ $1 =~ ^\[\ *([0-9]+)%\]\ ([A-Z][a-z]+)\ .*\ ([^ ]+)$ ]] || return 0
    progress_percent=${BASH_REMATCH[1]} progress_at="$((BASH_REMATCH[1])) %"
    progress_for="${BASH_REMATCH[2],} ${BASH_REMATCH[3]/CMakeFiles\//}"
    progress_for=${progress_for/.dir\//: }
}

# What ctest says: "      Start  5: NAME", then "  3/137 Test  #5: NAME ....   Passed    0.01 sec".
look_at_tests() {
    if [[ $1 =~ ^\ *Start\ +([0-9]+):\ (.*)$ ]]; then
        progress_running[${BASH_REMATCH[1]}]=${BASH_REMATCH[2]}
        progress_order+=("${BASH_REMATCH[1]}")
    elif [[ $1 =~ ^\ *([0-9]+)/([0-9]+)\ Test\ +#([0-9]+): ]]; then
        progress_at="${BASH_REMATCH[1]} of ${BASH_REMATCH[2]}"
        progress_percent=$((100 * BASH_REMATCH[1] / BASH_REMATCH[2]))
        unset "progress_running[${BASH_REMATCH[3]}]"
    fi
    while [ ${#progress_order[@]} -gt 0 ] && [ -z "${progress_running[${progress_order[0]}]:-}" ]; do
        progress_order=("${progress_order[@]:1}")
    done
    progress_for=
    [ ${#progress_order[@]} -eq 0 ] || progress_for="runs ${progress_running[${progress_order[0]}]}"
}

# What a tool says that has no numbers: its latest line.
look_at_lines() { progress_for=$1; }

# build_preset PRESET [TARGET]: configures and builds, everything when no target is named. What the
# tools say is shown when they fail. Returns 1 then.
build_preset() {
    local preset=$1 log=$root/build/$1.log
    mkdir -p "$root/build"
    if ! (cd "$root" && cmake --preset "$preset") >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
    if ! (cd "$root" && cmake --build --preset "$preset" ${2:+--target "$2"}) 2>&1 |
        show_progress "Building $preset" "$log" look_at_build; then
        grep -vE '^\[ *[0-9]+%\]' "$log" | head -n 200 >&2
        return 1
    fi
}
