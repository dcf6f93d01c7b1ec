#!/usr/bin/env bash
# Checks the Debian packages of one architecture (made by tools/make-packages.sh):
#   tools/check-packages.sh <arch> <dir-with-the-debs>
# - each package holds its own files only, each where it belongs, and the ones it must hold;
# - version and architecture, the relations between the packages, the Qt runtime dependencies
#   found by dpkg-shlibdeps, and libkelo1's shlibs entry;
# - kelo-terminal's systemd unit: systemd-analyze verify against the unpacked package (any
#   message fails, unknown keys included), its exposure level, its conffile and maintainer scripts,
#   no build-tree path in its binary;
# - lintian: any error or warning fails (the few justified ones are overridden in the package,
#   see docs/packaging.md).
set -euo pipefail
arch=$1; dir=$2
version=$(sed -n 's/^project(kelo VERSION \([0-9.]*\).*/\1/p' "$(dirname "$0")/../CMakeLists.txt")-1
failures=0
fail() { echo "check-packages: $arch: $*" >&2; failures=$((failures + 1)); }

doc='\./usr/share/doc/%s/(copyright|changelog\.Debian\.gz)|\./usr/share/lintian/overrides/%s'
declare -A allowed=(
    [libkelo1]='\./usr/lib/libkelo\.so\.1(\.[0-9]+\.[0-9]+)?'
    [libkelo-dev]='\./usr/include/kelo/[a-z0-9_]+\.h|\./usr/lib/libkelo\.so|\./usr/lib/cmake/Kelo/Kelo[A-Za-z-]*\.cmake|\./usr/lib/pkgconfig/kelo\.pc'
    [kelo-cloud]='\./usr/bin/kelo-cloud|\./usr/share/man/man1/kelo-cloud\.1\.gz'
    [qml-module-kelo]='\./usr/lib/[a-z0-9_-]+/qt5/qml/Kelo/(libkeloqml\.so|qmldir)'
    [kelo-terminal]='\./usr/bin/kelo-terminal|\./usr/share/man/man1/kelo-terminal\.1\.gz|\./lib/systemd/system/kelo-terminal\.service|\./etc/default/kelo-terminal'
)
declare -A required=(
    [libkelo1]='./usr/lib/libkelo.so.1'
    [libkelo-dev]='./usr/include/kelo/kelosdk.h ./usr/include/kelo/kelo_export.h ./usr/lib/libkelo.so ./usr/lib/cmake/Kelo/KeloConfig.cmake ./usr/lib/cmake/Kelo/KeloTargets.cmake ./usr/lib/pkgconfig/kelo.pc'
    [kelo-cloud]='./usr/bin/kelo-cloud ./usr/share/man/man1/kelo-cloud.1.gz'
    [qml-module-kelo]=''
    [kelo-terminal]='./usr/bin/kelo-terminal ./usr/share/man/man1/kelo-terminal.1.gz ./lib/systemd/system/kelo-terminal.service ./etc/default/kelo-terminal'
)
# Dependencies (';'-separated) that must come from dpkg-shlibdeps, with a minimal version, or from
# the package's own list.
exact="libkelo1 (= $version)"
declare -A depends=(
    [libkelo1]='libqt5core5a (>= ;libqt5network5 (>= ;libqt5websockets5 (>= ;libc6 (>= ;libstdc++6'
    [libkelo-dev]="$exact;qtbase5-dev (>= 5.15);libqt5websockets5-dev (>= 5.15)"
    [kelo-cloud]='libqt5core5a (>= ;libssl3 (>= '
    [qml-module-kelo]="$exact;libqt5qml5 (>= ;libqt5quick5 (>= "
    [kelo-terminal]="qml-module-kelo (= $version);$exact;qml-module-qtquick-controls2;qtvirtualkeyboard-plugin;adduser;libqt5quick5 (>= ;libqt5gui5 (>= "
)

