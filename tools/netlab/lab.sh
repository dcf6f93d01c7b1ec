#!/usr/bin/env bash
# The network lab: a terminal and the cloud in two network namespaces of their own, joined only
# by kelo-wire, a user-space link with the delay, rate, loss and outages of shop Wi-Fi or 4G.
# The cloud side runs kelo-cloud (API + WSS) and nginx (the menu's pictures over HTTP/2 and
# HTTP/1.1). See docs/netlab.md.
#
#   lab.sh run [--profile NAME] [--dishes N] [--picture-kb K] [--img-host h2|h1] [--build DIR]
#              [--seed N] -- COMMAND [ARGS...]
#   lab.sh selftest [--build DIR]
#   lab.sh cleanup
#   lab.sh cloud-restart [SECONDS]   (from inside a run's COMMAND: kills kelo-cloud outright, as a
#                                     crash, and starts it again after SECONDS (default 0))
#
# Every run has its own names (the script's PID in each namespace, device and path), so several
# runs may share the machine. On exit, failure and Ctrl-C alike a trap stops the wire, kelo-cloud
# and nginx, deletes both namespaces and the run's temp folder.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
prefix=kelolab
# The cloud side's fixed addresses: each run has namespaces of its own, so they never clash.
term_ip=198.18.0.1
cloud_ip=198.18.0.2
api_port=8443
h2_port=9443
h1_port=9444

die() {
    echo "lab: $*" >&2
    exit 2
}

usage() {
    sed -n '2,16p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'
    exit 2
}

[ "$(id -u)" -eq 0 ] || die "needs root (network namespaces and TUN devices)"

# ---- build ------------------------------------------------------------------------------------

build=$root/_build/lab
ensure_build() {
    # A build folder is brought up to date (quick when it is); a folder of bare binaries is used
    # as it stands.
    if [ ! -f "$build/CMakeCache.txt" ] && [ -x "$build/tools/kelo-wire" ] &&
        [ -x "$build/tools/kelo-cloud" ]; then
        return
    fi
    if [ ! -f "$build/CMakeCache.txt" ]; then
        echo "lab: building kelo-wire and kelo-cloud in $build" >&2
        bash "$root/tools/install-deps.sh" >&2
        cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
            -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_EXAMPLES=OFF -DKELO_BUILD_BENCH=OFF \
            -DKELO_BUILD_QML=OFF > "$build.configure.log" 2>&1 ||
            { cat "$build.configure.log" >&2; die "cannot configure $build"; }
        rm -f "$build.configure.log"
    fi
    nice -n 10 cmake --build "$build" --parallel 2 --target kelo-wire kelo-cloud > /dev/null ||
        die "cannot build kelo-wire and kelo-cloud in $build"
}

# ---- the run's resources and their removal ----------------------------------------------------

run_id=$$
ns_term=$prefix-$run_id-term
ns_cloud=$prefix-$run_id-cloud
tun_term=klt$run_id
tun_cloud=klc$run_id
tmp=""
wire_pid=""
cloud_pid=""
nginx_pid=""
command_pid=""
keeper_pid=""

# Stops a process and waits for it, SIGKILL after 5 s.
stop_pid() {
    local pid=$1
    [ -n "$pid" ] || return 0
    kill -TERM "$pid" 2>/dev/null || return 0
    for _ in $(seq 50); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
}

# Kills whatever still runs inside namespace $1, then deletes it.
remove_namespace() {
    local ns=$1 pids
    ip netns list 2>/dev/null | grep -qw "^$ns" || return 0
    pids=$(ip netns pids "$ns" 2>/dev/null || true)
    if [ -n "$pids" ]; then
        # shellcheck disable=SC2086
        kill -TERM $pids 2>/dev/null || true
        sleep 0.3
        pids=$(ip netns pids "$ns" 2>/dev/null || true)
        # shellcheck disable=SC2086
        [ -z "$pids" ] || kill -KILL $pids 2>/dev/null || true
    fi
    ip netns del "$ns" 2>/dev/null || true
}

