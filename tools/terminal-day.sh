#!/usr/bin/env bash
# Starts kelo-cloud on a free loopback port and runs kelo-terminal against it (with the
# simulator's customer button); stops the simulator when the terminal ends and exits with the
# terminal's status. Usage: terminal-day.sh <kelo-cloud> <kelo-terminal> [terminal options...]
# e.g. --screenshots DIR for the offscreen walk of the whole day.
set -uo pipefail
cloud=$1; terminal=$2; shift 2

work=$(mktemp -d)
cloud_pid=""
cleanup() {
    [ -n "$cloud_pid" ] && kill "$cloud_pid" 2>/dev/null && wait "$cloud_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

# A private data location keeps the terminal's picture cache out of the user's.
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
    echo "terminal-day: kelo-cloud did not start:" >&2
    cat "$work/cloud.log" >&2
    exit 1
fi
echo "terminal-day: kelo-cloud is up on $hostport"

"$terminal" --server "$hostport" --ca "$work/ca/ca.pem" --simulator "$@"
status=$?
echo "terminal-day: kelo-terminal exited with $status"
exit $status
