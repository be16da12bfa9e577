#!/usr/bin/env bash
# Runs a Windows test executable under wine64 in the prefix that ./run test
# made fresh for this run (build/w64/wineprefix).
set -euo pipefail
exe=$1; shift
build_dir=$(cd "$(dirname "$exe")/.." && pwd)
export WINEPREFIX=${WINEPREFIX:-$build_dir/wineprefix}
export WINEDEBUG=-all
wine=/usr/lib/wine/wine64
[ -x "$wine" ] || wine=$(command -v wine64 || command -v wine)
exec "$wine" "$exe" "$@"
