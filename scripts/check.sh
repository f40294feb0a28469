#!/bin/bash
# verify everything: format, unit and pair tests, and the sanitizers (root, about 11 minutes)
. scripts/lib/common.sh
install_packages build lab check
. scripts/lib/sanitizers.sh

unit_tests() {
    step "Unit tests, $1"
    # Of tests that pass, only their number is news. Many of them mostly sleep.
    ctest --preset "$1" -j $((2 * $(nproc))) --output-on-failure |
        grep -vE '^ +Start | Passed +[0-9.]+ sec$'
}

# Pair tests mostly sleep: more of them at a time than there are processors.
pair_tests() {
    local preset=$1
    shift
    step "Pair tests, $preset"
    PYTHONPATH=$PWD "$python" -m pytest tests/pair -q -n 4 --timeout 180 \
        --strict-markers --daemon="$PWD/build/$preset/quorsyncd" "$@"
}

every_state() {
    step "Every state of the slave's client list"
    build/release/tests/explore/explore
}

# The sanitizers' builds run beside the tests, at low priority: they may not cost the tests the time
# their heartbeats need. A build that is done leaves a file of its name.
start_sanitizer_builds() {
    sanitizer_work=$(mktemp -d)
    setsid nice -n 10 /bin/bash -c '. scripts/lib/common.sh
        for preset in asan tsan; do build "$preset"; touch "$1/$preset"; done' \
        builds "$sanitizer_work" >"$sanitizer_work/log" 2>&1 &
    sanitizer_builds=$!
}

end_sanitizer_builds() {
    [ -z "${sanitizer_builds-}" ] || kill -- "-$sanitizer_builds" 2>/dev/null || true
    rm -rf "${sanitizer_work-}"
}
trap end_sanitizer_builds EXIT

# side_by_side FUNCTION... -- FUNCTION...: both, since much of what they do is to wait; the first at
# a priority between those of the second and the builds. Its output follows that of the second.
# "set -e" does not hold in the second, so what can fail there has to come last.
side_by_side() {
    local first=() failed=0 log background
    while [ "$1" != -- ]; do
        first+=("$1")
        shift
    done
    shift
    log=$(mktemp -p "$sanitizer_work")
    { renice -n 5 -p "$BASHPID" && "${first[@]}"; } >"$log" 2>&1 &
    background=$!
    "$@" || failed=1
    wait "$background" || failed=1
    cat "$log"
    return "$failed"
}

await_build() {
    step "Waiting for the $1 build"
    while [ ! -e "$sanitizer_work/$1" ] && kill -0 "$sanitizer_builds" 2>/dev/null; do
        sleep 1
    done
    if [ ! -e "$sanitizer_work/$1" ]; then
        cat "$sanitizer_work/log" >&2
        exit 1
    fi
}

step "Format"
/bin/bash scripts/format.sh --check
step "Documents"
"$python" -m pytest tests/docs -q
step "Building release"
build release
start_sanitizer_builds
side_by_side unit_tests release -- every_state
pair_tests release
for preset in asan tsan; do
    await_build "$preset"
    # The tool has one thread: the thread sanitizer's build is without it.
    [ "$preset" = asan ] && most=() || most=(-k "not test_ctl")
    side_by_side unit_tests "$preset" -- pair_tests "$preset" -m sanitizer "${most[@]}"
done
step "All checks passed"
