#!/bin/sh
# Builds and runs the tests: ./test.sh [debug|asan|tsan|gcc] [GTEST_FILTER]
#
# tsan runs the concurrent tests only, unless a filter is given: those with "Concurrent" in their name. The last line
# tells the count; the exit status is 0 only when at least one test ran and none failed.
set -eu
cd "$(dirname "$0")"
. scripts/build.sh

preset=${1:-debug}
filter=${2:-*}
case $preset in
debug) extra= ;;
asan) extra=$packages_sanitizers ;;
tsan) extra=$packages_sanitizers filter=${2:-*Concurrent*} ;;
gcc) extra="g++ libbenchmark-dev" ;;
*)
    echo "usage: $0 [debug|asan|tsan|gcc] [GTEST_FILTER]" >&2
    exit 2
    ;;
esac
# shellcheck disable=SC2086 # lists of words
require_packages $packages_tests $extra
build_preset "$preset" rvfsd_tests

# A report ends the run with its stack; leaks count.
export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# The sanitizers' shadow memory wants the address space where it was laid out for; a kernel that randomizes more than they
# know stops them at start.
runner=
if setarch -R true 2>/dev/null; then
    runner="setarch -R"
fi

# One process a processor, each with its share of the tests.
shards=$(nproc)
logs=build/$preset/test-logs
mkdir -p "$logs"
rm -f "$logs"/shard-*
running=
shard=0
while [ "$shard" -lt "$shards" ]; do
    (
        code=0
        # shellcheck disable=SC2086 # a command and its option, or nothing
        GTEST_TOTAL_SHARDS=$shards GTEST_SHARD_INDEX=$shard \
            $runner "build/$preset/tests/rvfsd_tests" --gtest_filter="$filter" --gtest_color=no >"$logs/shard-$shard.log" 2>&1 \
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
    grep '^\[  SKIPPED \].* ms)$' "$log" | sed 's/^/skipped: /' || true
    passed=$((passed + good))
    failed=$((failed + bad))
    shard=$((shard + 1))
done
[ $((passed + failed)) -gt 0 ] || { echo "No test matches '$filter'."; failed=1; }
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
