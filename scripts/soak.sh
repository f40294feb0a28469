#!/bin/bash
# put pairs through long bad days; takes a seed, prints the one it uses (root, about 20 minutes)
. scripts/lib/common.sh
install_packages build lab check
seed=${1-$RANDOM}
step "Building build/release/quorsyncd"
build release
step "200 kills, 200,000 heartbeats, 1,000 pushes and fetches, faults of all kinds: ./run soak $seed"
PYTHONPATH=$PWD "$python" -m pytest tests/pair -k bad_days -q -n 4 --timeout 3600 -rA --no-header \
    --strict-markers --soak --seed="$seed" --rounds=200 --daemon="$PWD/build/release/quorsyncd"
