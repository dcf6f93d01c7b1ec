#!/usr/bin/env bash
# The network lab's self-test, run by "lab.sh selftest" inside a lab (it needs the KELO_LAB_*
# variables). For each profile: round trip (ping from the terminal side) within +-25 % of the
# profile's, a bulk download from nginx and an upload to it within 60-110 % of the rates
# (lossy-wifi: loss seen instead, as TCP cannot fill a link that loses 2 %); then the blackhole, nginx over HTTP/2 and
# HTTP/1.1 with the development CA, the kelo-cloud API with the lab's menu, and kelo-cloud killed
# and started again (lab.sh cloud-restart; the leftover check then covers the new one). Bounds are
# generous on purpose: this checks that the lab works, not how fast the machine is.
set -uo pipefail

: "${KELO_LAB_TERM:?run me through lab.sh}"
failures=0
term() { ip netns exec "$KELO_LAB_TERM" "$@"; }
ctl() { "$KELO_LAB_WIRE" ctl "$KELO_LAB_WIRE_CTL" "$@"; }
check() {
    local what=$1 ok=$2
    if [ "$ok" = 1 ]; then
        echo "  ok    $what"
    else
        echo "  FAIL  $what"
        failures=$((failures + 1))
    fi
}
# within VALUE LOW HIGH: 1 if LOW <= VALUE <= HIGH (decimals allowed).
within() { awk -v v="$1" -v lo="$2" -v hi="$3" 'BEGIN { print (v >= lo && v <= hi) ? 1 : 0 }'; }
host=${KELO_LAB_API%:*}
curl_term() { term curl --silent --show-error --cacert "$KELO_LAB_CA" "$@"; }

# Average round trip in ms of COUNT pings and how many were answered: "avg received".
ping_rtt() {
    term ping -n -q -c "$1" -i 0.05 -W 2 "$host" 2>&1 | awk '
        / received/ { for (i = 1; i <= NF; i++) if ($i ~ /^received/) received = $(i - 1) }
        /^rtt/ { split($4, t, "/"); avg = t[2] }
        END { printf "%s %d\n", (avg == "" ? 0 : avg), received }'
}

# Down rate in kbit/s of a BYTES long range of the bulk file, from the first byte to the last.
bulk_rate() {
    curl_term -o /dev/null --range "0-$(($1 - 1))" --max-time 60 \
        -w '%{size_download} %{time_starttransfer} %{time_total}\n' \
        "$KELO_LAB_PICTURES_H2/lab/bulk.bin" |
        awk '{ t = $3 - $2; if (t <= 0) t = 0.001; printf "%.0f %d %.2f\n", $1 * 8 / t / 1000, $1, $3 }'
}

# Up rate in kbit/s of a BYTES long upload (PUT), from the request's start to its last byte
# (the answer's round trip taken off).
upload_rate() {
    local file
    file=$(mktemp /tmp/kelolab-selftest-upload.XXXXXX)
    truncate -s "$1" "$file"
    curl_term -o /dev/null -T "$file" --max-time 60 \
        -w '%{size_upload} %{time_pretransfer} %{time_total}\n' \
        "$KELO_LAB_PICTURES_H2/upload/up.bin" |
        awk -v rtt="$2" '{ t = $3 - $2 - rtt / 1000; if (t <= 0) t = 0.001; printf "%.0f %d %.2f\n", $1 * 8 / t / 1000, $1, $3 }'
    rm -f "$file"
}

# profile, round trip ms, down kbit/s, up kbit/s, bulk bytes down and up (about 3 s of the rate
# after slow start)
profiles=(
    "wifi 80 20000 20000 8000000 8000000"
    "4g 150 1600 750 700000 300000"
    "lossy-wifi 80 20000 20000 2000000 2000000"
    "lan 1 1000000 1000000 100000000 20000000"
)

echo "lab selftest: terminal $KELO_LAB_TERM, cloud $KELO_LAB_CLOUD"
# The round trip through the namespaces and the wire with no delay at all: what the machine adds
# (about 0.1 ms idle, more under load), taken off the figures below.
ctl profile lan > /dev/null
ctl set delay=0 > /dev/null
read -r base _ < <(ping_rtt 20)
echo "machine's own round trip: $base ms (wire without delay)"
for row in "${profiles[@]}"; do
    read -r name rtt rate uprate bytes upbytes <<<"$row"
    ctl profile "$name" > /dev/null
    echo "profile $name: round trip $rtt ms, down $rate kbit/s, up $uprate kbit/s"
    sleep 0.5 # what the previous profile still carries drains
    read -r avg received < <(ping_rtt 20)
    added=$(awk -v a="$avg" -v b="$base" 'BEGIN { printf "%.3f", a - b }')
    echo "  round trip: $avg ms (ping, $received of 20 answered), $added ms added by the wire"
    check "round trip added within 25 % of $rtt ms" "$(within "$added" "$(awk -v r="$rtt" 'BEGIN{print r*0.75}')" "$(awk -v r="$rtt" 'BEGIN{print r*1.25}')")"
    read -r kbit got seconds < <(bulk_rate "$bytes")
    echo "  bulk download: $kbit kbit/s ($got bytes in $seconds s)"
    check "download complete" "$([ "${got:-0}" -eq "$bytes" ] && echo 1 || echo 0)"
    read -r upkbit upgot upseconds < <(upload_rate "$upbytes" "$rtt")
    echo "  bulk upload: $upkbit kbit/s ($upgot bytes in $upseconds s)"
    check "upload complete" "$([ "${upgot:-0}" -eq "$upbytes" ] && echo 1 || echo 0)"
    if [ "$name" = lossy-wifi ]; then
        lost=$(ctl stats | awk '{ for (i = 1; i <= NF; i++) if ($i ~ /^lost=/) { sub("lost=", "", $i); n += $i } } END { print n + 0 }')
        echo "  packets lost by the wire: $lost"
        check "loss visible" "$([ "$lost" -gt 0 ] && echo 1 || echo 0)"
    elif [ "$name" = lan ]; then
        # Above what a user-space wire carries on a small machine: printed, not checked.
        echo "  (lan: rate not checked, the wire's own speed limits it)"
    else
        check "down rate within 60-110 % of $rate kbit/s" "$(within "$kbit" "$((rate * 60 / 100))" "$((rate * 110 / 100))")"
        check "up rate within 60-110 % of $uprate kbit/s" "$(within "$upkbit" "$((uprate * 60 / 100))" "$((uprate * 110 / 100))")"
    fi
