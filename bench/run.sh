#!/bin/sh
# Runs the benchmarks in rounds and writes the table of ratios into README.md; then the table of instructions, where valgrind
# is installed to count them.
#   bench/run.sh <rvfsd_bench> [rounds [image]]
# The image is build/image/windows/RVFSD.sys if no other is given; without one its rows are left out.
# The machine should be at rest: what else runs ends up in the figures.
set -eu

program=$(realpath "$1")
rounds=${2:-3}
here=$(dirname "$(realpath "$0")")
image=${3:-$here/../build/image/windows/RVFSD.sys}
if [ -f "$image" ]; then
  image=$(realpath "$image")
elif [ $# -ge 3 ]; then
  echo "$image: no such file" >&2
  exit 2
else
  image=
  echo "$here/../build/image/windows/RVFSD.sys is not built: the driver linked in alone is measured" >&2
fi
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT

# Each round is a run of its own; the order changes from round to round, and within a run the repetitions of all
# benchmarks are mixed. Only ratios inside one run are used.
round=1
while [ "$round" -le "$rounds" ]; do
  if [ $((round % 2)) -eq 1 ]; then order="small large"; else order="large small"; fi
  for part in $order; do
    echo "round $round of $rounds: $part" >&2
    case $part in
    small) set -- "--benchmark_filter=-^table/" --benchmark_enable_random_interleaving=true --benchmark_repetitions=7 ;;
    # These share a table that grows, so they keep their order.
    large) set -- "--benchmark_filter=^table/" --benchmark_repetitions=3 ;;
    esac
    "$program" ${image:+--image "$image"} "$@" --benchmark_min_time=0.05 --benchmark_format=json >"$results/$part.$round.json"
  done
  round=$((round + 1))
done

python3 "$here/table.py" "$here/README.md" "$results"/*.json
if command -v valgrind >/dev/null; then
  echo "instructions" >&2
  "$here/instructions" "$program" "${image:--}" "$here/README.md"
else
  echo "valgrind is not installed: the instructions in README.md stay those of an earlier run" >&2
fi
