#!/bin/bash
# build the Debian package into build/deb/
. scripts/lib/common.sh
install_packages build deb

# The sources are built in a copy: debhelper leaves its work in the tree, and the results beside it.
place=build/deb
tree=$place/quorsyncd
rm -rf "$place"
mkdir -p "$tree"
step "Building the package in $place/"
tar -c --exclude=./build --exclude=./.git --exclude=__pycache__ . | tar -x -C "$tree"
log=$place/build.log
if ! (cd "$tree" && dpkg-buildpackage -b -us -uc) >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    echo "The whole of it is in $log" >&2
    exit 1
fi
step "Examining it with lintian"
lintian --allow-root --fail-on error,warning --info "$place"/*.changes
rm -rf "$tree"
step "Built:"
ls -l "$place"/*.deb