declare -A seen=()
for deb in "$dir"/*.deb; do
    pkg=$(dpkg-deb -f "$deb" Package)
    seen[$pkg]=1
    [ -n "${allowed[$pkg]+x}" ] || { fail "unexpected package $pkg"; continue; }
    [ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "$pkg: version $(dpkg-deb -f "$deb" Version), expected $version"
    [ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || fail "$pkg: architecture $(dpkg-deb -f "$deb" Architecture)"
    # shellcheck disable=SC2059
    pattern="^(${allowed[$pkg]}|$(printf "$doc" "$pkg" "$pkg"))\$"
    files=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $6 }')
    while IFS= read -r file; do
        [[ "$file" =~ $pattern ]] || fail "$pkg: $file does not belong in this package"
    done <<<"$files"
    for file in ${required[$pkg]} ./usr/share/doc/"$pkg"/copyright ./usr/share/doc/"$pkg"/changelog.Debian.gz; do
        grep -qxF "$file" <<<"$files" || fail "$pkg: $file is missing"
    done
    deps=$(dpkg-deb -f "$deb" Depends)
    IFS=';' read -r -a wanted <<<"${depends[$pkg]}"
    for dep in "${wanted[@]}"; do
        [[ ", $deps" == *", $dep"* ]] || fail "$pkg: no dependency '$dep...' in: $deps"
    done
    echo "check-packages: $arch: $pkg: $(grep -c . <<<"$files") files; Depends: $deps"
done
for pkg in libkelo1 libkelo-dev kelo-cloud; do
    [ -n "${seen[$pkg]+x}" ] || fail "package $pkg was not made"
done
# The terminal is built with the QML module: one without the other is a broken build.
[ -n "${seen[qml-module-kelo]+x}" ] && [ -z "${seen[kelo-terminal]+x}" ] && fail "package kelo-terminal was not made"

# kelo-terminal's kiosk unit, checked in a temporary root: the package unpacked over a copy of
# this machine's units (systemd-analyze resolves the targets the unit names there), so that
# ExecStart's binary, the EnvironmentFile and the man page of Documentation= are the packaged
# ones. No systemd needs to run. verify exits 0 on unknown keys and bad values (it only warns), so
# any message fails. The exposure level (systemd-analyze security, 0 best, 10 worst) may not
# rise above 2.0: a hardening directive dropped or weakened fails.
check_unit() {
    local deb=$1 root=$unit_root unit=/lib/systemd/system/kelo-terminal.service out status
    mkdir -p "$root/lib/systemd/system"
    cp -a /lib/systemd/system/. "$root/lib/systemd/system/"
    dpkg-deb -x "$deb" "$root"
    status=0
    out=$(MANPATH="$root/usr/share/man" systemd-analyze verify --root="$root" "$unit" 2>&1) || status=$?
    if [ "$status" -ne 0 ] || [ -n "$out" ]; then
        fail "kelo-terminal: systemd-analyze verify (status $status): $out"
    fi
    status=0
    out=$(systemd-analyze security --offline=true --threshold=20 --root="$root" "$unit" 2>&1) || status=$?
    [ "$status" -eq 0 ] || fail "kelo-terminal: unit exposure above 2.0: $(tail -n 1 <<<"$out")"
    echo "check-packages: $arch: kelo-terminal: unit checked; $(tail -n 1 <<<"$out" | sed 's/^→ //')"
    # What the unit and the maintainer scripts rely on.
    local key
    for key in 'User=kelo-terminal' 'EnvironmentFile=/etc/default/kelo-terminal' 'Restart=always' \
        'RestartPreventExitStatus=2' \
        'SupplementaryGroups=video render input'; do
        grep -qxF "$key" "$root$unit" || fail "kelo-terminal: the unit has no line $key"
    done
    # shellcheck disable=SC2016 # systemd's ${...}, literally
    grep -q '^ExecStart=/usr/bin/kelo-terminal --server ${KELO_SERVER_HOST} --ca ${KELO_CA} ' "$root$unit" ||
        fail "kelo-terminal: ExecStart does not pass the server and the CA from the settings"
    # The installed terminal loads the module Kelo from qml-module-kelo: a path into this build
    # tree compiled into it (QStringLiteral: UTF-16) would load the build's module instead.
    local tree
    tree=$(cd "$(dirname "$0")/.." && pwd)
    if { strings -a "$root/usr/bin/kelo-terminal"; strings -a -el "$root/usr/bin/kelo-terminal"; } |
        grep -qF "$tree/"; then
        fail "kelo-terminal: the binary holds a path into the build tree $tree"
    fi
    local control
    control=$(dpkg-deb --ctrl-tarfile "$deb" | tar -tf - | sed 's|^\./||')
    for key in conffiles postinst prerm postrm; do
        grep -qxF "$key" <<<"$control" || fail "kelo-terminal: no $key in the control archive"
    done
    [ "$(dpkg-deb --ctrl-tarfile "$deb" | tar -xOf - ./conffiles)" = /etc/default/kelo-terminal ] ||
        fail "kelo-terminal: /etc/default/kelo-terminal is not its only conffile"
}
unit_root=$(mktemp -d)
trap 'rm -rf "$unit_root"' EXIT
for deb in "$dir"/kelo-terminal_*.deb; do
    if [ -e "$deb" ]; then check_unit "$deb"; fi
done
shlibs=$(dpkg-deb --ctrl-tarfile "$dir"/libkelo1_*.deb | tar -xOf - ./shlibs)
[ "$shlibs" = "libkelo 1 libkelo1 (>= $version)" ] || fail "libkelo1: shlibs is '$shlibs'"

echo "check-packages: $arch: lintian"
lintian --fail-on error,warning --display-level '>=warning' "$dir"/*.deb || fail "lintian reported errors or warnings"
[ "$failures" -eq 0 ] || { echo "check-packages: $arch: $failures problem(s)" >&2; exit 1; }
echo "check-packages: $arch: all packages pass"
