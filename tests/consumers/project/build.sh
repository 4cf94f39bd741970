#!/bin/sh
# build.sh SOURCE: builds a client in C with the installed library in each way there is, in the
# current folder, and prints the programs' names.
set -eu
set -- "$(realpath "$1")" "$(dirname "$0")"
# Not -static: that would want every other library static, too.
static='s/-lcloud_svr_client/-l:libcloud_svr_client.a/'
# shellcheck disable=SC2046  # several words each
{
    cc -Wall -Werror "$1" $(pkg-config --cflags --libs cloud_svr_client) -o shared
    cc "$1" $(pkg-config --static --cflags --libs cloud_svr_client | sed "$static") -o static
}
cmake -G Ninja -S "$2" -B cmake -DSOURCE="$1" >cmake.log
cmake --build cmake >cmake.log
echo ./shared ./static cmake/cmake_shared cmake/cmake_static
