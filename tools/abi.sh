#!/usr/bin/env bash
# The ABI guard of libkelo.so.1:
#   tools/abi.sh check             build the library as the packages ship it (amd64) and compare
#                                  it with the baseline (abidiff) and the symbol list
#   tools/abi.sh update            rebuild, then rewrite both abi/libkelo.so.1.abi and
#                                  abi/libkelo.so.1.symbols
#   tools/abi.sh update-baseline   rebuild, then rewrite abi/libkelo.so.1.abi only
#   tools/abi.sh update-symbols    rebuild, then rewrite abi/libkelo.so.1.symbols only
#   tools/abi.sh symbols <lib> [<nm>]   compare one built library with the symbol list (ctest)
# The library is built in _build/pkg-amd64, exactly as tools/make-packages.sh builds it (Release
# with Debian's flags and -g; see tools/package-build.sh). Only the public headers count: types
# that no installed header defines (KelosdkPrivate behind Kelosdk's d pointer, ...) are left out.
# A deliberate break: docs/packaging.md, "Breaking the ABI on purpose".
set -euo pipefail
cd "$(dirname "$0")/.."

baseline=abi/libkelo.so.1.abi
symbols=abi/libkelo.so.1.symbols
suppressions=abi/libkelo.so.1.abignore
build=_build/pkg-amd64
public_headers=(sdk/kelosdk.h protocol/libcmn.h http/httpbase.h http/httpbase2.h http/httpparams.h
    http/qmyquery.h http/httptool.h ws/wsclient.h catalogue/cdownloadfileman.h)

log() { echo "abi: $*"; }

build_library() {
    bash tools/install-deps.sh dpkg-dev abigail-tools >/dev/null
    # shellcheck source=tools/package-build.sh
    source tools/package-build.sh
    configure_package_build amd64 "$build"
    cmake --build "$build" --parallel "${KELO_PACKAGE_JOBS:-2}" --target kelo >/dev/null
}

# The exported symbols, one mangled name a line, sorted.
exported() { "${2:-nm}" -D --defined-only "$1" | awk '{ print $3 }' | LC_ALL=C sort -u; }

# The scopes of the public API: the classes the public headers export, and the namespaces in which
# they export functions.
public_scopes() {
    awk '
        /^class KELO_EXPORT [A-Za-z_0-9]+/ { print $3 }
        /^namespace [A-Za-z_0-9]+ *\{/ { ns = $2 }
        /^\}/ { ns = "" }
        /^KELO_EXPORT / && ns != "" { print ns }
    ' "${public_headers[@]}" | sort -u
}

# Every exported symbol belongs to a public class or namespace: a member, its vtable or type info,
# or a thunk into it. Nothing else (a Qt template instance, a helper) may leak.
check_policy() {
    local lib=$1 nm=${2:-nm} scopes bad
    scopes=$(public_scopes | paste -sd '|')
    bad=$(exported "$lib" "$nm" | c++filt |
        grep -Ev "^((non-virtual thunk to |virtual thunk to |vtable for |typeinfo for |typeinfo name for )?($scopes))(::|$)" || true)
    if [ -n "$bad" ]; then
        log "exported symbols outside the public classes ($scopes):"
        echo "$bad" | sed 's/^/  /'
        return 1
    fi
}

check_symbols() {
    local lib=$1 nm=${2:-nm} status=0
    check_policy "$lib" "$nm" || status=1
    if ! diff -u "$symbols" <(exported "$lib" "$nm") >"$build.symbols.diff" 2>&1; then
        log "the exported symbols of $lib differ from $symbols (- listed, + exported):"
        grep '^[-+][^-+]' "$build.symbols.diff" | while read -r line; do
            echo "  ${line:0:1} ${line:1}  $(c++filt <<<"${line:1}")"
        done
        log "if the change is intended: bash tools/abi.sh update-symbols, and say so in CHANGELOG.md"
        status=1
    fi
    rm -f "$build.symbols.diff"
    [ $status -eq 0 ] && log "exported symbols: $(wc -l <"$symbols") as listed, all in the public classes"
    return $status
}

# abidiff's exit status is a bit field: 1 error, 2 usage error, 4 ABI change, 8 incompatible ABI
# change. Added functions and variables are compatible and are not even reported
# (--no-added-syms), so any change that is left fails the check, and so does bit 8 on its own.
check_baseline() {
    local lib=$1 status=0
    abidiff --no-added-syms --headers-dir2 "$build/include/kelo" --suppressions "$suppressions" \
        "$baseline" "$lib" >"$build/abidiff.txt" 2>&1 || status=$?
    if [ $status -ne 0 ]; then
        cat "$build/abidiff.txt"
        local what="changed"
        [ $((status & 3)) -ne 0 ] && what="could not be compared (abidiff error)"
        [ $((status & 8)) -ne 0 ] && what="changed incompatibly"
        log "FAIL: the ABI of libkelo.so.1 $what (abidiff exit status $status)"
        log "a deliberate break: docs/packaging.md, \"Breaking the ABI on purpose\""
        return 1
    fi
    log "ABI of libkelo.so.1 compatible with $baseline"
}

write_baseline() {
    abidw --no-corpus-path --no-comp-dir-path --type-id-style hash \
        --headers-dir "$build/include/kelo" --drop-private-types --out-file "$baseline" "$1"
    log "wrote $baseline"
}

case "${1:-}" in
check)
    build_library
    lib=$build/libkelo.so.1
    status=0
    check_baseline "$lib" || status=1
    check_symbols "$lib" || status=1
    exit $status
    ;;
update | update-baseline | update-symbols)
    build_library
    lib=$build/libkelo.so.1
    if [ "$1" != update-symbols ]; then write_baseline "$lib"; fi
    if [ "$1" != update-baseline ]; then
        check_policy "$lib"
        exported "$lib" >"$symbols"
        log "wrote $symbols ($(wc -l <"$symbols") symbols)"
    fi
    ;;
symbols)
    [ $# -ge 2 ] || { echo "usage: $0 symbols <libkelo.so.1> [<nm>]" >&2; exit 2; }
    build=$(dirname "$2")/abi-check
    check_symbols "$2" "${3:-nm}"
    ;;
*)
    echo "usage: $0 check | update | update-baseline | update-symbols | symbols <lib> [<nm>]" >&2
    exit 2
    ;;
esac
