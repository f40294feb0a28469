#!/bin/bash
# measure the speed of stores, pushes and take-overs (root)
. scripts/lib/common.sh
install_packages build lab bench
step "Building the daemon and the benchmarks in build/release/"
configure_options=(-D QUORSYNC_BENCH=ON)
build release
PYTHONPATH=$PWD exec "$python" bench/bench.py "$@"
