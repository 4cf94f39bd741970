#!/usr/bin/env bash
# What cross-building needs, from Debian's packages alone, in FOLDER:
#   FOLDER/sysroot   what the target has: C library, OpenSSL, cJSON, their headers
#   FOLDER/bin       uClibc only: the compiler and its tools as arm-uclibc-gcc, arm-uclibc-ar...
# The folder may be moved. One that is up to date is left alone; sources and packages don't stay.
#   scripts/target/prepare.sh armhf|uclibc-hf|uclibc-soft FOLDER
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=scripts/lib.sh
. "$here/../lib.sh"

# apt with a configuration and lists of its own in FOLDER/apt: neither a foreign architecture nor a
# source line is added to the machine. It asks the mirror that the machine asks.
#   private_apt ARCHITECTURE
private_apt() {
    local apt=$folder/apt mirror suite
    # Not "| head": apt-get would end with SIGPIPE.
    # shellcheck disable=SC2016  # apt-get expands it
    mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME)' \
        'Created-By: Packages' 'Label: Debian' 'Component: main')
    read -r mirror suite <<<"$mirror"
    [[ -n ${suite-} ]] || die "apt knows no Debian mirror; run apt-get update"
    mkdir -p "$apt/lists/partial" "$apt/archives/partial"
    : >"$apt/status"
    printf '%s [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] %s %s main\n' \
        deb "$mirror" "$suite" deb-src "$mirror" "$suite" >"$apt/sources.list"
    cat >"$apt/apt.conf" <<END
Dir::State::lists "$apt/lists";
Dir::State::status "$apt/status";
Dir::Cache "$apt";
Dir::Etc::sourcelist "$apt/sources.list";
Dir::Etc::sourceparts "-";
APT::Architecture "$1";
APT::Architectures { "$1"; };
APT::Sandbox::User "root";
END
    export APT_CONFIG=$apt/apt.conf
    apt-get -qq update
}

# Runs a command with its output in FOLDER/log, which is shown when it fails.
quietly() {
    "$@" >"$folder/log" 2>&1 || {
        tail -n 40 "$folder/log" >&2
        die "failed: $*"
    }
}

# Only what building needs: no manuals, and the static libraries of glibc alone.
prepare_armhf() {
    local package
    install_missing g++-arm-linux-gnueabihf qemu-user
    say "sysroot of $target"
    private_apt armhf
    mkdir -p "$folder/packages"
    cd "$folder/packages"
    quietly apt-get download libc6 libc6-dev linux-libc-dev libgcc-s1 libcrypt1 libssl3 libssl-dev \
        libcjson1 libcjson-dev libcli11-dev libgtest-dev
    for package in *.deb; do dpkg -x "$package" "$sysroot"; done
    cd "$sysroot"
    rm -rf usr/share/{doc,man,lintian} usr/lib/arm-linux-gnueabihf/{gconv,libssl.a,libcrypto.a}
}

prepare_uclibc() {
    local triplet=$1 architecture=$2 float=$3 openssl_option=$4
    install_missing "g++-$triplet" "linux-libc-dev-$architecture-cross" qemu-user uclibc-source gcc \
        libc6-dev make perl dpkg-dev xz-utils
    private_apt amd64
    gcc_folder=$(dirname "$("$triplet-gcc" -print-libgcc-file-name)")
    mkdir -p "$sysroot/usr/include" "$folder/bin" "$folder/source"
    cd "$folder/source"
    say "sources of uClibc, OpenSSL and cJSON"
    quietly apt-get source openssl cjson
    tar xf /usr/src/uClibc-ng-*.tar.xz
    install_kernel_headers "$triplet" "$architecture"
    build_uclibc "$triplet" "$float"
    write_wrappers "$triplet"
    build_cjson
    build_openssl "$openssl_option"
}

install_kernel_headers() {
    local name
    for name in $(dpkg -L "linux-libc-dev-$2-cross" |
        sed -n "s|^/usr/$1/include/\([^/]*\)$|\1|p"); do
        cp -a "/usr/$1/include/$name" "$sysroot/usr/include/"
    done
    cp -a "$sysroot/usr/include" "$folder/source/kernel-headers"
}

build_uclibc() {
    say "uClibc"
    cd "$folder"/source/uClibc-ng-*/
    sed -e "s|@KERNEL_HEADERS@|$folder/source/kernel-headers|; s|@CROSS@|$1-|; s|@FLOAT@|$2|" \
        "$here/uclibc.config" >.config
    # Empty answers take the default of whatever the configuration leaves open.
    quietly make ARCH=arm oldconfig < <(yes '')
    quietly make "-j$(nproc)"
    quietly make PREFIX="$sysroot" install
}

