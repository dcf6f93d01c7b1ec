#!/usr/bin/env bash
# Builds an armhf sysroot for cross-building libkelo and running its tests under qemu-arm:
#   tools/make-armhf-sysroot.sh <dir>
# Installs the host tools if missing (cross g++, qemu-user, dpkg-dev), downloads the armhf
# packages of Qt 5, OpenSSL and their runtime dependency closure from Debian and unpacks each
# with dpkg-deb -x into <dir>. Nothing armhf is installed on the host and dpkg's architecture list
# stays as it is: the host's own packages are untouched. Quick when <dir> already holds a sysroot
# made from the same package list. Run as root (or with sudo).
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 <sysroot-dir>" >&2
    exit 2
fi
sysroot=$(realpath -m "$1")

# What the library, the cloud simulator and the tests build against.
roots=(
    libc6-dev
    libqt5core5a libqt5network5 libqt5websockets5 libqt5test5 libqt5gui5
    qtbase5-dev libqt5websockets5-dev
    libssl3 libssl-dev
    # The QML module Kelo and kelo-terminal (built, not run, for armhf).
    libqt5qml5 libqt5quick5 qtdeclarative5-dev libqrencode-dev
)
host_tools=(g++-arm-linux-gnueabihf qemu-user dpkg-dev)

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
apt_opts=(-o DPkg::Lock::Timeout=600 -o Acquire::Retries=2)
arch_opts=(-o "APT::Architectures=$(dpkg --print-architecture),armhf")
export DEBIAN_FRONTEND=noninteractive

stamp="$sysroot/.kelo-sysroot"
stamp_key="roots: ${roots[*]}; script: $(sha256sum "$0" | cut -c1-16)"

log() { echo "make-armhf-sysroot: $*"; }

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

apt_update() {
    # A failing list (e.g. a security mirror's armhf list) is tolerated: the main list is enough,
    # and the checks after the update tell whether what is needed can be had.
    $SUDO apt-get "${apt_opts[@]}" "$@" update -qq || log "apt-get update reported errors; going on with the lists it got"
}

ensure_host_tools() {
    local missing=() p
    for p in "${host_tools[@]}"; do installed "$p" || missing+=("$p"); done
    [ ${#missing[@]} -eq 0 ] && return
    log "installing host tools: ${missing[*]}"
    apt_update
    $SUDO apt-get "${apt_opts[@]}" install -y -qq --no-install-recommends "${missing[@]}"
}

# apt is told about armhf per call rather than by dpkg --add-architecture: a foreign architecture
# in dpkg's configuration makes every later apt-get update on this machine fetch its lists too, and
# fail as a whole when one of them is broken (as the security mirror's armhf list has been seen to
# be), which would break the native dependency install.
ensure_armhf_lists() {
    if ! apt-cache "${arch_opts[@]}" show libc6:armhf >/dev/null 2>&1; then
        apt_update "${arch_opts[@]}"
        apt-cache "${arch_opts[@]}" show libc6:armhf >/dev/null 2>&1 ||
            { log "no armhf package list after apt-get update"; exit 1; }
    fi
}

# The armhf dependency closure of the roots, as "name version" lines, resolved in one pass over
# apt's package lists (each apt-cache call reads them all, so one call it is). Each dependency
# takes its first alternative that exists for armhf, a virtual one its first armhf provider. Only
# "Multi-Arch: same" packages (libraries and their headers) belong in a sysroot: dependencies on
# tools (qtbase5-dev-tools, perl, fontconfig, ...) are met by the host's own.
dependency_closure() {
    apt-cache "${arch_opts[@]}" dumpavail | awk -v roots="${roots[*]}" '
        function field(line) { sub(/^[^:]*: */, "", line); return line }
        function pick(group,   alts, i, n, a) {
            n = split(group, alts, "|")
            for (i = 1; i <= n; i++) {
                a = alts[i]
                gsub(/\([^)]*\)|\[[^]]*\]|<[^>]*>|:any|:native|[ \t]/, "", a)
                if (a in version) return a
                if (a in provider) return provider[a]
            }
            return ""
        }
        /^Package:/ { pkg = field($0); arch = ""; ma = ""; deps = ""; provides = ""; ver = "" }
        /^Architecture:/ { arch = field($0) }
        /^Version:/ { ver = field($0) }
        /^Multi-Arch:/ { ma = field($0) }
        /^(Pre-)?Depends:/ { deps = deps (deps == "" ? "" : ",") field($0) }
        /^Provides:/ { provides = field($0) }
        /^$/ {
            if (arch == "armhf") {
                version[pkg] = ver; same[pkg] = (ma == "same"); depends[pkg] = deps
                n = split(provides, list, ",")
                for (i = 1; i <= n; i++) {
                    v = list[i]; gsub(/\([^)]*\)|[ \t]/, "", v)
                    if (!(v in provider)) provider[v] = pkg
                }
            }
            arch = ""
        }
        END {
            n = split(roots, queue, " ")
            for (i = 1; i <= n; i++) {
                if (!(queue[i] in version)) { print "no armhf package " queue[i] > "/dev/stderr"; exit 1 }
                chosen[queue[i]] = 1
            }
            for (head = 1; head <= n; head++) {
                m = split(depends[queue[head]], groups, ",")
                for (j = 1; j <= m; j++) {
                    p = pick(groups[j])
                    if (p == "" || (p in chosen) || !same[p]) continue
                    chosen[p] = 1; queue[++n] = p
                }
            }
            for (p in chosen) print p, version[p]
        }
    ' | sort
}

