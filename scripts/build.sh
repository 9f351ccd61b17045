# shellcheck shell=sh disable=SC2034 # the lists are for those who source this
# Sourced by run.sh, test.sh and .ci/run from the repository's root: the Debian packages each of them needs, and the
# build of one preset. Nothing is installed without being named first.

packages_program="clang lld cmake ninja-build pkg-config libfmt-dev libicu-dev libcli11-dev libedit-dev libfuse3-dev liburing-dev nlohmann-json3-dev"
packages_tests="$packages_program libgtest-dev libgmock-dev"
packages_packaging="lintian file dpkg-dev"
packages_mount="fuse3 python3 git sqlite3 fio samba smbclient stress-ng"
packages_machine="qemu-system-x86 busybox-static cpio e2fsprogs dosfstools exfatprogs"
packages_sanitizers="libclang-rt-dev llvm"
packages_image="clang lld llvm cmake ninja-build python3 gcc-mingw-w64-x86-64 g++-mingw-w64-x86-64 mingw-w64-x86-64-dev"

# require_packages NAME...: installs what is missing of them. Ends the script when it cannot.
require_packages() {
    if ! command -v dpkg-query >/dev/null; then
        echo "Not a Debian system: taking for granted what these packages hold: $*"
        return
    fi
    missing=
    for package; do
        case $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) in
        installed) continue ;;
        esac
        case "$missing " in
        *" $package "*) ;;
        *) missing="$missing $package" ;;
        esac
    done
    [ -n "$missing" ] || return 0
    echo "Installing from Debian:$missing"
    root=
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || { echo "Neither root nor sudo: install them and start again." >&2; exit 1; }
        root=sudo
    fi
    log=$(mktemp)
    # shellcheck disable=SC2086 # lists of words on purpose
    if ! { $root apt-get update && $root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends $missing; } >"$log" 2>&1; then
        tail -n 40 "$log" >&2
        echo "The installation failed." >&2
        rm -f "$log"
        exit 1
    fi
    rm -f "$log"
}

# What build_preset gives to the configuration besides the preset.
configure_options=

# show_build LOG: the build's lines from standard input into LOG; on a terminal, how far it is and what is left of it.
show_build() {
    begun=$(date +%s)
    while IFS= read -r line; do
        printf '%s\n' "$line"
        case $line in
        "["[0-9]*/[0-9]*"] "*)
            [ -t 2 ] || continue
            counts=${line%%]*}
            done_=${counts#?}
            all=${done_#*/}
            done_=${done_%/*}
            left=
            [ "$done_" -lt 10 ] || left=", about $((($(date +%s) - begun) * (all - done_) / done_ + 1)) s left"
            printf '\r  %s of %s%s    ' "$done_" "$all" "$left" >&2
            ;;
        esac
    done >>"$1"
    [ ! -t 2 ] || printf '\r%50s\r' '' >&2
}

# build_preset PRESET [TARGET...]: configures and builds; says little, and the build's last lines when it fails. Ends the
# script on a failure.
build_preset() {
    preset=$1
    shift
    [ $# -eq 0 ] || set -- --target "$@"
    log=build/$preset.log
    mkdir -p build
    started=$(date +%s)
    if [ -f "build/$preset/CMakeCache.txt" ] && ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "build/$preset/CMakeCache.txt"; then
        # Copied or moved together with the sources: a cache holds for one place.
        rm -rf "build/$preset/CMakeCache.txt" "build/$preset/CMakeFiles"
    fi
    first=
    [ -f "build/$preset/build.ninja" ] || first=", the first time: one to two minutes of two processors"
    # shellcheck disable=SC2086 # a list of options
    echo "Building preset $preset (log: $log)$first"
    code=build/$preset.code
    echo 1 >"$code"
    : >"$log"
    # shellcheck disable=SC2086 # a list of options
    {
        cmake --preset "$preset" $configure_options &&
            cmake --build --preset "$preset" --parallel "$(nproc)" "$@" &&
            echo 0 >"$code"
    } </dev/null 2>&1 | show_build "$log"
    if [ "$(cat "$code")" -ne 0 ]; then
        rm -f "$code"
        tail -n 100 "$log" >&2
        echo "The build of preset $preset failed." >&2
        exit 1
    fi
    rm -f "$code"
    echo "Built preset $preset in $(($(date +%s) - started)) s"
}

# is_newer STAMP PATH...: something below PATHs has changed since STAMP was written, or been added, or taken away. It is the
# time of the last change of the inode that counts, which nobody sets: copies that keep their old times are seen too.
is_newer() {
    stamp=$1
    shift
    [ ! -f "$stamp" ] || [ -n "$(find "$@" -cnewer "$stamp" -print -quit 2>&1)" ]
}
