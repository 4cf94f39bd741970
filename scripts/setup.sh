#!/usr/bin/env bash
# Installs what building, running and testing need from Debian 12's own packages: only what is
# missing, so with everything there it needs neither a network nor root.
#   scripts/setup.sh [OPTION...]
#     --ci        also the compilers and checkers that .ci/run wants
#     --bench     also what scripts/bench.sh compares with
#     --package   also what scripts/package.sh makes and tests packages with
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

wanted=(g++ cmake ninja-build pkg-config libssl-dev libcjson-dev libcli11-dev libgtest-dev
        openssl coreutils iproute2 python3)
for option; do
    case $option in
        --ci) wanted+=(clang clang-tidy clang-format libclang-rt-14-dev shellcheck mandoc binutils
                       strace git) ;;
        --bench) wanted+=(stunnel4 mosquitto util-linux) ;;
        --package) wanted+=(dpkg-dev file lintian debootstrap util-linux) ;;
        *) die "usage: scripts/setup.sh [--ci] [--bench] [--package]" ;;
    esac
done

install_missing "${wanted[@]}"
