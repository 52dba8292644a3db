#!/usr/bin/env bash
# Installs the client library into a directory of its own and builds the examples with what is there:
# through CMake, through pkg-config, and as C against the static library.
# Arguments: source directory, build directory, C compiler, C++ compiler.
set -euo pipefail
source=$1 build=$2
export CC=$3 CXX=$4

home=$(mktemp -d -t tarvik-client-XXXXXX)
trap 'rm -rf "$home"' EXIT
prefix=$home/prefix
cmake --install "$build" --component client --prefix "$prefix" >/dev/null
[ "$(ls "$prefix/include")" = tarvik_log.h ]

# Nobody is at port 9, so what the example logs is refused and it says so.
runs() { [ "$("$@" 9)" = "0 sent, 2 lost" ] || { echo "$*: wrong counts" >&2; return 1; }; }

{
    cmake -S "$source/client/examples" -B "$home/build" -DCMAKE_PREFIX_PATH="$prefix"
    cmake --build "$home/build"
} >"$home/log" 2>&1 || { cat "$home/log"; exit 1; }
runs "$home/build/tarvik-example-c"

libdir=$(dirname "$(find "$prefix" -name libtarvik_log.a)")
export PKG_CONFIG_PATH=$libdir/pkgconfig
read -ra flags <<<"$(pkg-config --cflags --libs tarvik_log)"
"$CXX" -std=c++11 "$source/client/examples/example.cpp" "${flags[@]}" -o "$home/shared"
[[ $(LD_LIBRARY_PATH=$libdir ldd "$home/shared") == *"libtarvik_log.so.0 => $libdir/"* ]]

read -ra flags <<<"$(pkg-config --cflags tarvik_log) -pthread"
"$CC" -std=c99 "$source/client/examples/example.c" "${flags[@]}" "$libdir/libtarvik_log.a" -o "$home/static"
runs "$home/static"

strays=$(nm -D --defined-only "$libdir/libtarvik_log.so" | awk '$2 != "A" {print $3}' |
    grep -v '^tarvik_log_' || true)
[ -z "$strays" ] || { echo "the library exports $strays" >&2; exit 1; }
