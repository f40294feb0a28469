# What every verb starts with: strict mode, steps with their time, packages, builds.
# ./run has changed to the repository's root before.

set -euo pipefail
. scripts/lib/packages.sh

# The interpreter the Debian packages belong to; PATH may put another one in front of it.
python=/usr/bin/python3

bold='' plain=''
if [ -t 1 ]; then
    bold=$'\e[1m' plain=$'\e[0m'
fi

# step TEXT: one line that says what comes, and how many seconds the verb has been running.
step() {
    printf '%s== %s%s (%d s)\n' "$bold" "$1" "$plain" "$SECONDS"
}

# sources PATTERN...: the repository's files with such names, each ended by a zero byte.
sources() {
    local names=(-name "$1") pattern
    for pattern in "${@:2}"; do
        names+=(-o -name "$pattern")
    done
    find . \( -path ./build -o -path ./.git \) -prune -o \( "${names[@]}" \) -print0
}

# build PRESET [TARGET...]: configures and builds; without a target, everything.
configure_options=()
build() {
    local preset=$1 jobs quiet=()
    shift
    jobs=$(nproc)
    # ninja overwrites one line on a terminal; elsewhere its progress would bury the rest.
    [ -t 1 ] || quiet=(-- --quiet)
    cmake --preset "$preset" --log-level=WARNING "${configure_options[@]}" >/dev/null
    cmake --build --preset "$preset" -j "$jobs" ${1+--target "$@"} "${quiet[@]}"
}
