#!/bin/sh
# daemon.sh BUILD-FOLDER LIBRARY: end-to-end tests whose daemon runs under the library. Its log must
# tell of ended daemons and of no fault. The log's place is outside of the tests' own /tmp.
set -eu
log=$1/tests/memdebug/daemon.log
tests='requests_test.*:cloud_requests_test.*'
rm -f "$log"
CLOUD_SVR_RUNNER="env LD_PRELOAD=$2 CLOUD_SVR_MEMDEBUG_LOG=$log" \
    "$1/cloud_svr_e2e" --gtest_filter="$tests"
if grep FAULT "$log"; then exit 1; fi
grep -c ' 0 faults' "$log"
