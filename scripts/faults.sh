#!/usr/bin/env bash
# Lets the daemon's calls fail one by one (tests/faults/) and counts what it survives: all, or the
# exit status is 1.
#   scripts/faults.sh [--quick] [--first N] [--last N] [--lives N] [KIND...]
#     --quick            few lives of each kind, spread over its calls: under 4 minutes
#     --first, --last    only these calls
#     --lives            about so many lives of a kind; 0, unless quick: every call
#     KIND               memory_ENOMEM_once, 'poll_*', ...; all when none is named
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage="usage: scripts/faults.sh [--quick] [--first N] [--last N] [--lives N] [KIND...]"
while [[ ${1-} == --* ]]; do
    [[ $1 == --quick || $# -gt 1 ]] || die "$usage"
    case $1 in
        --quick) export FAULTS_LIVES=6 && shift && continue ;;
        --first) export FAULTS_FIRST=$2 ;;
        --last) export FAULTS_LAST=$2 ;;
        --lives) export FAULTS_LIVES=$2 ;;
        *) die "$usage" ;;
    esac
    shift 2
done
filter=$(printf '*may_fail/%s:' "${@:-*}")
build_preset release cloud_svr_faults

# A life mostly waits, so several fit on a core.
export FAULTS_SHARDS=8
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT
status=0
pids=()
for ((FAULTS_SHARD = 0; FAULTS_SHARD < FAULTS_SHARDS; ++FAULTS_SHARD)); do
    FAULTS_SHARD=$FAULTS_SHARD build/cloud_svr_faults --gtest_filter="$filter" \
        >"$logs/$FAULTS_SHARD" 2>&1 &
    pids+=($!)
done
for pid in "${pids[@]}"; do wait "$pid" || status=1; done
((!status)) || cat "$logs"/*
awk '/^faults: /{ made += $2; survived += $4 }
     END { printf "faults: %d injections, %d survived\n", made, survived; exit made != survived || !made }
    ' "$logs"/* || status=1
exit "$status"
