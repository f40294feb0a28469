#!/bin/bash
# show a pair at work: equal stores, a change, a fetch, a take-over and the way back (root)
. scripts/lib/common.sh
install_packages build lab
step "Building build/release/quorsyncd and quorsyncctl"
build release quorsyncd quorsyncctl
PYTHONPATH=$PWD exec "$python" demo/demo.py "$@"
