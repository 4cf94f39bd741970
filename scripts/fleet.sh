#!/usr/bin/env bash
# Simulates how a million devices come back to a cloud that was away for 1, 10 and 60 minutes, with
# and without jitter, and prints a table (docs/fleet.md). Takes some seconds.
#   scripts/fleet.sh [--json FILE] [--svg FILE] [--build DIR]
#     --build   takes the program from DIR instead of building the preset bench
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

plot=() figures='' build=''
while (($#)); do
    (($# > 1)) || die "usage: scripts/fleet.sh [--json FILE] [--svg FILE] [--build DIR]"
    case $1 in
        --json) figures=$2 ;;
        --svg) plot=(--svg "$2") ;;
        --build) build=$2 ;;
        *) die "usage: scripts/fleet.sh [--json FILE] [--svg FILE] [--build DIR]" ;;
    esac
    shift 2
done

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
[[ -n $figures ]] || figures=$folder/figures.json

if [[ -z $build ]]; then
    "$root/scripts/setup.sh"
    build_preset bench cloud_fleet
    build=$(build_folder bench)
fi
[[ -d $build ]] || die "no folder $build"
"$build/cloud_fleet" >"$figures"
python3 -B "$root/scripts/fleet_report.py" "$figures" "${plot[@]}"
