#!/usr/bin/env bash
# Builds for a 32-bit ARM device on a PC, from Debian's packages alone, and tests it under qemu-arm.
#   scripts/target.sh armhf|uclibc-hf|uclibc-soft [build|test|size]     build when left out
# test: the end-to-end tests run here, their daemon is the ARM one; the unit tests run under qemu-arm
# where GoogleTest can be had. What preparing makes stays in .target/, so only the first run is slow.
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage="usage: scripts/target.sh armhf|uclibc-hf|uclibc-soft [build|test|size]"
target=${1-}
what=${2-build}
case $target in
    armhf) prefix=arm-linux-gnueabihf- ;;
    uclibc-hf) prefix=arm-linux-gnueabihf- ;;
    uclibc-soft) prefix=arm-linux-gnueabi- ;;
    *) die "$usage" ;;
esac
limit=102400 # bytes of the stripped daemon
prepared=$root/.target/$target
folder=$(build_folder "$target")

# What a device may have of this. cloud_ctl brings its C++ library along, which uClibc has none of.
products=(cloud_svr cloud_svr_client_static cloud_svr_client_shared cloud-kit cloud_svr_memdebug)
[[ $target != armhf ]] || products+=(cloud_ctl)

build() {
    "$root/scripts/setup.sh"
    "$root/scripts/target/prepare.sh" "$target" "$prepared"
    build_preset "$target" "${products[@]}" "$@"
    "${prefix}readelf" -h -A "$folder/cloud_svr" | grep -E 'Machine:|Flags:|Tag_CPU_name|Tag_ABI_VFP'
}

run_tests() {
    local kits=$folder/tests/e2e/kits
    build e2e_kits memdebug_faults
    build_preset release cloud_svr_e2e
    say "end-to-end tests with the daemon of $target"
    CLOUD_SVR_DAEMON=$folder/cloud_svr CLOUD_SVR_KITS=$kits \
        CLOUD_SVR_RUNNER="qemu-arm -L $prepared/sysroot" \
        ctest --test-dir "$(build_folder release)" -R '^e2e\.' -j"$(nproc)" --output-on-failure \
        --no-tests=error
    test_folder memdebug
    [[ $target == armhf ]] || return 0
    build_preset "$target" tests/unit/all
    test_folder unit
}

# Runs the tests of a folder under qemu-arm.
test_folder() {
    say "tests/$1 on $target"
    ctest --test-dir "$folder/tests/$1" -j"$(nproc)" --output-on-failure --no-tests=error
}

# Names what the daemon may need: anything more would have to be brought to the device.
check_needed() {
    local known='^(libssl|libcrypto|libcjson|libc|ld-linux[-a-z0-9]*)[.]so' needed
    needed=$("${prefix}readelf" -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
    say "needed: ${needed//$'\n'/ }"
    ! grep -vE "$known" <<<"$needed" || die "the daemon needs more than a device has"
}

sizes() {
    local file stripped=$folder/stripped bytes
    build
    mkdir -p "$stripped"
    rm -f "$stripped"/*
    for file in "$folder"/cloud_svr "$folder"/libcloud_svr_*.so "$folder"/examples/*.so \
        "$folder"/cloud_ctl; do
        [[ -f $file ]] || continue
        "${prefix}strip" -o "$stripped/${file##*/}" "$file"
    done
    cd "$stripped"
    "${prefix}size" ./*
    stat -c '%8s bytes  %n' ./*
    check_needed cloud_svr
    bytes=$(stat -c %s cloud_svr)
    say "the daemon has $bytes of at most $limit bytes"
    ((bytes <= limit)) || die "the daemon is too large"
}

case $what in
    build) build ;;
    test) run_tests ;;
    size) sizes ;;
    *) die "$usage" ;;
esac
