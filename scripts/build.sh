# shellcheck shell=sh disable=SC2034 # the lists are for those who source this
# Sourced by run.sh, test.sh and .ci/run from the repository's root: the Debian packages each of them needs, and the
# build of one preset. Nothing is installed without being named first.

packages_program="clang cmake ninja-build pkg-config libfmt-dev libicu-dev libcli11-dev libedit-dev nlohmann-json3-dev"
packages_tests="$packages_program libgtest-dev libgmock-dev"
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

# build_preset PRESET [TARGET...]: configures and builds, quietly unless something fails. Ends the script on a failure.
build_preset() {
    preset=$1
    shift
    [ $# -eq 0 ] || set -- --target "$@"
    log=build/$preset.log
    mkdir -p build
    started=$(date +%s)
    # shellcheck disable=SC2086 # a list of options
    echo "Building preset $preset (log: $log)"
    if ! { cmake --preset "$preset" $configure_options && cmake --build --preset "$preset" --parallel "$(nproc)" "$@"; } >"$log" 2>&1; then
        tail -n 100 "$log" >&2
        echo "The build of preset $preset failed." >&2
        exit 1
    fi
    echo "Built preset $preset in $(($(date +%s) - started)) s"
}
