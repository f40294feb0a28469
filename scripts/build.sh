#!/bin/bash
# build the release programs into build/release/
. scripts/lib/common.sh
install_packages build
step "Building build/release/quorsyncd and quorsyncctl"
build release quorsyncd quorsyncctl
