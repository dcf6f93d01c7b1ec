#!/usr/bin/env bash
# Builds the Debian packages of libkelo and checks them:
#   tools/make-packages.sh [amd64|armhf|all]      (default: all)
# Per architecture: a Release build with Debian's hardening flags (dpkg-buildflags) and -g in
# _build/pkg-<arch> (armhf: cross-built against the sysroot of tools/make-armhf-sysroot.sh), CPack
# DEB with the runtime dependencies from dpkg-shlibdeps, then the checks: each package's files
# stay in its place, the relations between the packages, lintian (warnings and errors fail).
# The packages land in _build/packages/<arch>/. The build keeps its debug information for
# tools/check-abi.sh; the packaged files are stripped.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

case "${1:-all}" in
amd64) arches=(amd64) ;;
armhf) arches=(armhf) ;;
all) arches=(amd64 armhf) ;;
*) echo "usage: $0 [amd64|armhf|all]" >&2; exit 2 ;;
esac
jobs=${KELO_PACKAGE_JOBS:-2}

# systemd and man-db: tools/check-packages.sh verifies kelo-terminal's unit (systemd-analyze,
# which looks up the unit's man page).
bash tools/install-deps.sh dpkg-dev fakeroot file lintian systemd man-db
log() { echo "make-packages: $*"; }
# shellcheck source=tools/package-build.sh
source tools/package-build.sh

# Reproducible dates (Debian changelog) from the commit the packages are built from.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || date +%s)
export SOURCE_DATE_EPOCH

# dpkg-shlibdeps as CPack calls it, with what this build adds: libkelo.so.1 of this very build
# (the QML plugin links it; its package is being made, so no installed package knows it) and, for
# armhf, the sysroot's libraries and the shlibs files of the Debian packages they came from.
write_shlibdeps_wrapper() {
    local build=$1 shlibs=$2; shift 2
    mkdir -p "$build/shlibdeps-bin"
    {
        echo '#!/bin/sh'
        printf 'exec /usr/bin/dpkg-shlibdeps -L%q -l%q' "$shlibs" "$root/$build"
        for dir in "$@"; do printf ' -l%q' "$dir"; done
        echo ' "$@"'
    } >"$build/shlibdeps-bin/dpkg-shlibdeps"
    chmod +x "$build/shlibdeps-bin/dpkg-shlibdeps"
}

# The shlibs lines of the Debian packages the armhf sysroot was unpacked from.
sysroot_shlibs() {
    local sysroot=$1 name version
    while read -r name version; do
        dpkg-deb --ctrl-tarfile "$sysroot.debs/${name}_${version//:/%3a}_armhf.deb" |
            tar -xOf - ./shlibs 2>/dev/null || true
    done <"$sysroot/.kelo-sysroot-packages"
}

build_arch() {
    local arch=$1 build=_build/pkg-$1 out=_build/packages/$1
    local sysroot_libs=() env_args=()
    log "=== $arch"
    if [ "$arch" = armhf ]; then
        bash tools/make-armhf-sysroot.sh _build/armhf-sysroot
        sysroot_libs=("$root/_build/armhf-sysroot/lib/arm-linux-gnueabihf" "$root/_build/armhf-sysroot/usr/lib/arm-linux-gnueabihf")
        env_args=(DEB_HOST_ARCH=armhf)
    fi
    configure_package_build "$arch" "$build"
    cmake --build "$build" --parallel "$jobs"

    local shlibs=$build/shlibs.local
    echo "libkelo 1 libkelo1 (>= $(kelo_version)-1)" >"$shlibs"
    [ "$arch" = armhf ] && sysroot_shlibs _build/armhf-sysroot >>"$shlibs"
    write_shlibdeps_wrapper "$build" "$root/$shlibs" "${sysroot_libs[@]}"
    rm -rf "$build/packages" "$out"
    (cd "$build" && env PATH="$root/$build/shlibdeps-bin:$PATH" "${env_args[@]}" cpack -G DEB >cpack.log 2>&1) ||
        { cat "$build/cpack.log"; exit 1; }
    mkdir -p "$out"
    cp "$build"/packages/*.deb "$out/"
    bash tools/check-packages.sh "$arch" "$out"
}

kelo_version() { sed -n 's/^project(kelo VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt; }

for arch in "${arches[@]}"; do
    build_arch "$arch"
done
for arch in "${arches[@]}"; do
    for deb in _build/packages/"$arch"/*.deb; do
        printf 'make-packages: %-48s %8s bytes\n' "$(basename "$deb")" "$(stat -c %s "$deb")"
    done
done
