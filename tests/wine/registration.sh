#!/usr/bin/env bash
# Registers the x86_64 driver DLL with regsvr32 in a fresh Wine prefix and
# reads the registry back: the class key, its in-process server entry, the
# ASIO driver key; registering twice, from a second folder, with the path in
# other case; unregistering twice. Usage: registration.sh <asio_kestrane_w64.dll>
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/wine-prefix.sh"

dll=$(readlink -f "$1")
[ -f "$dll" ] || { echo "no driver DLL at $1"; exit 1; }

clsid='{2D388F1A-9F7B-4C34-88F2-337E95484C68}'
class_key="HKCR\\CLSID\\$clsid"
server_key="$class_key\\InprocServer32"
driver_key='HKLM\SOFTWARE\ASIO\KESTRANE Velmora'

fresh_wine_prefix

# Two install folders; the first in mixed case and with a blank, as under
# Program Files.
first='C:\Program Files\KESTRANE Velmora\asio_kestrane_w64.dll'
second='C:\Velmora\Second\asio_kestrane_w64.dll'
for path in "$first" "$second"; do
  unix=$(wine_unix_path "$path")
  mkdir -p "$(dirname "$unix")"
  cp "$dll" "$unix"
done
lower() { tr '[:upper:]' '[:lower:]' <<<"$1"; }

failures=0
check() {  # check <what> <expected> <actual>
  if [ "$2" == "$3" ]; then
    echo "ok: $1"
  else
    echo "FAILED: $1: expected '$2', found '$3'"
    failures=$((failures + 1))
  fi
}

# The string value <name> of <key> ("" for the default value), or <missing>.
value() {
  local select=(/v "$2")
  [ -n "$2" ] || select=(/ve)
  wine_run reg query "$1" "${select[@]}" 2>/dev/null | tr -d '\r' |
    awk -F'    ' '$3 == "REG_SZ" { print $4; found = 1 } END { if (!found) print "<missing>" }'
}
exists() {
  if wine_run reg query "$1" >/dev/null 2>&1; then echo yes; else echo no; fi
}
regsvr32() {
  local rc=0
  wine_run regsvr32 /s "$@" || rc=$?
  echo "$rc"
}
set_value() {  # set_value <key> <name or ""> <text>
  local select=(/v "$2")
  [ -n "$2" ] || select=(/ve)
  wine_run reg add "$1" "${select[@]}" /t REG_SZ /d "$3" /f >/dev/null
}
expect_registered_from() {
  check "$1: class name" "KESTRANE Velmora" "$(value "$class_key" "")"
  check "$1: server path in lower case" "$(lower "$2")" "$(value "$server_key" "")"
  check "$1: threading model" "Apartment" "$(value "$server_key" ThreadingModel)"
  check "$1: driver CLSID" "$clsid" "$(value "$driver_key" CLSID)"
  check "$1: driver description" "KESTRANE Velmora" "$(value "$driver_key" Description)"
}

check "register: regsvr32 succeeds" 0 "$(regsvr32 "$first")"
expect_registered_from register "$first"

# Again from the same folder, the stored path in upper case: the class key
# stays as it is (markers and case), the driver key is made anew.
set_value "$server_key" "" "$(tr '[:lower:]' '[:upper:]' <<<"$first")"
set_value "$class_key" Marker kept
set_value "$driver_key" Marker dropped
check "register twice: regsvr32 succeeds" 0 "$(regsvr32 "$first")"
check "register twice: class key untouched" kept "$(value "$class_key" Marker)"
check "register twice: path compared without case" "$(tr '[:lower:]' '[:upper:]' <<<"$first")" \
  "$(value "$server_key" "")"
check "register twice: driver key renewed" "<missing>" "$(value "$driver_key" Marker)"
check "register twice: driver CLSID" "$clsid" "$(value "$driver_key" CLSID)"

# From a second folder the class key is replaced whole.
check "second folder: regsvr32 succeeds" 0 "$(regsvr32 "$second")"
expect_registered_from "second folder" "$second"
check "second folder: old class key gone" "<missing>" "$(value "$class_key" Marker)"

# Unregistering removes both keys, leaves SOFTWARE\ASIO and other drivers;
# a second time finds nothing and answers the same.
set_value 'HKLM\SOFTWARE\ASIO\Other Driver' CLSID '{00000000-0000-0000-0000-000000000001}'
for round in 1 2; do
  check "unregister $round: regsvr32 succeeds" 0 "$(regsvr32 /u "$second")"
  check "unregister $round: class key gone" no "$(exists "$class_key")"
  check "unregister $round: driver key gone" no "$(exists "$driver_key")"
  check "unregister $round: ASIO key kept" yes "$(exists 'HKLM\SOFTWARE\ASIO')"
  check "unregister $round: other driver kept" yes "$(exists 'HKLM\SOFTWARE\ASIO\Other Driver')"
done

[ "$failures" -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
echo "registration: all checks passed"
