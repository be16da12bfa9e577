#!/usr/bin/env bash
# The Windows driver as a DAW uses it, under wine64: the x86_64 DLL registered
# with regsvr32 in a fresh prefix, velmora-play.exe finding it under
# HKLM\SOFTWARE\ASIO and streaming 10 s of 48 kHz 24-bit stereo noise to the
# Linux velmora-target over the loopback address. The sink's WAV must hold
# exactly the samples velmora-play handed to the driver.
# Usage: stream.sh <asio_kestrane_w64.dll> <velmora-play.exe> <velmora-target> <velmora-play> <velmora-log>
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

# A network namespace of its own where root may make one: the fixed ports are
# then free whatever else runs on the machine.
if [ -z "${VELMORA_WINE_NETNS:-}" ] && command -v ip >/dev/null && unshare -n true 2>/dev/null; then
  exec env VELMORA_WINE_NETNS=1 unshare -n bash -c 'ip link set lo up && exec bash "$0" "$@"' "$0" "$@"
fi
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
  # VELMORA_WINE_KEEP=DIR keeps the run's files (logs, WAVs, statistics).
  [ -z "${VELMORA_WINE_KEEP:-}" ] || cp -r "$work" "$VELMORA_WINE_KEEP"
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
said() {  # said <file> <text>: the program writing <file> says <text> within 10 s
  timeout 10 sh -c 'until grep -q "$1" "$0" 2>/dev/null; do sleep 0.05; done' "$1" "$2"
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
said "$work/log.err" listening || fail "velmora-log didn't start: $(cat "$work/log.err")"

"$target" --loopback --name WineRig --sink "1,0,Wine out" --wav "$work/sink.wav" \
  --stats-json "$work/stats.json" >"$work/target.out" 2>"$work/target.err" &
target_pid=$!
pids+=($target_pid)
said "$work/target.out" "^sink 1:" || fail "velmora-target didn't start"

echo "velmora-play.exe: $seconds s of 48 kHz 24-bit stereo noise through the registered driver"
rc=0
wine_run_realtime "$play_exe" --name "KESTRANE Velmora" --rate 48000 --channels 2 --signal noise --seconds "$seconds" \
  --given "$(windows_path "$work/given.wav")" --json "$(windows_path "$work/play.json")" \
  >"$work/play.out" 2>&1 || rc=$?
tr -d '\r' <"$work/play.out" | grep -E '^(driver|origin|result|callbacks|sample type|format)' | sed 's/^/  /' || true
[ "$rc" -eq 0 ] || fail "velmora-play.exe ended with $rc"

# The target writes the stream's statistics at its end; a signal ends it.
kill -TERM $target_pid 2>/dev/null || true
wait $target_pid 2>/dev/null || true

tr -d '\r' <"$work/play.out" | grep -qE '^ +output 1 +Int24LSB' || fail "the driver didn't give two 24-bit outputs"
# The driver found its own file where it was installed (its reference
# settings lie beside it) and the user's settings in the roaming folder.
grep -qiF "settingOrgPath : ${install%\\*}\setting_org.inf" "$work/driver.log" ||
  fail "the driver didn't place itself in ${install%\\*}"
grep -qiF "LoadInf : $appdata\KESTRANE Velmora\setting.inf" "$work/driver.log" ||
  fail "the driver didn't read the settings in $appdata"
[ -s "$work/sink.wav" ] || fail "nothing reached the sink"
verdict=$("$play" --compare "$work/given.wav" "$work/sink.wav") || fail "$verdict"
echo "$verdict"

# How well the stream kept time; shown, not judged: it depends on the machine.
stat() { grep -o "\"$1\":[-0-9.]*" "$work/stats.json" | head -1 | cut -d: -f2; }
echo "timing: $(grep -c ' over time [0-9]' "$work/driver.log" || true) cycles sent a whole cycle late;" \
  "sink: packets $(stat packets), gaps $(stat gaps), resends $(stat resends), underruns $(stat underruns)," \
  "overruns $(stat overruns), arrival jitter $(stat jitterUs) us${realtime:+ (server and player: ${realtime[*]})}"
