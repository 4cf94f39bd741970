#!/usr/bin/env bash
# Installs what is missing, builds, and runs all tests.
#   scripts/test.sh [BUILD-PRESET...]     release when none is named; also debug, asan, tsan
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# ThreadSanitizer's shadow memory has fixed places that randomised addresses may take, also in the
# test programs that the build itself runs to learn their tests' names. Some containers forbid this.
no_randomisation=0x40000
if [[ " $* " == *" tsan "* ]] && ! ((0x$(<"/proc/$$/personality") & no_randomisation)) &&
    setarch -R true 2>/dev/null; then
    exec setarch -R "$0" "$@"
fi

# These mean nothing to a build without sanitizers.
# The whole stack of an allocation, also through a library without frame pointers: what is left
# behind by design is told by it.
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:fast_unwind_on_malloc=0
export LSAN_OPTIONS=suppressions=$root/tests/sanitizers/lsan.supp:print_suppressions=0
export TSAN_OPTIONS=suppressions=$root/tests/sanitizers/tsan.supp:halt_on_error=1:second_deadlock_stack=1
export UBSAN_OPTIONS=print_stacktrace=1

"$root/scripts/setup.sh"
(($#)) || set -- release
for preset; do
    build_preset "$preset"
    say "testing preset $preset"
    ctest --test-dir "$(build_folder "$preset")" --output-on-failure -j2 --timeout 120 \
        --no-tests=error || exit 1
done
