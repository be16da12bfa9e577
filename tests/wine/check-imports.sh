#!/usr/bin/env bash
# Checks that a driver DLL imports from Windows system libraries only: the
# C++ and threads runtimes are linked in, and the packet library is loaded at
# run time, so that a host can load the DLL from any folder.
# Usage: check-imports.sh <objdump> <dll>
set -euo pipefail
objdump=$1
dll=$2
[ -f "$dll" ] || { echo "no DLL at $dll"; exit 1; }
system="advapi32.dll iphlpapi.dll kernel32.dll msvcrt.dll ole32.dll oleaut32.dll shell32.dll user32.dll winmm.dll ws2_32.dll"
imports=$("$objdump" -p "$dll" | awk '/DLL Name:/ {print tolower($3)}' | sort -u | xargs)
[ -n "$imports" ] || { echo "no import table read from $dll"; exit 1; }
foreign=""
for name in $imports; do
  [[ " $system " == *" $name "* ]] || foreign="$foreign $name"
done
if [ -n "$foreign" ]; then
  echo "$(basename "$dll") imports from libraries that aren't part of Windows:$foreign"
  exit 1
fi
echo "imports of $(basename "$dll"): $imports"
