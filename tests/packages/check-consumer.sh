#!/usr/bin/env bash
# The packages as a device image and an integrator take them:
#   tests/packages/check-consumer.sh <amd64-deb-dir> [<armhf-deb-dir> <armhf-sysroot>]
# amd64: installs the packages into this machine's system (apt-get install ./*.deb; run as root),
# builds tests/packages/consumer against the installed files only, once with find_package(Kelo)
# and once with pkg-config kelo, and runs each against the installed kelo-cloud: a waiter logs in
# and the menu syncs with its pictures. kelo-terminal: its maintainer scripts made the system user
# and its groups, registered the conffile and enabled nothing, and the installed terminal, run as
# that user, walks its day against the installed kelo-cloud with the installed QML module; purge
# removes its settings. The packages are purged again on exit.
# armhf: unpacks the packages (dpkg-deb -x) into a copy of the sysroot, cross-builds the consumer
# both ways against it and runs it under qemu-arm against the same kelo-cloud.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
amd64_dir=$(realpath "$1")
armhf_dir=${2:+$(realpath "$2")}
sysroot=${3:+$(realpath "$3")}
packages=(libkelo1 libkelo-dev kelo-cloud qml-module-kelo kelo-terminal)

work=$(mktemp -d)
# The kiosk user's own files: a directory it can reach ($work is root's alone).
kiosk=$(mktemp -d)
chmod 755 "$kiosk"
cloud_pid=""
purge() {
    local installed
    installed=$(dpkg-query -W -f='${Package} ${Status}\n' "${packages[@]}" 2>/dev/null | awk '$4 == "installed" { print $1 }' || true)
    [ -z "$installed" ] || dpkg --purge $installed >/dev/null
}
cleanup() {
    [ -n "$cloud_pid" ] && kill "$cloud_pid" 2>/dev/null || true
    purge
    rm -rf "$work" "$kiosk"
}
trap cleanup EXIT

log() { echo "check-consumer: $*"; }

purge
# The postinst must make the kiosk user itself: one left by an earlier run goes first.
if getent passwd kelo-terminal >/dev/null; then userdel kelo-terminal; fi
if getent group kelo-terminal >/dev/null; then groupdel kelo-terminal; fi
log "installing $(cd "$amd64_dir" && echo *.deb)"
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    -o DPkg::Lock::Timeout=600 "$amd64_dir"/*.deb >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; exit 1; }
for f in /usr/lib/libkelo.so.1 /usr/include/kelo/kelosdk.h /usr/lib/cmake/Kelo/KeloConfig.cmake \
    /usr/lib/pkgconfig/kelo.pc /usr/bin/kelo-cloud; do
    test -e "$f" || { log "$f is not installed"; exit 1; }
done

# The consumer knows nothing of this tree: it is copied out, and CMake and pkg-config look at
# the system only.
cp -r "$here/consumer" "$work/src"
build_native() { # <name> <cmake args...>
    local name=$1; shift
    env -u CMAKE_PREFIX_PATH -u PKG_CONFIG_PATH cmake -S "$work/src" -B "$work/$name" -G Ninja "$@" >"$work/$name.log" 2>&1 &&
        cmake --build "$work/$name" >>"$work/$name.log" 2>&1 || { cat "$work/$name.log"; exit 1; }
}
build_native cmake
build_native pkgconfig -DKELO_CONSUMER_PKGCONFIG=ON
for name in cmake pkgconfig; do
    lib=$(ldd "$work/$name/kelo_consumer" | awk '$1 == "libkelo.so.1" { print $3 }')
    [ -n "$lib" ] && [ "$(realpath "$lib")" = "$(realpath /usr/lib/libkelo.so.1)" ] || { log "$name consumer loads libkelo.so.1 from '$lib'"; exit 1; }
done

/usr/bin/kelo-cloud --port 0 --ca-dir "$work/ca" >"$work/cloud.out" 2>&1 &
cloud_pid=$!
for _ in $(seq 100); do grep -q "listening on" "$work/cloud.out" && break; sleep 0.1; done
hostport=$(sed -n 's/.*listening on \([0-9.:]*\).*/\1/p' "$work/cloud.out")
test -n "$hostport" || { cat "$work/cloud.out"; exit 1; }

run_consumer() { # <label> <command...>
    local label=$1; shift
    rm -rf "$work/data"
    KELO_SERVER_HOST=$hostport KELO_CA="$work/ca/ca.pem" XDG_DATA_HOME="$work/data" "$@" ||
        { log "$label consumer failed"; exit 1; }
    log "$label consumer passed"
}
run_consumer "amd64 find_package(Kelo)" "$work/cmake/kelo_consumer"
run_consumer "amd64 pkg-config kelo" "$work/pkgconfig/kelo_consumer"

