#!/bin/bash
# read the timeline's page in a browser: chromium, without a network (root, half a minute)
. scripts/lib/common.sh
install_packages build lab check browser
step "Building build/release/quorsyncd and quorsyncctl"
build release quorsyncd quorsyncctl
step "The timeline's page in a browser"
PYTHONPATH=$PWD "$python" -m pytest tests/browser -q --timeout 180 \
    --daemon="$PWD/build/release/quorsyncd" "$@"
