#!/usr/bin/env bash
# The whole system at work on this machine: a simulated cloud, the daemon, a client that registers
# as the device's agent, a request to the cloud and one from the cloud. Installs and builds first
# what is missing, leaves nothing behind, and fails with the logs shown.
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

socket=/tmp/cloud_svr
limit=20 # seconds for anything that is waited for
folder=
declare -A pids=() # of what runs in the background, by name

# Ends NAME with SIGTERM, or after the limit with SIGKILL; its exit status.
stop() {
    local pid=${pids[$1]} deadline=$((SECONDS + limit))
    unset "pids[$1]"
    kill -TERM "$pid" 2>/dev/null || true
    while kill -0 "$pid" 2>/dev/null; do
        if ((SECONDS >= deadline)); then kill -KILL "$pid"; fi
        sleep 0.05
    done
    wait "$pid"
}

clean_up() {
    local status=$? name
    trap - EXIT
    set +e
    for name in "${!pids[@]}"; do stop "$name"; done
    if ((status)) && [[ -n $folder ]]; then tail -n 200 "$folder"/*.log >&2; fi
    rm -rf "$folder"
    exit "$status"
}

# start NAME INPUT COMMAND...: in the background, its output in the folder's NAME.log.
start() {
    "${@:3}" <"$2" >"$folder/$1.log" 2>&1 3>&- &
    pids[$1]=$!
}

# Waits for a line of the log NAME that matches PATTERN, and prints it.
await() {
    local log=$folder/$1.log deadline=$((SECONDS + limit))
    until grep -s -m1 -E -e "$2" "$log"; do
        ((SECONDS < deadline)) || die "no line \"$2\" from $1 within $limit s"
        sleep 0.05
    done
}

is_live() {
    python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).connect(sys.argv[1])' "$1" \
        2>/dev/null
}

write_config() {
    cat <<END
{
    "cloud": { "domain": "127.0.0.1", "port": $1 },
    "default": {
        "heartbeat_interval_ms": 240000,
        "request_timeout_ms": 5000,
        "max_message_number": 64,
        "max_client_number": 8,
        "cer_file": "$folder/cloud.pem"
    }
}
END
}

start_cloud() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
        -subj /CN=127.0.0.1 -keyout "$folder/key.pem" -out "$folder/cloud.pem" 2>"$folder/key.log"
    # Held open for writing: what the cloud is to send comes later, and its end would be a hang-up.
    mkfifo "$folder/to_cloud"
    exec 3<>"$folder/to_cloud"
    start cloud "$folder/to_cloud" \
        build/cloud_sim --port 0 --cert "$folder/cloud.pem" --key "$folder/key.pem"
}

(($# == 0)) || die "usage: scripts/demo.sh"
"$root/scripts/setup.sh"
cd "$root"
if is_live "$socket"; then
    die "$socket belongs to a daemon that is running; stop it first, please"
fi
build_preset release cloud_svr cloud_sim cloud_ctl

trap clean_up EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
folder=$(mktemp -d)

say "the cloud"
start_cloud
port=$(await cloud '^listening on ' | sed 's/.*://')

say "the daemon"
write_config "$port" >"$folder/demo.cfg"
start daemon /dev/null stdbuf -oL build/cloud_svr -c "$folder/demo.cfg"
await daemon '\| - begin to work\.\.\.$'

say "a client registers as the device's agent, and the daemon connects"
start agent /dev/null \
    build/cloud_ctl register --answer '{"error_code":0,"result":{"model":"demo"}}'
await cloud 'handshake done'

say "a client asks the cloud"
timeout "$limit" build/cloud_ctl request --connect '{"method":"echo","params":{"hello":"cloud"}}' |
    tee "$folder/answer.log"
grep -q '"hello":"cloud"' "$folder/answer.log" || die "the cloud's answer lacks what was sent"

say "the cloud asks the device"
echo '{"method":"getStatus","params":{}}' >&3
asked=$(await cloud '-> .*"getStatus"')
id=$(sed -n 's/.*"id":\([0-9]*\).*/\1/p' <<<"$asked")
printf '%s\n' "$asked"
await cloud "<- .*\"model\":\"demo\".*\"id\":${id}[,}]"

say "the daemon stops"
stop daemon || die "the daemon ended with status $?"
[[ ! -e $socket ]] || die "$socket is still there"
say "done"
