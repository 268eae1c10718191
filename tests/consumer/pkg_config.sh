#!/bin/sh
# pkg_config.sh PKG_CONFIG COMPILER LIBDIR PACKAGES SOURCE COMMAND...: builds SOURCE with what the
# installed .pc files say of PACKAGES, and nothing else; has COMMAND run the result.
set -eu
pkg_config=$1 compiler=$2 libdir=$3 packages=$4 source=$5
shift 5
export PKG_CONFIG_PATH="$libdir/pkgconfig"
program=${source%.cpp}.with_pkg_config
# The packages and the flags are words of the command line, so they stand without quotes.
# shellcheck disable=SC2046,SC2086
"$compiler" -std=c++20 $("$pkg_config" --cflags $packages) "$source" -o "$program" \
    $("$pkg_config" --libs $packages) "-Wl,-rpath,$libdir"
"$@" "$program"
