#!/bin/sh
# Builds the program and runs it: ./run.sh [ARGUMENTS of rvfsd]
#
# The build talks to standard error, so that standard output is the program's alone.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
(
    cd "$here"
    . scripts/build.sh
    # shellcheck disable=SC2086 # a list of words
    require_packages $packages_program
    build_preset release rvfsd
) >&2
exec "$here/build/release/app/rvfsd" "$@"
