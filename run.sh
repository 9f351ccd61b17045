#!/bin/sh
# Builds the program and runs it: ./run.sh [ARGUMENTS of rvfsd]
#
# The build talks to standard error, so that standard output is the program's alone. When no source, no package of the
# system and no part of these scripts has changed since the last build, nothing is built and nothing is said.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
program=$here/build/release/app/rvfsd
(
    cd "$here"
    . scripts/build.sh
    stamp=build/release.stamp
    packages=/var/lib/dpkg/status
    [ -f "$packages" ] || packages=
    # shellcheck disable=SC2086 # a list of words
    if [ ! -x "$program" ] || is_newer $stamp CMakeLists.txt CMakePresets.json run.sh scripts app driver embedded providers $packages; then
        # What changes while the build runs is built the next time.
        mkdir -p build
        touch $stamp.new
        require_packages $packages_program
        build_preset release rvfsd
        mv $stamp.new $stamp
    fi
) >&2
exec "$program" "$@"