cleanup() {
    local status=$?
    trap - EXIT INT TERM HUP
    set +e
    [ -n "$command_pid" ] && stop_pid "$command_pid"
    stop_pid "$nginx_pid"
    # The keeper goes first, so that it starts no kelo-cloud any more; the one it started ends
    # with it (parent-death signal), and is stopped here too.
    [ -n "$keeper_pid" ] && { kill -KILL "$keeper_pid" 2>/dev/null; wait "$keeper_pid" 2>/dev/null; }
    [ -n "$tmp" ] && [ -s "$tmp/cloud.pid" ] && stop_pid "$(cat "$tmp/cloud.pid")"
    stop_pid "$cloud_pid"
    stop_pid "$wire_pid"
    remove_namespace "$ns_term"
    remove_namespace "$ns_cloud"
    [ -n "$tmp" ] && rm -rf "$tmp"
    exit "$status"
}

# Leftovers of runs whose script is gone (killed with SIGKILL, machine crashed): only names with
# the lab's prefix, and never those of a run that is still going.
cleanup_stale() {
    local ns pid removed=0
    for ns in $(ip netns list 2>/dev/null | awk '{print $1}' | grep "^$prefix-[0-9]*-\(term\|cloud\)$"); do
        pid=${ns#"$prefix"-}
        pid=${pid%%-*}
        if [ -d "/proc/$pid" ] && grep -q "lab.sh" "/proc/$pid/cmdline" 2>/dev/null; then
            continue
        fi
        remove_namespace "$ns"
        echo "lab: removed namespace $ns"
        removed=$((removed + 1))
    done
    for dir in /tmp/"$prefix"-*; do
        [ -d "$dir" ] || continue
        pid=${dir#/tmp/"$prefix"-}
        pid=${pid%%.*}
        if [ -d "/proc/$pid" ] && grep -q "lab.sh" "/proc/$pid/cmdline" 2>/dev/null; then
            continue
        fi
        rm -rf "$dir"
        echo "lab: removed $dir"
        removed=$((removed + 1))
    done
    echo "lab: cleanup done ($removed removed)"
}

# Waits up to $2 tenths of a second for "$1" (a command) to succeed.
wait_until() {
    local check=$1 tries=$2
    for _ in $(seq "$tries"); do
        eval "$check" && return 0
        sleep 0.1
    done
    return 1
}

# ---- bringing the lab up ----------------------------------------------------------------------

profile=wifi
dishes=100
picture_kb=30
img_host=h2
seed=1

lab_up() {
    ensure_build
    local wire=$build/tools/kelo-wire cloud=$build/tools/kelo-cloud
    case $profile in wifi | 4g | lossy-wifi | lan) ;; *) die "unknown profile: $profile (wifi 4g lossy-wifi lan)" ;; esac
    tmp=$(mktemp -d "/tmp/$prefix-$run_id.XXXXXX")
    chmod 711 "$tmp"
    mkdir -m 700 "$tmp/ca"
    mkdir -m 755 "$tmp/pictures"

    ip netns add "$ns_term"
    ip netns add "$ns_cloud"
    ip -n "$ns_term" link set lo up
    ip -n "$ns_cloud" link set lo up

    "$wire" --term-tun "$tun_term" --cloud-tun "$tun_cloud" --control "$tmp/wire.sock" \
        --profile "$profile" --seed "$seed" > "$tmp/wire.log" 2>&1 &
    wire_pid=$!
    wait_until "grep -q ready '$tmp/wire.log'" 50 || { cat "$tmp/wire.log" >&2; die "kelo-wire did not start"; }
    ip link set "$tun_term" netns "$ns_term"
    ip link set "$tun_cloud" netns "$ns_cloud"
    ip -n "$ns_term" addr add "$term_ip/30" dev "$tun_term"
    ip -n "$ns_cloud" addr add "$cloud_ip/30" dev "$tun_cloud"
    ip -n "$ns_term" link set "$tun_term" up
    ip -n "$ns_cloud" link set "$tun_cloud" up

    local h2=https://$cloud_ip:$h2_port h1=https://$cloud_ip:$h1_port picture_host
    [ "$img_host" = h1 ] && picture_host=$h1 || picture_host=$h2
    # kelo-cloud and nginx, like the wire, end with this script even when it is killed outright
    # (setpriv's parent-death signal); the namespaces and files are then for "lab.sh cleanup".
    cloud_cmd=("$cloud" --listen "$cloud_ip" --port "$api_port" \
        --ca-dir "$tmp/ca" --dishes "$dishes" --picture-bytes $((picture_kb * 1024)) \
        --picture-host "$picture_host" --export-pictures "$tmp/pictures")
    # Off loopback kelo-cloud makes a control token at start and prints it: taken from its log,
    # it is given back to every restart (so callers keep theirs) and to the run's COMMAND.
    control_token=
    start_cloud "$tmp/cloud.log" || { cat "$tmp/cloud.log" >&2; die "kelo-cloud did not start"; }
    cloud_pid=$(cat "$tmp/cloud.pid")
    control_token=$(sed -n 's/^kelo-cloud control token: //p' "$tmp/cloud.log")
    [ -n "$control_token" ] || { cat "$tmp/cloud.log" >&2; die "kelo-cloud printed no control token"; }
    # The keeper restarts kelo-cloud on request (lab.sh cloud-restart, through a FIFO).
    mkfifo -m 600 "$tmp/cloud.ctl"
    cloud_keeper &
    keeper_pid=$!
    # A large file for bulk transfers (sparse: costs no disk); fetch a part with a Range request.
    mkdir -p "$tmp/pictures/lab"
    truncate -s 256M "$tmp/pictures/lab/bulk.bin"
    mkdir -m 777 "$tmp/pictures/upload"
    chmod -R a+rX "$tmp/pictures"

    # nginx's certificate for the cloud's address, signed by kelo-cloud's development CA.
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
        -keyout "$tmp/ca/nginx.key" -subj "/CN=$cloud_ip" -out "$tmp/ca/nginx.csr" 2>/dev/null
    printf 'basicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\nextendedKeyUsage=serverAuth\nsubjectAltName=IP:%s\n' \
        "$cloud_ip" > "$tmp/ca/nginx.ext"
    openssl x509 -req -in "$tmp/ca/nginx.csr" -CA "$tmp/ca/ca.pem" -CAkey "$tmp/ca/ca.key" \
        -CAcreateserial -days 2 -sha256 -extfile "$tmp/ca/nginx.ext" -out "$tmp/ca/nginx.pem" 2>/dev/null
    cat "$tmp/ca/nginx.pem" "$tmp/ca/ca.pem" > "$tmp/ca/nginx-chain.pem"

    mkdir -p "$tmp/nginx"
    cat > "$tmp/nginx/nginx.conf" <<EOF
# The lab's picture host; started in the foreground by lab.sh, which also stops it.
daemon off;
master_process on;
worker_processes 1;
pid $tmp/nginx/nginx.pid;
error_log $tmp/nginx/error.log warn;
events { worker_connections 256; }
http {
    access_log off;
    client_body_temp_path $tmp/nginx/body;
    proxy_temp_path $tmp/nginx/proxy;
    fastcgi_temp_path $tmp/nginx/fastcgi;
    uwsgi_temp_path $tmp/nginx/uwsgi;
    scgi_temp_path $tmp/nginx/scgi;
    types { image/png png; }
    default_type application/octet-stream;
    sendfile on;
    keepalive_timeout 65s;
    keepalive_requests 10000;
    ssl_certificate $tmp/ca/nginx-chain.pem;
    ssl_certificate_key $tmp/ca/nginx.key;
    ssl_protocols TLSv1.2 TLSv1.3;
    root $tmp/pictures;
    # Uploads for measuring the up direction (PUT /upload/NAME), kept in the run's folder.
    client_max_body_size 512m;
    # HTTP/2 (and HTTP/1.1 for clients that do not offer h2 in ALPN).
    server {
        listen $cloud_ip:$h2_port ssl http2;
        location /upload/ { dav_methods PUT; create_full_put_path on; }
    }
    # HTTP/1.1 only.
    server { listen $cloud_ip:$h1_port ssl; }
}
EOF
    ip netns exec "$ns_cloud" setpriv --pdeathsig TERM -- nginx -c "$tmp/nginx/nginx.conf" -p "$tmp/nginx/" \
        -e "$tmp/nginx/error.log" > "$tmp/nginx/stdout.log" 2>&1 &
    nginx_pid=$!
    wait_until "[ -s '$tmp/nginx/nginx.pid' ] || ! kill -0 $nginx_pid 2>/dev/null" 100
    [ -s "$tmp/nginx/nginx.pid" ] || { cat "$tmp/nginx/error.log" "$tmp/nginx/stdout.log" >&2 2>/dev/null; die "nginx did not start"; }

    export KELO_LAB_TERM=$ns_term KELO_LAB_CLOUD=$ns_cloud
    export KELO_LAB_WIRE=$wire KELO_LAB_WIRE_CTL=$tmp/wire.sock
    export KELO_LAB_API=$cloud_ip:$api_port
    export KELO_LAB_PICTURES_H2=$h2 KELO_LAB_PICTURES_H1=$h1
    export KELO_LAB_CA=$tmp/ca/ca.pem KELO_LAB_CLOUD_PID=$cloud_pid KELO_LAB_PROFILE=$profile
    export KELO_LAB_CLOUD_CTL=$tmp/cloud.ctl KELO_LAB_CONTROL_TOKEN=$control_token
    export KELO_LAB_CLOUD_RESTART="bash $root/tools/netlab/lab.sh cloud-restart"
    echo "lab: up: profile $profile, terminal $ns_term ($term_ip), cloud $ns_cloud ($cloud_ip):" \
        "API $KELO_LAB_API, pictures $h2 (h2) $h1 (h1), $dishes dishes x $picture_kb KB" >&2
}

