#!/bin/sh
# installed.sh BUILD-FOLDER PREFIX: installs into a folder that is thrown away, looks for each
# manual page there and builds the example client against the library there. Without an argument
# that client tells its usage.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$here/../..
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
export DESTDIR="$folder"
cmake --install "$1" >/dev/null
cmake --install "$1" --component init >/dev/null
for page in "$root"/docs/man/*; do
    [ -f "$folder$2/share/man/man${page##*.}/${page##*/}" ] || {
        echo "not installed: $page"
        exit 1
    }
done
unset DESTDIR

package=$(find "$folder" -name cloud_svr_client.pc)
library=$(find "$folder" -name libcloud_svr_client.so)
export PKG_CONFIG_PATH="${package%/*}" PKG_CONFIG_SYSROOT_DIR="$folder"
export CMAKE_PREFIX_PATH="$folder$2" LD_LIBRARY_PATH="${library%/*}" LD_BIND_NOW=1
cd "$folder"
for program in $(sh "$here/project/build.sh" "$root/examples/client/client.c"); do
    status=0
    "$program" || status=$?
    [ "$status" -eq 2 ]
done
