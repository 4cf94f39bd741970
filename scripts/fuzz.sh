#!/usr/bin/env bash
# The fuzz targets (docs/fuzzing.md): fuzz_local, fuzz_cloud, fuzz_config, fuzz_kit.
#   scripts/fuzz.sh TARGET SECONDS    runs one that long; what it has learnt is kept in build-fuzz/
#   scripts/fuzz.sh --all SECONDS     each of them that long
#   scripts/fuzz.sh --replay          every kept finding and every seed, once
# A finding is left in tests/fuzz/findings/TARGET/, printed in base64 for a machine whose disk is thrown
# away, and makes the exit status 1.
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
export LC_ALL=C

targets=(fuzz_local fuzz_cloud fuzz_config fuzz_kit)
build=$(build_folder fuzz)
findings=$root/tests/fuzz/findings

# A small quarantine: one input's own memory is all that must stay in it.
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:quarantine_size_mb=8:malloc_context_size=12
export LSAN_OPTIONS=suppressions=$root/tests/sanitizers/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1

usage() { die "usage: scripts/fuzz.sh TARGET SECONDS | --all SECONDS | --replay; targets: ${targets[*]}"; }

# examples CHAPTER: the messages that the protocol's document shows there, one per line.
examples() {
    awk -v chapter="# $1" '/^# / { in_chapter = $0 == chapter }
        /^```/ { in_text = in_chapter && $0 == "```json"; next }
        in_text' "$root/docs/protocol.md"
}

# frames BYTES: a frame with a length of so many bytes around each line of the input.
frames() {
    local text
    while IFS= read -r text; do
        printf '\xA1\xB2%b%s' "$(printf "%0$((2 * $1))x" "${#text}" | sed 's/../\\x&/g')" "$text"
    done
}

# Each message alone, all of them as one stream, and conversations that get beyond the handshake.
seeds_make() {
    local seeds=$build/seeds from_clients from_cloud answers register request accepted files
    rm -rf "$seeds"
    mkdir -p "${targets[@]/#/$seeds/}"
    from_clients=$(examples 'The local socket')
    from_cloud=$(examples 'The cloud link')
    split -a 3 -l 1 - "$seeds/fuzz_local/" <<<"$from_clients"
    split -a 3 -l 1 - "$seeds/fuzz_cloud/" <<<"$from_cloud"
    split -a 3 -l 1 - "$seeds/fuzz_kit/" <<<"$from_cloud"
    frames 4 <<<"$from_clients" >"$seeds/fuzz_local/stream"
    frames 2 <<<"$from_cloud" >"$seeds/fuzz_cloud/stream"

    answers=$(grep -E '^\{"inner_(result|id":5,"inner_error_code":0)' <<<"$from_clients")
    register=$(grep '"register' <<<"$from_clients")
    request=$(grep device_request <<<"$from_clients")
    accepted=$(grep '"illegalType":0' <<<"$from_cloud")
    printf '%s\n' "$register" "$answers" "$from_clients" >"$seeds/fuzz_local/hello"
    printf '%s\n' "$register" "$answers" "$answers" "$request" |
        sed 's/_cloud":1/_cloud":0/; s/"inner_id":5/"inner_id":1/' >"$seeds/fuzz_local/default"
    # The cloud leaves requests unanswered until no id is free; a second client wants to register.
    printf '%s\n' "C$accepted" "$register" "$answers" W W W W0 "$request" "$request" "$request" \
        "$request" "1$register" ++++ "1$request" >"$seeds/fuzz_local/unanswered"
    printf '%s\n' "$accepted" "$from_cloud" >"$seeds/fuzz_cloud/hello"
    { printf D && grep -m 1 '^{"error_code":0,"id"' <<<"$from_cloud" &&
        grep -E 'getDeviceInfo|legalDevice' <<<"$from_cloud" && echo "$from_cloud"; } \
        >"$seeds/fuzz_cloud/default"
    # With the link option `recover`: connections lost in several ways, and made again.
    printf '%s\n' "R$accepted" E2 "${accepted/1\}/2\}}" E0 "${accepted/1\}/3\}}" ca "$accepted" \
        "$from_cloud" >"$seeds/fuzz_cloud/recover"
    printf '%s\n' "RC$accepted" "$register" "$answers" "$request" E2 "C$accepted" "$answers" \
        W2 "$request" "$answers" "$request" >"$seeds/fuzz_local/recover"
    printf '%s\n' "$from_cloud" >"$seeds/fuzz_kit/hello"
    printf 'D%s\n' "$from_cloud" >"$seeds/fuzz_kit/default"
    # A configuration whose certificates are all there, for what is behind them.
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=a.b \
        -keyout "$build/key.pem" -out "$build/cert.pem" 2>/dev/null
    files="\"certificate\": \"$build/cert.pem\", \"key\": \"$build/key.pem\""
    cp "$root/packaging/cloud_svr.cfg" "$seeds/fuzz_config/sample"
    sed "s|\"cer_file\": .*|\"cer_file\": \"$build/cert.pem\"|
        s|\"recover\"|\"verify\": true, \"server_name\": \"a.b\", $files, &|" \
        "$seeds/fuzz_config/sample" >"$seeds/fuzz_config/verify"
}

replay() {
    local target output status=0
    for target; do
        output=$(find "$findings/$target" "$build/seeds/$target" -type f -print0 |
            xargs -0 "$build/$target" -timeout=10 2>&1 >/dev/null) || {
            tail -n 60 <<<"$output"
            status=1
        }
        say "$target: $(grep -c '^Executed' <<<"$output") inputs replayed"
    done
    return $status
}

run() {
    local target=$1 corpus=$build/corpus/$1 log=$build/$1.log finding
    mkdir -p "$corpus"
    say "$target: $2 s"
    nice -n 10 "$build/$target" -max_total_time="$2" -timeout=10 -rss_limit_mb=1024 -max_len=4096 \
        -print_final_stats=1 -verbosity=1 -dict="$root/tests/fuzz/fuzz.dict" \
        -artifact_prefix="$findings/$target/" "$corpus" "$build/seeds/$target" \
        "$findings/$target" 2>"$log" >/dev/null && tail -n 6 "$log" && return
    tail -n 90 "$log"
    find "$findings/$target" -type f -newer "$started" | while read -r finding; do
        say "$finding: $(base64 -w 0 "$finding")"
    done
    return 1
}

case "$#:${1-}" in
    1:--replay) ;;
    2:--all) chosen=("${targets[@]}") ;;
    2:fuzz_*) [[ " ${targets[*]} " == *" $1 "* ]] || usage; chosen=("$1") ;;
    *) usage ;;
esac
[[ $# == 1 || $2 =~ ^[1-9][0-9]*$ ]] || usage

build_preset fuzz "${targets[@]}"
started=$build/started
touch "$started"
seeds_make
if (($# == 1)); then
    replay "${targets[@]}"
    exit
fi
status=0
for target in "${chosen[@]}"; do
    run "$target" "$2" || status=1
done
exit $status
