#!/usr/bin/env bash
# The library's layers read one way. Each folder may include from itself and from the folders
# listed for it here, never from one above it:
#   global/     what the whole library shares: limits, logging categories, the Qt 5/6 bridge
#   protocol/   the cloud's messages             (global/)
#   http/       requests and their pool          (global/)
#   ws/         the notification channel         (global/, protocol/, http/)
#   catalogue/  the menu and its pictures        (global/, protocol/, http/)
#   sdk/        the facade, Kelosdk              (all of the above)
#   qml/        the Qt Quick module, beside the library: its public headers only (sdk/,
#               protocol/, http/, ws/, catalogue/ as installed), never global/
# An include is resolved by its file name against the files of these folders (the build puts
# them all on the include path, so the compiler alone would not notice a wrong one). Headers
# that live elsewhere (Qt, generated ones) are not checked.
# Usage: tools/check-layers.sh [ROOT]   exit 1 and one line per include against the order.
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root"

declare -A allowed=(
    [global]="global"
    [protocol]="global protocol"
    [http]="global http"
    [ws]="global protocol http ws"
    [catalogue]="global protocol http catalogue"
    [sdk]="global protocol http ws catalogue sdk"
    [qml]="protocol http ws catalogue sdk qml"
)
layers=(global protocol http ws catalogue sdk qml)

declare -A home # file name -> the folder it lives in
for layer in "${layers[@]}"; do
    [ -d "$layer" ] || continue
    while IFS= read -r file; do
        home[$(basename "$file")]=$layer
    done < <(find "$layer" -maxdepth 1 -type f \( -name '*.h' -o -name '*.cpp' \))
done

bad=0
for layer in "${layers[@]}"; do
    [ -d "$layer" ] || continue
    while IFS= read -r file; do
        while IFS=: read -r line name; do
            target=${home[$(basename "$name")]:-}
            [ -n "$target" ] || continue
            if [[ " ${allowed[$layer]} " != *" $target "* ]]; then
                echo "$file:$line: includes $name from $target/, which $layer/ may not use (allowed: ${allowed[$layer]})"
                bad=1
            fi
        done < <(grep -n '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$file" |
            sed 's/^\([0-9]*\):[^"]*"\([^"]*\)".*/\1:\2/')
    done < <(find "$layer" -maxdepth 1 -type f \( -name '*.h' -o -name '*.cpp' \) | sort)
done
if [ "$bad" -eq 0 ]; then
    echo "check-layers: every include follows the layers' order"
fi
exit "$bad"
