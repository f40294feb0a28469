#!/bin/bash
# measure the speed of pushes, heartbeats and fetches beside plain programs (root)
. scripts/lib/common.sh
install_packages build lab bench
step "Building the daemon and the benchmarks in build/release/"
configure_options=(-D QUORSYNC_BENCH=ON)
build release
PYTHONPATH=$PWD exec "$python" bench/bench.py "$@"
