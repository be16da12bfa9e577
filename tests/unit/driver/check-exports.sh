#!/usr/bin/env bash
# Checks that a driver DLL exports exactly the COM entry points and the
# finder, by name.
# Usage: check-exports.sh <objdump> <dll>
set -euo pipefail
objdump=$1
dll=$2
expected="DllCanUnloadNow DllGetClassObject DllMain DllRegisterServer DllUnregisterServer DllVelmorafind"
actual=$("$objdump" -p "$dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | awk '/\[ *[0-9]+\]/ {print $NF}' | sort | xargs)
if [ "$actual" != "$expected" ]; then
  echo "exports of $dll: '$actual'"
  echo "expected:         '$expected'"
  exit 1
fi
echo "exports of $(basename "$dll"): $actual"
