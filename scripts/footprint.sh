#!/usr/bin/env bash
# Measures what the daemon takes: its file, its heap from start to after 10,000 requests and 200
# reconnects, its threads' stacks. Needs root, for a /tmp of its own.
#   scripts/footprint.sh [release|armhf|uclibc-hf|uclibc-soft]     release when left out
# A device's daemon runs under qemu-arm: its blocks and stacks are those of the device; the pages,
# which would be qemu's as well, are left out.
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

target=${1-release}
folder=$(build_folder "$target")

if [[ -z ${FOOTPRINT_INSIDE-} ]]; then
    if [[ $target == release ]]; then
        "$root/scripts/setup.sh"
        build_preset release cloud_svr cloud_svr_memdebug
    else
        "$root/scripts/target.sh" "$target" build
    fi
    build_preset release cloud_sim
    FOOTPRINT_INSIDE=1 exec unshare --mount "$0" "$target"
fi

case $target in
    release) compiler=gcc binutils='' runner=(--pages env '{preload}') ;;
    armhf) compiler=arm-linux-gnueabihf-gcc binutils=arm-linux-gnueabihf- ;;
    uclibc-hf | uclibc-soft)
        compiler=$root/.target/$target/bin/arm-uclibc-gcc
        binutils=$root/.target/$target/bin/arm-uclibc-
        ;;
    *) die "no target $target" ;;
esac
sysroot=$root/.target/$target/sysroot
flags=()
[[ $target != armhf ]] || flags=("--sysroot=$sysroot")

# The daemon's socket has a fixed place.
mount -t tmpfs tmpfs /tmp
work=/tmp/footprint
mkdir "$work"
"${binutils}nm" -S -C "$folder/cloud_svr" >"$work/symbols"
"${binutils}strip" -o "$work/cloud_svr" "$folder/cloud_svr"
stat -c 'stripped: %s bytes' "$work/cloud_svr"
if [[ $target == release ]]; then size "$work/cloud_svr"; else arm-linux-gnueabihf-size "$work/cloud_svr"; fi
cp "$(build_folder release)/cloud_sim" "$folder/libcloud_svr_memdebug.so" "$work/"
"$compiler" "${flags[@]}" -D_GNU_SOURCE -std=c99 -O1 -shared -fPIC -o "$work/stack_probe.so" \
    "$root/scripts/footprint/stack_probe.c" -ldl -pthread
if [[ $target != release ]]; then
    # The guest's environment alone: qemu-arm itself is a program of this machine.
    cat >"$work/run" <<END
#!/bin/sh
options=
while case \$1 in *=*) true ;; *) false ;; esac; do options="\$options -E \$1"; shift; done
exec qemu-arm -L $sysroot \$options "\$@"
END
    chmod +x "$work/run"
    runner=("$work/run" '{preload}')
fi
python3 "$root/scripts/footprint/measure.py" "$work" "${runner[@]}" \
    "$work/cloud_svr" -c "$work/footprint.cfg"
