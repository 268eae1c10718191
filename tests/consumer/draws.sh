#!/bin/sh
# draws.sh PROGRAM: runs the first program of docs/library.md, whose last line says that it has drawn.
set -eu
[ "$("$1" | tail -n 1)" = drawn ]
