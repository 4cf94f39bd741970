#!/usr/bin/env bash
# Installs what building, running and testing need from Debian 12's own packages: only what is
# missing, so with everything there it needs neither a network nor root.
#   scripts/setup.sh [--ci]     --ci: also the compilers and checkers that .ci/run wants
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

wanted=(g++ cmake ninja-build pkg-config libssl-dev libcjson-dev libcli11-dev libgtest-dev
        openssl coreutils python3)
case "${*-}" in
    '') ;;
    --ci) wanted+=(clang clang-tidy clang-format libclang-rt-14-dev shellcheck mandoc binutils
                   strace git) ;;
    *) die "usage: scripts/setup.sh [--ci]" ;;
esac

# dpkg-query fails for a name it has never heard of, which here only means "not installed".
installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "${wanted[@]}" 2>/dev/null) || true
missing=()
for package in "${wanted[@]}"; do
    grep -qxF "installed $package" <<<"$installed" || missing+=("$package")
done
((${#missing[@]})) || exit 0

say "installing ${missing[*]}"
((EUID == 0)) || die "run it as root, or have installed: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -qq --no-install-recommends "${missing[@]}"
