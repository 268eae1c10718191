#!/bin/sh
# pkg_config.sh PKG_CONFIG COMPILER LIBDIR SOURCE WORK: builds and runs SOURCE with what the
# installed .pc files say, and nothing else.
set -eu
export PKG_CONFIG_PATH="$3/pkgconfig"
# The flags are words of the command line, so they stand without quotes.
# shellcheck disable=SC2046
"$2" -std=c++20 $("$1" --cflags kiroweb) "$4" -o "$5/with_pkg_config" \
    $("$1" --libs kiroweb) "-Wl,-rpath,$3"
"$5/with_pkg_config"