# Starts kelo-cloud in the cloud namespace as a child of the calling shell (it ends with that
# shell: parent-death signal), its output in $1, with $control_token (empty: it makes one); writes
# its PID to $tmp/cloud.pid once it listens and has printed its control token.
start_cloud() {
    local log=$1 pid
    # In its environment, not on its command line (which every user of the machine sees).
    KELO_CLOUD_CONTROL_TOKEN=$control_token \
        ip netns exec "$ns_cloud" setpriv --pdeathsig TERM -- "${cloud_cmd[@]}" > "$log" 2>&1 &
    pid=$!
    disown "$pid" # a kill by the keeper is no job for the shell to report
    wait_until "grep -q 'control token:' '$log' || ! kill -0 $pid 2>/dev/null" 600
    grep -q 'control token:' "$log" || return 1
    echo "$pid" > "$tmp/cloud.pid"
}

# Reads "restart SECONDS REPLY-FIFO" lines from $tmp/cloud.ctl: kills kelo-cloud outright
# (SIGKILL, a crash: no socket is closed cleanly), waits SECONDS, starts it again with the same
# options and CA, and answers "ok PID" or "fail ..." on REPLY-FIFO.
cloud_keeper() {
    local verb seconds reply pid n=0 answer
    trap - EXIT INT TERM HUP
    set +e
    while true; do
        read -r verb seconds reply < "$tmp/cloud.ctl" || continue
        [ "$verb" = restart ] && [[ $seconds =~ ^[0-9]+$ ]] && [ -p "$reply" ] || continue
        pid=$(cat "$tmp/cloud.pid" 2>/dev/null || true)
        [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
        [ -n "$pid" ] && wait_until "! kill -0 $pid 2>/dev/null" 50
        sleep "$seconds"
        n=$((n + 1))
        if start_cloud "$tmp/cloud.$n.log"; then
            answer="ok $(cat "$tmp/cloud.pid")"
        else
            answer="fail kelo-cloud did not start again: $(tail -n 3 "$tmp/cloud.$n.log" | tr '\n' ' ')"
        fi
        echo "$answer" > "$reply" &
        wait_until "! kill -0 $! 2>/dev/null" 50 || kill -KILL $! 2>/dev/null
    done
}

# lab.sh cloud-restart [SECONDS], from a run's COMMAND (KELO_LAB_CLOUD_CTL set).
cmd_cloud_restart() {
    local seconds=${1:-0} reply answer="" status=0
    [[ $seconds =~ ^[0-9]+$ ]] || die "cloud-restart: expected a number of seconds"
    [ -p "${KELO_LAB_CLOUD_CTL:-}" ] || die "cloud-restart: KELO_LAB_CLOUD_CTL is not a lab's FIFO (run it inside lab.sh run)"
    reply=$(mktemp -u "${KELO_LAB_CLOUD_CTL%/*}/cloud-reply.XXXXXX")
    mkfifo -m 600 "$reply"
    timeout 5 bash -c 'echo "restart $1 $2" > "$3"' _ "$seconds" "$reply" "$KELO_LAB_CLOUD_CTL" || status=$?
    if [ "$status" -eq 0 ]; then
        answer=$(timeout $((seconds + 70)) cat "$reply") || status=$?
    fi
    rm -f "$reply"
    [ "$status" -eq 0 ] || die "cloud-restart: the lab's keeper did not answer"
    echo "$answer"
    [[ $answer == ok* ]]
}

# ---- commands ---------------------------------------------------------------------------------

parse_options() {
    while [ $# -gt 0 ]; do
        case $1 in
        --profile) profile=${2:?}; shift 2 ;;
        --dishes) dishes=${2:?}; shift 2 ;;
        --picture-kb) picture_kb=${2:?}; shift 2 ;;
        --img-host) img_host=${2:?}; shift 2 ;;
        --build) build=$(cd "${2:?}" 2>/dev/null && pwd || echo "$2"); shift 2 ;;
        --seed) seed=${2:?}; shift 2 ;;
        --) shift; break ;;
        *) die "unknown option: $1" ;;
        esac
    done
    [[ $dishes =~ ^[0-9]+$ ]] || die "--dishes: expected a number"
    if ! [[ $picture_kb =~ ^[0-9]+$ ]] || [ "$picture_kb" -lt 1 ]; then
        die "--picture-kb: expected a number >= 1"
    fi
    [[ $img_host =~ ^h[12]$ ]] || die "--img-host: expected h2 or h1"
    [[ $seed =~ ^[0-9]+$ ]] || die "--seed: expected a number"
    rest=("$@")
}

