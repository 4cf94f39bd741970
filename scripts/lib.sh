# shellcheck shell=bash
# What the scripts share: source it. Sets `root`, the repository's folder.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# One line about what goes on.
say() { printf '== %s\n' "$*"; }

# Ends the script with one line about why.
die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# The folder that a preset builds in.
build_folder() {
    if [[ $1 == release ]]; then printf '%s/build\n' "$root"; else printf '%s/build-%s\n' "$root" "$1"; fi
}

# Configures and builds a preset, or only the targets named after it.
build_preset() {
    local preset=$1
    shift
    grep -qF "\"configurePreset\": \"$preset\"" "$root/CMakePresets.json" ||
        die "no build preset $preset"
    say "building preset $preset"
    (
        cd "$root" &&
            cmake --preset "$preset" --log-level=WARNING &&
            cmake --build --preset "$preset" ${1:+--target "$@"}
    )
}

# Installs those of the packages that are missing: with everything there it needs neither a network
# nor root.
install_missing() {
    local installed package missing=()
    # dpkg-query fails for a name it has never heard of, which here only means "not installed".
    installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null) || true
    for package; do
        grep -qxF "installed $package" <<<"$installed" || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    say "installing ${missing[*]}"
    ((EUID == 0)) || die "run it as root, or have installed: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    # One of several lists may be out of reach; apt-get install says so if that one was needed.
    apt-get update -qq || say "not every package list could be fetched"
    apt-get install -qq --no-install-recommends "${missing[@]}"
}

# How sanitizers report; it means nothing to a build without them.
sanitizer_options() {
    # The whole stack of an allocation, also through a library without frame pointers: what is left
    # behind by design is told by it.
    export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:fast_unwind_on_malloc=0
    export LSAN_OPTIONS=suppressions=$root/tests/sanitizers/lsan.supp:print_suppressions=0
    export TSAN_OPTIONS=suppressions=$root/tests/sanitizers/tsan.supp:halt_on_error=1:second_deadlock_stack=1
    export UBSAN_OPTIONS=print_stacktrace=1
}
