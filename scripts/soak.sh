#!/bin/bash
# put pairs through long bad days; takes a seed, prints the one it uses (root, about 90 minutes)
. scripts/lib/common.sh
install_packages build lab check
. scripts/lib/sanitizers.sh
seed=${1-$RANDOM}

# pair_tests PRESET OPTION...: pair tests that are long in proportion to --rounds.
pair_tests() {
    local preset=$1
    shift
    PYTHONPATH=$PWD "$python" -m pytest tests/pair -q --timeout 7200 -rA --no-header \
        --strict-markers --seed="$seed" --daemon="$PWD/build/$preset/quorsyncd" "$@"
}

step "Building release and asan"
build release
build asan
step "200 kills, 200,000 heartbeats, 1,000 pushes and fetches, faults of all kinds: ./run soak $seed"
pair_tests release -k "bad_days or half_a_list" --soak --rounds=200 -n 4
step "A million datagrams and 50,000 streams of a stranger, under the address sanitizer"
pair_tests asan -k stranger_sends --rounds=1250
step "Every state of the slave's client list, within larger bounds"
build/release/tests/explore/explore large