# Absolute symlinks inside the sysroot would point into the host: make them relative.
fix_absolute_symlinks() {
    local link target
    while IFS= read -r -d '' link; do
        target=$(readlink "$link")
        case "$target" in
        /*) ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link" ;;
        esac
    done < <(find "$sysroot" -type l -print0)
}

# The Boost headers are the same on every architecture: the host's serve (the link stays absolute
# on purpose, and is made after the symlink fix-up).
link_host_boost() {
    if [ ! -d /usr/include/boost ]; then
        log "installing the host's Boost headers"
        $SUDO apt-get "${apt_opts[@]}" install -y -qq --no-install-recommends libboost-dev
    fi
    ln -sfn /usr/include/boost "$sysroot/usr/include/boost"
}

ensure_host_tools
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$stamp_key" ]; then
    [ -e "$sysroot/usr/include/boost" ] || link_host_boost
    log "sysroot up to date: $sysroot"
    exit 0
fi
ensure_armhf_lists

mapfile -t packages < <(dependency_closure)
log "${#packages[@]} armhf packages in the closure"

# Downloads are kept beside the sysroot, so that remaking it needs no network.
debs="$sysroot.debs"
mkdir -p "$debs"
files=()
to_fetch=()
for line in "${packages[@]}"; do
    read -r name version <<<"$line"
    file="$debs/${name}_${version//:/%3a}_armhf.deb"
    files+=("$file")
    [ -f "$file" ] || to_fetch+=("$name:armhf=$version")
done
if [ ${#to_fetch[@]} -gt 0 ]; then
    log "downloading ${#to_fetch[@]} packages"
    # The download directory belongs to the caller, not to apt's sandbox user.
    (cd "$debs" && apt-get "${apt_opts[@]}" "${arch_opts[@]}" -o APT::Sandbox::User=root download -qq "${to_fetch[@]}")
fi

rm -rf "$sysroot"
mkdir -p "$sysroot"
for file in "${files[@]}"; do
    dpkg-deb -x "$file" "$sysroot"
done
fix_absolute_symlinks
link_host_boost
printf '%s\n' "${packages[@]}" >"$sysroot/.kelo-sysroot-packages"
echo "$stamp_key" >"$stamp"
log "sysroot ready: $sysroot ($(du -sh "$sysroot" | cut -f1))"
