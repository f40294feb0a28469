#!/bin/bash
# examine the C++ sources with clang-tidy; takes files, without one all of them
. scripts/lib/common.sh
install_packages build bench tidy
configure_options=(-D QUORSYNC_BENCH=ON)
cmake --preset release --log-level=WARNING "${configure_options[@]}" >/dev/null
if [ $# -eq 0 ]; then
    mapfile -d '' -t files < <(sources '*.cpp')
    set -- "${files[@]}"
fi
step "clang-tidy: $# files"
# It counts the warnings of the system's headers, too, and hides them: no news.
printf '%s\0' "$@" | xargs -0 -n 1 -P "$(nproc)" clang-tidy --quiet -p build/release \
    2> >(grep -v 'warnings generated' >&2)
step "Nothing to complain about"
