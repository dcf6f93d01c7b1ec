#!/usr/bin/env bash
# Installs the built library into a scratch prefix (or into $KELO_INSTALL_PREFIX, which may already
# hold the other Qt major's install), builds a host project against it with find_package and with
# pkg-config, and runs the host against a kelo-cloud on loopback. kelo-cloud takes the build's
# signing key from KELO_CLOUD_KEY (set by the caller).
# Usage: check-install.sh <build dir> <tests/install> <kelo-cloud> [<Qt major>]
#   Qt 5: libkelo.so.1,     include/kelo/,          find_package(Kelo),    kelo.pc
#   Qt 6: libkelo-qt6.so.1, include/kelo-qt6/kelo/, find_package(KeloQt6), kelo-qt6.pc
set -euo pipefail
build_dir=$1; source_dir=$2; cloud=$3; major=${4:-5}
case "$major" in
    5) suffix="" package=Kelo includedir=include ;;
    6) suffix=-qt6 package=KeloQt6 includedir=include/kelo-qt6 ;;
    *) echo "unknown Qt major: $major" >&2; exit 2 ;;
esac
work=$(mktemp -d); trap 'kill $cloud_pid 2>/dev/null || true; rm -rf "$work"' EXIT
cloud_pid=""
prefix=${KELO_INSTALL_PREFIX:-$work/prefix}

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
test -f "$prefix/lib/libkelo$suffix.so.1"
test -f "$prefix/$includedir/kelo/kelosdk.h"
test -f "$prefix/lib/cmake/$package/${package}ConfigVersion.cmake"
test -f "$prefix/lib/pkgconfig/kelo$suffix.pc"

# The QML module, when built: its qmldir beside a plugin that finds the installed libkelo of its
# own Qt major, in Qt's own QML folder of that major.
if [ -f "$build_dir/qml/Kelo/qmldir" ]; then
    plugin=$(find "$prefix" -path "*/qt$major/qml/Kelo/libkeloqml.so")
    test -n "$plugin" && test -f "$(dirname "$plugin")/qmldir"
    found=$(LD_LIBRARY_PATH="" ldd "$plugin" | sed -n "s/.*libkelo$suffix\.so\.1 => \([^ ]*\).*/\1/p")
    [ "$(realpath -ms "$found")" = "$prefix/lib/libkelo$suffix.so.1" ] ||
        { echo "the installed QML plugin does not find the installed libkelo$suffix.so.1 ($found)"; exit 1; }
fi

cmake -S "$source_dir" -B "$work/host" -DCMAKE_PREFIX_PATH="$prefix" -DKELO_PACKAGE="$package" \
    >/dev/null
cmake --build "$work/host" >/dev/null

# The same host through pkg-config.
flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs "kelo$suffix")
moc_free_host="$work/pc_host.cpp"
printf '#include <kelo/kelosdk.h>\nint main(){ Kelosdk* p = nullptr; return p && p->userIslogged(); }\n' \
    > "$moc_free_host"
# shellcheck disable=SC2086
g++ -std=c++17 -fPIC "$moc_free_host" -o "$work/pc_host" $flags
# Each host is linked to its own major's library, never to the other one.
for host in "$work/host/install_host" "$work/pc_host"; do
    linked=$(LD_LIBRARY_PATH="$prefix/lib" ldd "$host" | grep -o 'libkelo[^ ]*\|libQt[56]Core[^ ]*' | sort -u | tr '\n' ' ')
    [ "$linked" = "libQt${major}Core.so.$major libkelo$suffix.so.1 " ] ||
        { echo "$host links: $linked" >&2; exit 1; }
done

"$cloud" --port 0 --ca-dir "$work/ca" > "$work/cloud.out" 2>&1 &
cloud_pid=$!
for _ in $(seq 100); do grep -q "listening on" "$work/cloud.out" && break; sleep 0.1; done
hostport=$(sed -n 's/.*listening on \([0-9.:]*\).*/\1/p' "$work/cloud.out")
test -n "$hostport" || { cat "$work/cloud.out"; exit 1; }
KELO_SERVER_HOST=$hostport KELO_CA="$work/ca/ca.pem" QT_QPA_PLATFORM=offscreen \
    LD_LIBRARY_PATH="$prefix/lib" "$work/host/install_host"
echo "installed package (Qt $major): find_package($package) and pkg-config kelo$suffix hosts built; host connected to $hostport"
