#!/usr/bin/env bash
# Starts kelo-cloud on a free loopback port, runs a host program against it with
# "--server <host:port> --ca <CA file>" and the given options, stops the simulator and exits with
# the program's status. Usage: with-cloud.sh <label> <kelo-cloud> <program> [options...]
# A library built with its own KELO_SECRET_KEY needs KELO_CLOUD_KEY set to that key: kelo-cloud
# holds no build's key and signs with the development key otherwise.
set -uo pipefail
label=$1; cloud=$2; program=$3; shift 3

work=$(mktemp -d)
cloud_pid=""
cleanup() {
    [ -n "$cloud_pid" ] && kill "$cloud_pid" 2>/dev/null && wait "$cloud_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

# A private data location keeps the program's picture cache out of the user's.
export XDG_DATA_HOME="$work/data"
"$cloud" --port 0 --ca-dir "$work/ca" > "$work/cloud.log" 2>&1 &
cloud_pid=$!
for _ in $(seq 200); do
    grep -q "listening on" "$work/cloud.log" && break
    kill -0 "$cloud_pid" 2>/dev/null || break
    sleep 0.05
done
hostport=$(sed -n 's/.*listening on \([0-9.:]*\).*/\1/p' "$work/cloud.log")
if [ -z "$hostport" ]; then
    echo "$label: kelo-cloud did not start:" >&2
    cat "$work/cloud.log" >&2
    exit 1
fi
echo "$label: kelo-cloud is up on $hostport"

"$program" --server "$hostport" --ca "$work/ca/ca.pem" "$@"
status=$?
echo "$label: $(basename "$program") exited with $status"
exit $status
