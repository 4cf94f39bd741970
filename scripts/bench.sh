#!/usr/bin/env bash
# Measures cloud_svr against what a program could do without it: its own TLS connection, stunnel,
# or two bridged mosquitto brokers. Prints one table; other load on the machine spoils the figures
# more than their ratios.
#   scripts/bench.sh [--quick] [--json FILE] [--svg FILE] [--build DIR]
#     --quick   under a minute instead of under ten
#     --build   takes the programs from DIR instead of building the preset bench
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

quick=() plot=() figures='' build=''
while (($#)); do
    case $1 in
        --quick) quick=(--quick) ;;
        --json | --svg | --build)
            (($# > 1)) || die "$1 wants a value"
            case $1 in
                --json) figures=$2 ;;
                --svg) plot=(--svg "$2") ;;
                --build) build=$2 ;;
            esac
            shift
            ;;
        *) die "usage: scripts/bench.sh [--quick] [--json FILE] [--svg FILE] [--build DIR]" ;;
    esac
    shift
done

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
[[ -n $figures ]] || figures=$folder/figures.json

if [[ -z $build ]]; then
    "$root/scripts/setup.sh" --bench
    build_preset bench cloud_svr cloud-kit cloud_bench
    build=$(build_folder bench)
fi
[[ -d $build ]] || die "no folder $build"

# The daemon's socket has a fixed name in /tmp: the run gets a /tmp of its own, with what it needs
# in it, and a process space whose end takes all its processes along.
mkdir "$folder/tmp"
user=()
((EUID == 0)) || user=(--map-root-user)
# shellcheck disable=SC2016
unshare "${user[@]}" --mount --pid --fork --kill-child --mount-proc bash -euc '
    mount -t tmpfs tmpfs "$1"
    mkdir "$1/scripts" "$1/build"
    mount --bind "$2" "$1/scripts"
    mount --bind "$3" "$1/build"
    mount --move "$1" /tmp
    cd /tmp
    exec python3 -B scripts/bench.py --build /tmp/build "${@:4}"
' bench "$folder/tmp" "$root/scripts" "$build" "${quick[@]}" >"$figures"

python3 -B "$root/scripts/bench_report.py" "$figures" "${plot[@]}"