# Debian's compiler, pointed at uClibc. The folder is found at run time: it may be moved.
write_wrappers() {
    local triplet=$1 tool headers=/usr/$1/include/c++/12
    cp "$here/uclibc.specs" "$folder/bin/"
    cp -r "$here/libstdcxx" "$folder/"
    write_wrapper gcc "$triplet-gcc"
    # shellcheck disable=SC2016  # the wrapper expands it
    write_wrapper g++ "$triplet-g++ -nostdinc++" '$root/libstdcxx' \
        "$headers" "$headers/$triplet" "$headers/backward"
    for tool in ar ranlib nm strip ld as objcopy objdump readelf; do
        ln -sf "$(command -v "$triplet-$tool")" "$folder/bin/arm-uclibc-$tool"
    done
    cp "$gcc_folder"/libgcc.a "$gcc_folder"/libgcc_eh.a "$sysroot/usr/lib/"
    # Empty in place of Debian's, made for glibc: a use of them doesn't link, and none slips in.
    for tool in stdc++ supc++ atomic; do
        "$folder/bin/arm-uclibc-ar" rc "$sysroot/usr/lib/lib$tool.a"
    done
}

# write_wrapper NAME COMMAND HEADER-FOLDER...
write_wrapper() {
    local wrapper=$folder/bin/arm-uclibc-$1 command=$2 path include=
    shift 2
    # shellcheck disable=SC2016  # the wrapper expands it
    for path in "$@" "$gcc_folder/include" '$root/sysroot/usr/include'; do
        include+=" -idirafter \"$path\""
    done
    cat >"$wrapper" <<END
#!/bin/sh
root=\$(dirname "\$(dirname "\$(realpath "\$0")")")
exec $command -muclibc --sysroot="\$root/sysroot" -specs="\$root/bin/uclibc.specs" -nostdinc \\
   $include "\$@"
END
    chmod +x "$wrapper"
}

build_cjson() {
    say "cJSON"
    cd "$folder"/source/cjson-*/
    "$folder/bin/arm-uclibc-gcc" -std=c89 -Os -fPIC -shared -s -Wl,-soname,libcjson.so.1 cJSON.c \
        -o "$sysroot/usr/lib/libcjson.so.1"
    ln -sf libcjson.so.1 "$sysroot/usr/lib/libcjson.so"
    mkdir -p "$sysroot/usr/include/cjson"
    cp cJSON.h "$sysroot/usr/include/cjson/"
}

build_openssl() {
    say "OpenSSL"
    cd "$folder"/source/openssl-*/
    PATH=$folder/bin:$PATH
    # shellcheck disable=SC2086  # no word when the option is empty
    quietly ./Configure linux-armv4 --cross-compile-prefix=arm-uclibc- --prefix=/usr \
        --openssldir=/etc/ssl shared no-tests no-async no-engine no-legacy no-module -Os $1
    quietly make build_generated
    quietly make "-j$(nproc)" libcrypto.so libssl.so
    mkdir -p "$sysroot/usr/include/openssl"
    cp include/openssl/*.h "$sysroot/usr/include/openssl/"
    cp -a libssl.so* libcrypto.so* "$sysroot/usr/lib/"
    arm-uclibc-strip "$sysroot"/usr/lib/lib{ssl,crypto}.so.3
}

(($# == 2)) || die "usage: scripts/target/prepare.sh armhf|uclibc-hf|uclibc-soft FOLDER"
target=$1
folder=$(realpath -m "$2")
sysroot=$folder/sysroot
state=$(cat "$here"/prepare.sh "$here"/uclibc.* "$here"/libstdcxx/bits/* | sha256sum)

# The compiler and the emulator are the machine's: there may be a new machine around an old folder.
case $target in
    armhf) machine=(arm-linux-gnueabihf-g++ qemu-arm) ;;
    uclibc-hf) machine=(arm-linux-gnueabihf-g++ qemu-arm) ;;
    uclibc-soft) machine=(arm-linux-gnueabi-g++ qemu-arm) ;;
    *) die "no target $target" ;;
esac
if [[ -f $folder/ready && $(<"$folder/ready") == "$state" ]] && command -v "${machine[@]}" >/dev/null; then
    exit 0
fi

start=$SECONDS
rm -rf "$folder"
mkdir -p "$folder"
case $target in
    armhf) prepare_armhf ;;
    uclibc-hf) prepare_uclibc arm-linux-gnueabihf armhf y '' ;;
    # ARMv5 has no 64-bit atomics and uClibc's loader can't load what libatomic does about it.
    uclibc-soft) prepare_uclibc arm-linux-gnueabi armel n -DBROKEN_CLANG_ATOMICS ;;
esac
cd "$folder"
rm -rf source packages apt log
printf '%s\n' "$state" >ready
say "$target is ready after $((SECONDS - start)) s, $(du -sm . | cut -f1) MB"
