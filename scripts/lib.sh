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
    say "building preset $preset"
    (
        cd "$root" &&
            cmake --preset "$preset" --log-level=WARNING &&
            cmake --build --preset "$preset" ${1:+--target "$@"}
    )
}
