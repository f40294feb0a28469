#!/bin/bash
# try the package, or the one named, on two booted servers (root, about 5 minutes)
. scripts/lib/common.sh
install_packages build deb lab check systemd

bare=build/systemd/bare

# make_bare_root PACKAGE: a Debian with systemd and what the package depends on.
make_bare_root() {
    local mirror dependencies
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Identifier: Packages' | head -n 1)
    dependencies=$(dpkg-deb --field "$1" Depends | sed 's/ *([^)]*)//g; s/ *|[^,]*//g; s/ //g')
    rm -rf "$bare"
    mkdir -p "$bare"
    debootstrap --variant=minbase --include="dbus,iproute2,logrotate,procps,systemd-sysv,$dependencies" \
        bookworm "$bare" "$mirror" >build/systemd/log 2>&1 ||
        { tail -n 20 build/systemd/log >&2; return 1; }
    touch "$bare.made"
}

# newer_package PACKAGE FOLDER: the same package under a higher version.
newer_package() {
    local tree=$2/newer
    dpkg-deb --raw-extract "$1" "$tree"
    sed -i 's/^Version: .*/&+newer/' "$tree/DEBIAN/control"
    dpkg-deb --build "$tree" "$2/newer.deb" >/dev/null
    rm -rf "$tree"
}

package=${1-}
if [ -z "$package" ]; then
    /bin/bash scripts/deb.sh
    package=$(echo build/deb/quorsyncd_*.deb)
fi
rm -rf build/systemd/packages
mkdir -p build/systemd/packages
cp "$package" build/systemd/packages/first.deb
newer_package build/systemd/packages/first.deb build/systemd/packages
if [ ! -e "$bare.made" ]; then
    step "Making a bare Debian in $bare/"
    make_bare_root build/systemd/packages/first.deb
fi
step "Two booted servers"
PYTHONPATH=$PWD "$python" -m pytest tests/systemd -v --no-header -p no:cacheprovider --strict-markers
