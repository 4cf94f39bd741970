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

sanitizer_options
"$root/scripts/setup.sh"
(($#)) || set -- release
for preset; do
    build_preset "$preset"
    say "testing preset $preset"
    ctest --test-dir "$(build_folder "$preset")" --output-on-failure -j2 --timeout 120 \
        --no-tests=error || exit 1
done
