#!/usr/bin/env bash
# The Windows driver as a DAW uses it, under wine64: the x86_64 DLL registered
# with regsvr32 in a fresh prefix, velmora-play.exe finding it under
# HKLM\SOFTWARE\ASIO and streaming 10 s of 48 kHz 24-bit stereo noise to the
# Linux velmora-target over the loopback address. The sink's WAV must hold
# exactly the samples velmora-play handed to the driver.
# Usage: stream.sh <asio_kestrane_w64.dll> <velmora-play.exe> <velmora-target> <velmora-play> <velmora-log>
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/wine-prefix.sh"

dll=$(readlink -f "$1")
play_exe=$(readlink -f "$2")
target=$(readlink -f "$3")
play=$(readlink -f "$4")
log=$(readlink -f "$5")
seconds=${VELMORA_WINE_STREAM_SECONDS:-10}
for file in "$dll" "$play_exe" "$target" "$play" "$log"; do
  [ -f "$file" ] || { echo "missing: $file"; exit 1; }
done

fresh_wine_prefix
work=$WINEPREFIX/work
mkdir -p "$work"
pids=()
end_run() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  end_wine_prefix
}
trap end_run EXIT

show() {  # show <file>: a file of the run, indented, for a failure's report
  [ -s "$1" ] && { echo "-- $(basename "$1"):"; sed 's/^/   /' "$1" | tail -${2:-40}; }
  return 0
}
fail() {
  echo "FAILED: $*"
  show "$work/play.out"
  show "$work/target.err" 20
  show "$work/driver.log" 60
  exit 1
}
windows_path() {  # a Linux path as a Windows program sees it (drive Z: is /)
  echo "Z:${1//\//\\}"
}
wait_for() {  # wait_for <file> <text> <pid>
  local tries=0
  until grep -q "$2" "$1" 2>/dev/null; do
    kill -0 "$3" 2>/dev/null || return 1
    tries=$((tries + 1))
    [ $tries -le 200 ] || return 1
    sleep 0.05
  done
}

# Installed as on Windows: the DLL in a folder of its own, registered.
install='C:\Program Files\KESTRANE Velmora\asio_kestrane_w64.dll'
mkdir -p "$(dirname "$(wine_unix_path "$install")")"
cp "$dll" "$(wine_unix_path "$install")"
wine_run regsvr32 /s "$install" || fail "regsvr32 of $install"

# The user's settings, where the driver looks for them: the target on the
# loopback address, 24-bit samples, the log on.
appdata=$(wine_run cmd /c 'echo %APPDATA%' | tr -d '\r')
settings=$(wine_unix_path "$appdata")/KESTRANE\ Velmora
mkdir -p "$settings"
printf 'TargetAddress=::1,19642\r\nInterLoopback=enable\r\nPCMRequest=24\r\nDebug=enable\r\n' >"$settings/setting.inf"

"$log" --file "$work/driver.log" 2>"$work/log.err" &
pids+=($!)
wait_for "$work/log.err" listening $! || fail "velmora-log didn't start: $(cat "$work/log.err")"

"$target" --loopback --name WineRig --sink "1,0,Wine out" --wav "$work/sink.wav" \
  --stats-json "$work/stats.json" >"$work/target.out" 2>"$work/target.err" &
target_pid=$!
pids+=($target_pid)
wait_for "$work/target.out" "^sink 1:" $target_pid || fail "velmora-target didn't start"

echo "velmora-play.exe: $seconds s of 48 kHz 24-bit stereo noise through the registered driver"
rc=0
wine_run "$play_exe" --name "KESTRANE Velmora" --rate 48000 --channels 2 --signal noise --seconds "$seconds" \
  --given "$(windows_path "$work/given.wav")" --json "$(windows_path "$work/play.json")" \
  >"$work/play.out" 2>&1 || rc=$?
tr -d '\r' <"$work/play.out" | grep -E '^(driver|origin|result|callbacks|sample type|format)' | sed 's/^/  /' || true
[ "$rc" -eq 0 ] || fail "velmora-play.exe ended with $rc"

# The target writes the stream's statistics at its end; a signal ends it.
kill -TERM $target_pid 2>/dev/null || true
wait $target_pid 2>/dev/null || true

tr -d '\r' <"$work/play.out" | grep -qE '^ +output 1 +Int24LSB' || fail "the driver didn't give two 24-bit outputs"
[ -s "$work/sink.wav" ] || fail "nothing reached the sink"
verdict=$("$play" --compare "$work/given.wav" "$work/sink.wav") || fail "$verdict"
echo "$verdict"
show "$work/stats.json"