cmd_run() {
    parse_options "$@"
    [ ${#rest[@]} -gt 0 ] || die "run: no COMMAND after --"
    trap cleanup EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    trap 'exit 129' HUP
    lab_up
    # In the background, so that a signal to this script reaches the trap at once; its standard
    # input stays the script's, and it ends with the script even if that one is killed outright.
    set +e
    setpriv --pdeathsig TERM -- "${rest[@]}" <&0 &
    command_pid=$!
    wait "$command_pid"
    local status=$?
    command_pid=""
    exit "$status"
}

# The checks of selftest.sh inside a lab, then, once that lab is gone, that it left nothing.
cmd_selftest() {
    parse_options "$@"
    ensure_build
    local child status leftovers
    bash "${BASH_SOURCE[0]}" run --build "$build" --seed "$seed" -- \
        bash "$root/tools/netlab/selftest.sh" &
    child=$!
    trap 'kill -TERM $child 2>/dev/null; wait $child; exit 130' INT
    trap 'kill -TERM $child 2>/dev/null; wait $child; exit 143' TERM
    status=0
    wait "$child" || status=$?
    trap - INT TERM
    leftovers=$( (ip netns list | grep "^$prefix-$child-"; ls -d "/tmp/$prefix-$child".* 2>/dev/null
        pgrep -a -f "/tmp/$prefix-$child\." | grep -v pgrep) || true)
    if [ -n "$leftovers" ]; then
        echo "  FAIL  the lab left behind:"
        sed 's/^/          /' <<<"$leftovers"
        status=1
    else
        echo "  ok    the lab left nothing behind (namespaces, processes, files)"
    fi
    return "$status"
}

cmd=${1:-}
[ $# -gt 0 ] && shift
case $cmd in
run) cmd_run "$@" ;;
selftest) cmd_selftest "$@" ;;
cleanup) cleanup_stale ;;
cloud-restart) cmd_cloud_restart "$@" ;;
*) usage ;;
esac
