# For verbs that run sanitized programs: sourced after common.sh, it sets them up.

# A report ends the program, so that no test can pass over it.
export ASAN_OPTIONS=detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1
# The log library's threads may still be ending when the daemon forks to detach itself.
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:die_after_fork=0

# Debian 12's thread sanitizer dies at its start where the kernel spreads mappings over more
# than 28 bits. Every program started below inherits the fixed layout.
if [ "$(cat /proc/sys/vm/mmap_rnd_bits)" -gt 28 ] && [ -z "${QUORSYNC_FIXED_LAYOUT-}" ]; then
    QUORSYNC_FIXED_LAYOUT=1 exec setarch -R /bin/bash "$0" "$@"
fi
