#!/usr/bin/env bash
# Both Qt majors installed into one prefix: the Qt 5 build first, then the Qt 6 build. Each package
# is checked by check-install.sh (find_package and pkg-config hosts built, linked to their own
# major only, and run against a kelo-cloud); the two installs share no file, and the Qt 6 install
# leaves every file of the Qt 5 one as it was.
# Usage: check-side-by-side.sh <Qt 5 build dir> <Qt 6 build dir> <kelo-cloud>
set -euo pipefail
qt5_build=$1; qt6_build=$2; cloud=$3
here=$(cd "$(dirname "$0")" && pwd)
prefix=$(mktemp -d); trap 'rm -rf "$prefix"' EXIT

key_of() { sed -n 's/^KELO_SECRET_KEY:STRING=//p' "$1/CMakeCache.txt"; }

KELO_INSTALL_PREFIX=$prefix KELO_CLOUD_KEY=$(key_of "$qt5_build") \
    bash "$here/check-install.sh" "$qt5_build" "$here" "$cloud" 5
(cd "$prefix" && find . -type f -print0 | sort -z | xargs -0 sha256sum) > "$prefix.qt5"
trap 'rm -rf "$prefix" "$prefix.qt5"' EXIT

KELO_INSTALL_PREFIX=$prefix KELO_CLOUD_KEY=$(key_of "$qt6_build") \
    bash "$here/check-install.sh" "$qt6_build" "$here" "$cloud" 6

shared=$(comm -12 <(sort "$qt5_build/install_manifest.txt") <(sort "$qt6_build/install_manifest.txt"))
[ -z "$shared" ] || { echo "installed by both majors: $shared" >&2; exit 1; }
(cd "$prefix" && sha256sum --quiet -c "$prefix.qt5") || { echo "the Qt 6 install changed Qt 5 files" >&2; exit 1; }
echo "side by side in one prefix: $(wc -l < "$qt5_build/install_manifest.txt") Qt 5 files and" \
    "$(wc -l < "$qt6_build/install_manifest.txt") Qt 6 files, none shared, none changed"
