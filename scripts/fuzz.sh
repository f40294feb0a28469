#!/bin/bash
# look for input that breaks a promise: SECONDS for each target, or only for those named after it
. scripts/lib/common.sh
install_packages build fuzz
seconds=${1-60}
shift || true
step "Building the fuzz targets in build/fuzz/"
build fuzz
[ $# -gt 0 ] || set -- dhcpd_conf messages reply store
# Threads of the targets hold memory at the end. Berkeley DB's verifier leaks on some damaged files,
# and reads beyond a page to print a message about it: both are not ours.
export ASAN_OPTIONS=detect_leaks=0:check_printf=0
fuzz=$PWD/build/fuzz
cd tests/fuzz
for target; do
    step "$target: $seconds s"
    mkdir -p "$fuzz/corpus/$target"
    "$fuzz/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=8192 \
        -verbosity=0 -print_final_stats=1 -artifact_prefix="../../build/fuzz/$target-" \
        "../../build/fuzz/corpus/$target" "corpus/$target"
done
step "No promise was broken"
