#!/bin/sh
# Builds and runs the tests: ./test.sh [debug|asan|tsan|gcc|image|image-guarded] [GTEST_FILTER]
#
# image runs the same tests on RVFSD.sys, loaded, instead of the driver linked in; then every import of the image must have
# been called by some test, unless a filter is given. image-guarded does so with a page without access behind each block of
# pool and in place of each freed one.
#
# All but debug try fewer schedules of each race. The last line tells the count; the exit status is 0 only when at least
# one test ran and none failed.
set -eu
cd "$(dirname "$0")"
. scripts/build.sh

preset=${1:-debug}
filter=${2:-*}
case $preset in
debug) extra= ;;
asan | tsan) extra=$packages_sanitizers ;;
gcc) extra="g++ libbenchmark-dev" ;;
image) extra="$packages_image gdb" ;;
image-guarded)
    extra="$packages_image gdb" preset=image
    export RVFSD_GUARD_POOL=1
    ;;
*)
    echo "usage: $0 [debug|asan|tsan|gcc|image|image-guarded] [GTEST_FILTER]" >&2
    exit 2
    ;;
esac
# shellcheck disable=SC2086 # lists of words
require_packages $packages_tests $extra
program=rvfsd_tests
if [ "$preset" = image ]; then
    build_preset image
    # The test program is one of the debug build's: the kernel around the image is compiled there.
    preset=debug
    program=rvfsd_image_tests
    configure_options=-DRVFSD_IMAGE_UNDER_TEST=$PWD/build/image/windows/RVFSD.sys
fi
build_preset "$preset" "$program"

# A report ends the run with its stack; leaks count.
export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# The verifier's report of a fault is made in its signal handler, on the way to abort.
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:report_signal_unsafe=0
# Schedules are many where they are cheap; RVFSD_EXPLORE=100 is a campaign.
[ "$preset" = debug ] && [ "$program" = rvfsd_tests ] || export RVFSD_EXPLORE="${RVFSD_EXPLORE:-0.1}"

# The sanitizers' shadow memory wants the address space where it was laid out for; a kernel that randomizes more than they
# know stops them at start.
runner=
if setarch -R true 2>/dev/null; then
    runner="setarch -R"
fi

# One process a processor, each with its share of the tests.
shards=$(nproc)
logs=build/$preset/$program-logs
mkdir -p "$logs"
rm -f "$logs"/shard-*
calls=
[ "$program" = rvfsd_tests ] || calls=$PWD/$logs
running=
shard=0
while [ "$shard" -lt "$shards" ]; do
    (
        code=0
        # shellcheck disable=SC2086 # a command and its option, or nothing
        GTEST_TOTAL_SHARDS=$shards GTEST_SHARD_INDEX=$shard RVFSD_CALL_COUNTS=${calls:+$calls/shard-$shard.calls} \
            $runner "build/$preset/tests/$program" --gtest_filter="$filter" --gtest_color=no >"$logs/shard-$shard.log" 2>&1 \
            </dev/null || code=$?
        echo "$code" >"$logs/shard-$shard.exit"
    ) &
    running="$running $!"
    shard=$((shard + 1))
done
# shellcheck disable=SC2086 # a list of process ids
wait $running

passed=0
failed=0
shard=0
while [ "$shard" -lt "$shards" ]; do
    log=$logs/shard-$shard.log
    good=$(grep -c '^\[       OK \]' "$log" || true)
    bad=$(grep -c '^\[  FAILED  \].* ms)$' "$log" || true)
    code=$(cat "$logs/shard-$shard.exit")
    if [ "$code" -ne 0 ] || ! grep -q '^\[==========\].* ran\.' "$log"; then
        # Whoever dies in the middle of a test, or of a leak, has not reported it as failed.
        [ "$bad" -gt 0 ] || bad=1
        echo "---- $log (exit status $code)"
        grep -v -e '^\[ RUN      \]' -e '^\[       OK \]' -e '^\[-----' -e '^$' "$log" | tail -n 200
        grep '^\[ RUN      \]' "$log" | tail -n 1 | sed 's/^/last started: /'
    fi
    awk '/: Skipped$/ { why = ""; next } /^\[  SKIPPED \].* ms\)$/ { print "skipped: " $4 ": " why } NF { why = $0 }' "$log"
    passed=$((passed + good))
    failed=$((failed + bad))
    shard=$((shard + 1))
done
if [ -n "$calls" ] && [ "$filter" = "*" ]; then
    unused=$(awk '{ calls[$1 " " $2] += $3 } END { for (name in calls) if (!calls[name]) print name }' "$logs"/shard-*.calls 2>/dev/null |
        sort)
    if ! cat "$logs"/shard-*.calls 2>/dev/null | grep -q .; then
        echo "No call of an import was counted."
        failed=$((failed + 1))
    elif [ -n "$unused" ]; then
        echo "Imports of the image that no test reached:"
        echo "$unused"
        failed=$((failed + 1))
    else
        echo "Every import of the image was called: $(awk '{ print $1, $2 }' "$logs"/shard-*.calls | sort -u | wc -l)"
    fi
fi
[ "$program" = rvfsd_tests ] || grep -h '^\[ STACK' "$logs"/shard-*.log | sort -k 4 -n | tail -n 1
[ $((passed + failed)) -gt 0 ] || { echo "No test matches '$filter'."; failed=1; }
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
