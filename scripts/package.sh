#!/usr/bin/env bash
# Debian packages of daemon, client library and tools, in build-package/packages/.
#   scripts/package.sh [build|test]     build when left out
# test, as root: installs them in a Debian of their own, runs daemon and tools there, builds
# clients against the library, removes all of it and looks for what is left. That Debian, in
# .target/package/, comes from apt's mirror at the first run and isn't changed: everything happens
# in a layer above it, in namespaces whose end takes mounts and processes along.
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

folder=$(build_folder package)
packages=$folder/packages
debian=$root/packaging/debian
prepared=$root/.target/package
layers=$prepared/layers
system=$layers/root
inside=(env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
        chroot "$system")
limit=20 # seconds for anything that is waited for

build() {
    local log
    "$root/scripts/setup.sh" --package
    umask 022
    build_preset package
    rm -rf "$packages"
    log=$(SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l "$debian/changelog" -S Timestamp) \
        cpack --config "$folder/CPackConfig.cmake" -B "$packages" 2>&1) || die "$log"
    ls -l "$packages"/*.deb
    diff <(sed -n 's/^ \([^@]*\)@.*/\1/p' "$debian/libcloud-svr-client0/symbols") \
        <(nm -D --defined-only "$folder/libcloud_svr_client.so" | awk '{print $3}') ||
        die "the library has other functions than its symbols file"
    lintian --allow-root --display-info --pedantic --fail-on error,warning,info "$packages"/*.deb
}

# With what the packages depend on, so that only they come and go, and what builds clients.
prepare() {
    local mirror suite include
    include=$(for package in "$packages"/*.deb; do dpkg-deb -f "$package" Depends; done |
        tr , '\n' | sed 's/^ *\([^ ]*\).*/\1/' | grep -v cloud-svr | sort -u | paste -sd,)
    include+=,gcc,libc6-dev,cmake,ninja-build,pkg-config
    [[ ! -f $prepared/ready || $(<"$prepared/ready") != "$include" ]] || return 0
    say "a Debian in $prepared"
    rm -rf "$prepared"
    mkdir -p "$layers"
    mirror=$(apt-get indextargets --format "\$(CODENAME) \$(REPO_URI)" \
        'Created-By: Packages' 'Label: Debian' 'Component: main')
    read -r suite mirror <<<"${mirror:?apt knows none; run apt-get update}"
    unshare --mount --pid --fork --kill-child --mount-proc debootstrap --variant=minbase \
        "--include=$include" "$suite" "$prepared/root" "$mirror" >"$prepared/log" 2>&1 ||
        die "$(tail -n 20 "$prepared/log")"
    rm -f "$prepared"/root/var/cache/apt/archives/*.deb
    # The name of the cloud in the configuration that is installed.
    echo "127.0.0.1 localhost cloud.example.com" >"$prepared/root/etc/hosts"
    printf '%s\n' "$include" >"$prepared/ready"
}

mount_system() {
    mount -t tmpfs tmpfs "$layers"
    mkdir "$layers/upper" "$layers/work" "$system"
    mount -t overlay -o "lowerdir=$prepared/root,upperdir=$layers/upper,workdir=$layers/work" \
        overlay "$system"
    mount -t proc proc "$system/proc"
    mount -t tmpfs tmpfs "$system/run"
    mount --rbind /dev "$system/dev"
    mount --bind "$packages" "$system/mnt"
    ip link set lo up
}

# Every file with mode and owner, and the users. Logs and apt's caches aren't the packages'.
listing() {
    "${inside[@]}" find / -xdev \( -path /var/log -o -path /var/cache -o -path /var/lib/apt \) \
        -prune -o ! -path '/var/lib/dpkg/*-old' -printf '%p %M %u:%g %l\n' | sort
    sort "$system/etc/passwd" "$system/etc/group"
}

# await NAME PATTERN: a line of that log.
await() {
    local deadline=$((SECONDS + limit))
    until grep -s -m1 -E -e "$2" "$layers/$1"; do
        ((SECONDS < deadline)) || die "no line \"$2\" within $limit s: $(tail "$layers/$1")"
        sleep 0.05
    done
}

of_unit() { sed -n "s/^$1=//p" "$system$unit"; }

# ask GROUP COMMAND...: as a user who is in that group only.
ask() {
    "${inside[@]}" setpriv --reuid nobody --regid "$1" --clear-groups \
        timeout "$limit" "${@:2}" '{"method":"echo","params":{"hello":"cloud"}}' |
        grep '"hello":"cloud"'
}

use() {
    local program daemon
    # As the unit says, but for what takes a systemd.
    "${inside[@]}" setpriv --reuid "$(of_unit User)" --regid "$(of_unit Group)" --init-groups \
        --no-new-privs --bounding-set=-all --inh-caps=-all \
        sh -c "umask $(of_unit UMask); exec $(of_unit ExecStart)" >"$layers/daemon" &
    daemon=$!
    await daemon '\| - begin to work\.\.\.$'
    "${inside[@]}" cloud_sim >"$layers/cloud" </dev/null &
    await cloud '^listening on '
    "${inside[@]}" cloud_ctl register >"$layers/agent" 2>&1 &
    await cloud 'handshake done'
    ask cloud_svr cloud_ctl request
    ! ask nogroup cloud_ctl request || die "anybody may reach the socket"
    for program in $("${inside[@]}" sh -c 'cd /tmp/use && sh build.sh client.c'); do
        ask cloud_svr env -C /tmp/use "$program"
    done
    kill -TERM "$daemon"
    timeout "$limit" tail --pid="$daemon" -f /dev/null || die "the daemon doesn't stop"
    wait "$daemon" || die "the daemon ended with status $?"
}

test_inside() {
    local names=("$packages"/*.deb) quiet=(-qq -o Dpkg::Use-Pty=0)
    names=("${names[@]##*/}")
    mount_system
    listing >"$layers/before"
    say "installing"
    "${inside[@]}" apt-get install "${quiet[@]}" "${names[@]/#//mnt/}"
    unit=$("${inside[@]}" dpkg -L cloud-svr | grep '\.service$')
    "${inside[@]}" systemd-analyze verify --man=no "$unit"
    "${inside[@]}" systemctl is-enabled "${unit##*/}"
    mkdir "$system/tmp/use"
    cp "$root"/tests/consumers/project/* "$root/examples/client/client.c" "$system/tmp/use/"
    say "using"
    use
    say "removing"
    rm -r "$system/tmp/use"
    "${inside[@]}" apt-get purge "${quiet[@]}" "${names[@]%%_*}"
    listing >"$layers/after"
    diff "$layers/before" "$layers/after" || die "that is what is left"
    say "nothing is left"
}

case ${1-build} in
    build) build ;;
    test)
        ((EUID == 0)) || die "the test needs root"
        build
        prepare
        exec unshare --mount --net --pid --fork --kill-child --mount-proc "$0" inside
        ;;
    inside) trap 'exit 143' INT TERM; test_inside ;;
    *) die "usage: scripts/package.sh [build|test]" ;;
esac
