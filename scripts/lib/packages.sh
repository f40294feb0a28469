# Debian packages by purpose. Sourced by the verbs; install_packages is all they call.

declare -A packages=(
    [build]="cmake g++ libcli11-dev libdb5.3-dev libfmt-dev libgmock-dev libgtest-dev
             libjson-c-dev liblog4cplus-dev ninja-build pkg-config zlib1g-dev"
    [lab]="db5.3-util iproute2 mawk mount nftables procps psmisc python3 python3-bsddb3 strace
           util-linux"
    [check]="clang-format faketime prometheus python3-jsonschema python3-pytest
             python3-pytest-timeout python3-pytest-xdist"
    [browser]="chromium fonts-dejavu-core"
    [bench]="libbenchmark-dev rsync time"
    [fuzz]="clang libclang-rt-14-dev"
    [format]="clang-format"
    [systemd]="debootstrap systemd-container"
    [tidy]="clang-tidy"
    [deb]="build-essential debhelper dpkg-dev lintian mandoc scdoc"
)

# missing_packages PACKAGE...: those of them that are not installed, one a line.
missing_packages() {
    local installed
    # dpkg-query fails when one of the names is unknown to it and still prints the others.
    installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null || true)
    local package
    for package; do
        grep -qxF "installed $package" <<<"$installed" || echo "$package"
    done
}

# without_starts COMMAND...: runs it. A package with a daemon, such as that of promtool, must not
# start it: Debian asks this program.
without_starts() {
    local policy=/usr/sbin/policy-rc.d result=0
    [ -e "$policy" ] && { "$@"; return; }
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod 755 "$policy"
    "$@" || result=$?
    rm -f "$policy"
    return "$result"
}

# install_packages PURPOSE...: installs what is missing for these purposes, or says what to install.
install_packages() {
    local purpose wanted=() missing
    for purpose; do
        wanted+=(${packages[$purpose]})
    done
    mapfile -t missing < <(missing_packages "${wanted[@]}" | sort -u)
    [ ${#missing[@]} -eq 0 ] && return 0

    if [ "$(id -u)" -ne 0 ]; then
        echo "These Debian packages are missing; install them as root, or run this as root:" >&2
        echo "    apt-get install ${missing[*]}" >&2
        return 1
    fi
    step "Installing Debian packages: ${missing[*]}"
    # Another apt may be at work, on a machine that has just booted for instance: wait for it.
    local apt=(env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300) log
    log=$(mktemp)
    if "${apt[@]}" update >"$log" 2>&1 &&
        without_starts "${apt[@]}" install -y --no-install-recommends "${missing[@]}" \
            >>"$log" 2>&1; then
        rm -f "$log"
        return 0
    fi
    tail -n 30 "$log" >&2
    rm -f "$log"
    echo "apt-get could not install: ${missing[*]}" >&2
    return 1
}