done

echo "blackhole (profile wifi)"
ctl profile wifi > /dev/null
ctl blackhole on > /dev/null
read -r _ received < <(ping_rtt 5)
check "blackhole on: no answer ($received of 5)" "$([ "$received" -eq 0 ] && echo 1 || echo 0)"
code=$(curl_term -o /dev/null --max-time 2 -w '%{http_code}' "$KELO_LAB_PICTURES_H2/pictures/dish-1.png" 2>/dev/null)
check "blackhole on: HTTPS times out (got ${code:-none})" "$([ "${code:-000}" = 000 ] && echo 1 || echo 0)"
blackholed=$(ctl stats | awk '{ for (i = 1; i <= NF; i++) if ($i ~ /^blackhole_drops=/) { sub("blackhole_drops=", "", $i); n += $i } } END { print n + 0 }')
check "blackhole on: the wire dropped $blackholed packets" "$([ "$blackholed" -gt 0 ] && echo 1 || echo 0)"
ctl blackhole off > /dev/null
read -r _ received < <(ping_rtt 5)
check "blackhole off: answers again ($received of 5)" "$([ "$received" -ge 4 ] && echo 1 || echo 0)"

echo "nginx and kelo-cloud"
version=$(curl_term --http2 -o "/tmp/kelolab-selftest-$$.png" -w '%{http_version} %{size_download}' "$KELO_LAB_PICTURES_H2/pictures/dish-1.png")
echo "  $KELO_LAB_PICTURES_H2: HTTP/${version% *}, ${version#* } bytes"
check "HTTP/2 with the development CA" "$([ "${version% *}" = 2 ] && echo 1 || echo 0)"
check "picture is a PNG" "$(head -c 8 "/tmp/kelolab-selftest-$$.png" | od -An -tx1 | tr -d ' \n' | grep -qx 89504e470d0a1a0a && echo 1 || echo 0)"
rm -f "/tmp/kelolab-selftest-$$.png"
version=$(curl_term --http2 -o /dev/null -w '%{http_version}' "$KELO_LAB_PICTURES_H1/pictures/dish-1.png")
check "HTTP/1.1 only on $KELO_LAB_PICTURES_H1 (got HTTP/$version)" "$([ "$version" = 1.1 ] && echo 1 || echo 0)"
menu=$(curl_term -G "https://$KELO_LAB_API/kelo/api/item/" --data-urlencode cm=getlist \
    --data-urlencode 'dt={"merchant_code":"M01"}')
items=$(grep -o '"item_id"' <<<"$menu" | wc -l)
echo "  kelo-cloud menu: $items dishes, img_host $(sed -n 's/.*"img_host":"\([^"]*\)".*/\1/p' <<<"$menu")"
check "kelo-cloud API answers with the menu" "$([ "$items" -gt 0 ] && grep -q '"err":0' <<<"$menu" && echo 1 || echo 0)"
check "menu pictures on nginx" "$(grep -q "\"img_host\":\"$KELO_LAB_PICTURES_H2\"" <<<"$menu" && echo 1 || echo 0)"

echo "kelo-cloud killed and started again"
old_pid=$(cat "${KELO_LAB_CLOUD_CTL%/*}/cloud.pid")
answer=$($KELO_LAB_CLOUD_RESTART 1)
new_pid=${answer#ok }
check "cloud-restart: $answer (was $old_pid)" "$([[ $answer == ok* ]] && [ "$new_pid" != "$old_pid" ] && ! kill -0 "$old_pid" 2>/dev/null && echo 1 || echo 0)"
state=$(curl_term --max-time 10 -H "X-Kelo-Control-Token: $KELO_LAB_CONTROL_TOKEN" \
    "https://$KELO_LAB_API/_sim/state")
check "the new kelo-cloud answers with the same CA and control token" "$(grep -q '"ok":true' <<<"$state" && echo 1 || echo 0)"
status=$(curl_term --max-time 10 -o /dev/null -w '%{http_code}' "https://$KELO_LAB_API/_sim/state")
check "its control routes refuse a call without the token ($status)" "$([ "$status" = 403 ] && echo 1 || echo 0)"

if [ "$failures" -gt 0 ]; then
    echo "lab selftest: $failures check(s) failed"
    exit 1
fi
echo "lab selftest: all checks passed"