# kelo-terminal, as its postinst left the machine.
getent passwd kelo-terminal | grep -q ':/var/lib/kelo-terminal:/usr/sbin/nologin$' ||
    { log "no system user kelo-terminal: $(getent passwd kelo-terminal || true)"; exit 1; }
for group in kelo-terminal video render input; do
    getent group "$group" >/dev/null || { log "group $group is missing"; exit 1; }
done
dpkg-query -W -f='${Conffiles}\n' kelo-terminal | grep -q '^ /etc/default/kelo-terminal ' ||
    { log "/etc/default/kelo-terminal is not a conffile of kelo-terminal"; exit 1; }
test -f /lib/systemd/system/kelo-terminal.service || { log "kelo-terminal.service is not installed"; exit 1; }
if [ -n "$(find /etc/systemd/system -name kelo-terminal.service 2>/dev/null)" ]; then
    log "installing kelo-terminal enabled its unit"; exit 1
fi
# The unit passes an empty --server while the settings name no cloud, and does not restart the
# terminal on status 2 (RestartPreventExitStatus=2): the terminal must answer that with 2.
status=0
QT_QPA_PLATFORM=offscreen /usr/bin/kelo-terminal --server "" --ca /etc/kelo-terminal/ca.pem \
    --merchant M01 --machine POS-1 >"$work/no-server.out" 2>&1 || status=$?
[ "$status" -eq 2 ] || { cat "$work/no-server.out"; log "kelo-terminal without a cloud address exited $status, not 2"; exit 1; }
# The installed terminal as the kiosk user, with the module of qml-module-kelo only.
install -d -o kelo-terminal -g kelo-terminal "$kiosk/home" "$kiosk/shots"
install -m 0644 "$work/ca/ca.pem" "$kiosk/ca.pem"
runuser -u kelo-terminal -- env -u QML2_IMPORT_PATH -u QML_IMPORT_PATH -u LD_LIBRARY_PATH \
    HOME="$kiosk/home" XDG_DATA_HOME="$kiosk/home/data" XDG_CACHE_HOME="$kiosk/home/cache" \
    timeout 120 /usr/bin/kelo-terminal --server "$hostport" --ca "$kiosk/ca.pem" \
    --screenshots "$kiosk/shots" >"$work/terminal.out" 2>&1 ||
    { cat "$work/terminal.out"; log "the installed kelo-terminal failed its day"; exit 1; }
shots=$(find "$kiosk/shots" -name '*.png' | wc -l)
[ "$shots" -ge 8 ] || { cat "$work/terminal.out"; log "kelo-terminal wrote $shots screenshots"; exit 1; }
log "kelo-terminal installed as a kiosk and ran its day as kelo-terminal ($shots screens)"
dpkg --purge kelo-terminal >/dev/null
for f in /etc/default/kelo-terminal /lib/systemd/system/kelo-terminal.service /var/lib/kelo-terminal; do
    ! test -e "$f" || { log "$f is left after purging kelo-terminal"; exit 1; }
done

[ -n "$armhf_dir" ] || exit 0

# armhf: a copy of the sysroot (hard links, cheap) with the armhf packages unpacked into it.
target=$work/armhf-sysroot
cp -al "$sysroot" "$target"
for deb in "$armhf_dir"/*.deb; do
    dpkg-deb -x "$deb" "$target"
done
test -f "$target/usr/lib/libkelo.so.1" || { log "no libkelo.so.1 in the armhf packages"; exit 1; }
cross=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" -DKELO_ARMHF_SYSROOT="$target")
build_native armhf-cmake "${cross[@]}"
PKG_CONFIG_SYSROOT_DIR=$target \
    PKG_CONFIG_LIBDIR="$target/usr/lib/pkgconfig:$target/usr/lib/arm-linux-gnueabihf/pkgconfig:$target/usr/share/pkgconfig" \
    build_native armhf-pkgconfig "${cross[@]}" -DKELO_CONSUMER_PKGCONFIG=ON
for name in armhf-cmake armhf-pkgconfig; do
    file -L "$work/$name/kelo_consumer" | grep -q "ELF 32-bit LSB .* ARM" ||
        { log "$name: not an armhf program: $(file -L "$work/$name/kelo_consumer")"; exit 1; }
    run_consumer "$name (qemu-arm)" qemu-arm -L "$target" "$work/$name/kelo_consumer"
done
