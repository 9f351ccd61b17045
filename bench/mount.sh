#!/bin/sh
# The mount beside what stands next to it: the same workloads on a directory, on bindfs and on libfuse's passthrough_ll
# over it, and on the mount, in one run. As root.
#   bench/mount.sh PROGRAM [ROUNDS [WORKLOAD...]]
# PROGRAM is an optimised build of rvfsd, served through /dev/fuse and, as rvfsd_io_uring, over rings. Everything lies in
# /dev/shm. Each round takes every target once, in another order; figures are medians, and ratios are taken inside a
# round. Without bindfs, fio, dbench or libfuse's examples (packages bindfs, fio, dbench, libfuse3-dev) what they are
# needed for is left out, and that is said.
set -eu
here=$(dirname "$(realpath "$0")")
program=$(realpath "${1:?usage: $0 PROGRAM [ROUNDS [WORKLOAD...]]}")
rounds=${2:-3}
[ $# -lt 2 ] && shift 1 || shift 2
work=$(mktemp -d /dev/shm/rvfsd-bench-XXXXXX)
mkdir "$work/mnt" "$work/plain"
ulimit -n "$(ulimit -H -n)" # passthrough_ll keeps a descriptor for each name it knows
server=
switch=/sys/module/fuse/parameters/enable_uring
before=
trap 'fusermount3 -q -u -z "$work/mnt" || true; rm -rf "$work"; [ -z "$before" ] || echo "$before" >$switch' EXIT

targets="directory rvfsd rvfsd_local_lock"
if [ -w $switch ]; then # only those who ask for it get it: libfuse 3.14 does not
    before=$(cat $switch)
    echo Y >$switch
    targets="$targets rvfsd_io_uring"
else
    echo "NOT MEASURED: requests over io_uring, which this kernel does not have" >&2
fi
if command -v bindfs >/dev/null; then targets="$targets bindfs"; else echo "NOT MEASURED: bindfs" >&2; fi
example=/usr/share/doc/libfuse3-dev/examples/passthrough_ll.c
if [ -f "$example" ]; then
    # shellcheck disable=SC2046 # words
    cc -O2 -w -I"$(dirname "$example")" "$example" -o "$work/passthrough_ll" $(pkg-config --cflags --libs fuse3)
    targets="$targets passthrough_ll"
else
    echo "NOT MEASURED: passthrough_ll" >&2
fi

# Serves $work/plain at $work/mnt in the foreground; $server is its process. All keep names and attributes for a second.
serve() {
    case $1 in
    directory) root=$work/plain; return ;;
    bindfs) bindfs -f -o big_writes,attr_timeout=1,entry_timeout=1,negative_timeout=1 "$work/plain" "$work/mnt" & ;;
    passthrough_ll) "$work/passthrough_ll" -f -o "source=$work/plain,cache=auto,timeout=1" "$work/mnt" & ;;
    rvfsd | rvfsd_io_uring | rvfsd_local_lock)
        case $1 in
        rvfsd) how=no_io_uring ;;
        rvfsd_io_uring) how=io_uring ;;
        rvfsd_local_lock) how=no_io_uring,local_lock=all ;;
        esac
        "$program" --no-config --export "\\\\server\\volume=$work/plain" mount -f -o "volume=\\\\server\\volume,$how" "$work/mnt" & ;;
    esac
    server=$!
    root=$work/mnt
    until mountpoint -q "$work/mnt"; do
        kill -0 "$server"
        sleep 0.05
    done
}

round=1
while [ "$round" -le "$rounds" ]; do
    for target in $targets; do
        echo "round $round of $rounds: $target" >&2
        mkdir -p "$work/plain"
        serve "$target"
        python3 "$here/mount_work.py" run "$root" "$target" "$round" "${server:-0}" "$@" >>"$work/results"
        [ -z "$server" ] || { fusermount3 -u "$work/mnt"; wait "$server" || true; server=; }
        rm -rf "$work/plain"
    done
    targets="${targets#* } ${targets%% *}"
    round=$((round + 1))
done
python3 "$here/mount_work.py" table "$work/results"
