#!/usr/bin/env bash
# Random traffic for so many minutes; fails at the first thing that isn't as it should be.
#   scripts/soak.sh MINUTES [PRESET]     release when none is named; SOAK_SEED repeats a run
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

[[ $# == [12] && $1 =~ ^[1-9][0-9]*$ ]] || die "usage: scripts/soak.sh MINUTES [PRESET]"
preset=${2-release}
sanitizer_options
build_preset "$preset" cloud_svr_soak
SOAK_MINUTES=$1 "$(build_folder "$preset")/cloud_svr_soak"
