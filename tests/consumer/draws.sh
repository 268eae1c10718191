#!/bin/sh
# draws.sh PROGRAM: runs the README's first program, whose last line says that it has drawn.
set -eu
[ "$("$1" | tail -n 1)" = drawn ]
