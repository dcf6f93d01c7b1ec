#!/usr/bin/env bash
# Installs the built library into a scratch prefix, builds a host project against it with
# find_package(Kelo) and with pkg-config, and runs the host against a kelo-cloud on loopback.
# kelo-cloud takes the build's signing key from KELO_CLOUD_KEY (set by the test).
set -euo pipefail
build_dir=$1; source_dir=$2; cloud=$3
work=$(mktemp -d); trap 'kill $cloud_pid 2>/dev/null || true; rm -rf "$work"' EXIT
cloud_pid=""

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
test -f "$work/prefix/lib/libkelo.so.1"
test -f "$work/prefix/include/kelo/kelosdk.h"
test -f "$work/prefix/lib/cmake/Kelo/KeloConfigVersion.cmake"

# The QML module, when built: its qmldir beside a plugin that finds the installed libkelo.so.1.
if [ -f "$build_dir/qml/Kelo/qmldir" ]; then
    plugin=$(find "$work/prefix" -path '*/qt5/qml/Kelo/libkeloqml.so')
    test -n "$plugin" && test -f "$(dirname "$plugin")/qmldir"
    found=$(LD_LIBRARY_PATH="" ldd "$plugin" | sed -n 's/.*libkelo\.so\.1 => \([^ ]*\).*/\1/p')
    [ "$(realpath -ms "$found")" = "$work/prefix/lib/libkelo.so.1" ] ||
        { echo "the installed QML plugin does not find the installed libkelo.so.1 ($found)"; exit 1; }
fi

cmake -S "$source_dir" -B "$work/host" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/host" >/dev/null

# The same host through pkg-config.
flags=$(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs kelo)
moc_free_host="$work/pc_host.cpp"
printf '#include <kelo/kelosdk.h>\nint main(){ Kelosdk* p = nullptr; return p ? 1 : 0; }\n' > "$moc_free_host"
# shellcheck disable=SC2086
g++ -std=c++17 -fPIC "$moc_free_host" -o "$work/pc_host" $flags

"$cloud" --port 0 --ca-dir "$work/ca" > "$work/cloud.out" 2>&1 &
cloud_pid=$!
for _ in $(seq 100); do grep -q "listening on" "$work/cloud.out" && break; sleep 0.1; done
hostport=$(sed -n 's/.*listening on \([0-9.:]*\).*/\1/p' "$work/cloud.out")
test -n "$hostport" || { cat "$work/cloud.out"; exit 1; }
KELO_SERVER_HOST=$hostport KELO_CA="$work/ca/ca.pem" QT_QPA_PLATFORM=offscreen \
    LD_LIBRARY_PATH="$work/prefix/lib" "$work/host/install_host"
echo "installed package: find_package and pkg-config hosts built; host connected to $hostport"
