#!/usr/bin/env bash
# The demo behind ./run demo: velmora-target with a WAV sink on the loopback
# address, a settings folder that points the driver at it, a few seconds of
# a test signal through velmora-play, then a summary of what was negotiated,
# what went over the wire, and whether the sink's WAV holds exactly what the
# driver was given.
#   tools/demo.sh <directory of the built programs> [seconds]
set -uo pipefail

bin=${1:?usage: tools/demo.sh <bin directory> [seconds]}
seconds=${2:-3}
[[ $seconds =~ ^[0-9]+(\.[0-9]+)?$ ]] && [[ ! $seconds =~ ^0+(\.0+)?$ ]] ||
  { echo "demo: seconds must be a positive number, not '$seconds'" >&2; exit 2; }
work=$(mktemp -d /tmp/velmora-demo-XXXXXX)
pids=()

cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
  wait 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

fail() {
  echo "demo: $*" >&2
  exit 1
}

for program in asio_kestrane.so velmora-target velmora-play velmora-log; do
  [ -x "$bin/$program" ] || [ -f "$bin/$program" ] || fail "$bin/$program is missing: build it first"
done

# The target's control, registration and log ports and the driver's log port
# are fixed; a test or another target holding one would take the stream.
for port in 19638 19640 19641 19642; do
  if [ -n "$(ss -Hunl "sport = :$port" 2>/dev/null)" ]; then
    fail "UDP port $port is in use (another velmora-target, velmora-log or a test): stop it and try again"
  fi
done

# wait_for <file> <text> <pid>: until the program with <pid> has written <text>.
wait_for() {
  local tries=0
  until grep -q "$2" "$1" 2>/dev/null; do
    kill -0 "$3" 2>/dev/null || return 1
    tries=$((tries + 1))
    [ $tries -le 100 ] || return 1
    sleep 0.05
  done
}

"$bin/velmora-log" --file "$work/driver.log" 2>"$work/log.err" &
pids+=($!)
wait_for "$work/log.err" listening $! || fail "velmora-log didn't start: $(cat "$work/log.err")"

# A 20 ms buffer, as a device gives: at the 5 ms default a loaded machine's
# scheduling swings the sink's level from end to end.
"$bin/velmora-target" --loopback --name Demo --sink "1,0,Demo out" --wav "$work/sink.wav" \
  --latency 200 --stats-json "$work/stats.json" >"$work/target.out" 2>"$work/target.err" &
target=$!
pids+=($target)
wait_for "$work/target.out" "^sink 1:" $target || fail "velmora-target didn't start: $(tail -3 "$work/target.err")"

settings="$work/config/KESTRANE Velmora"
mkdir -p "$settings"
printf 'TargetAddress=::1,19642\r\nInterLoopback=enable\r\nDebug=enable\r\n' >"$settings/setting.inf"

echo "== velmora-play: $seconds s of a 997 Hz sine through the driver"
"$bin/velmora-play" --driver "$bin/asio_kestrane.so" --settings "$work/config" --signal sine \
  --seconds "$seconds" --given "$work/given.wav" --json "$work/play.json" >"$work/play.out" 2>&1
played=$?
sed 's/^/  /' "$work/play.out"

# The target writes a stream's statistics when the stream ends; a signal
# ends the program after that.
kill -TERM $target 2>/dev/null
wait $target 2>/dev/null

# number <key> <file>, text <key> <file>: the first value of <key> in a JSON file.
number() { grep -o "\"$1\":-\{0,1\}[0-9.e+]*" "$2" 2>/dev/null | head -1 | cut -d: -f2; }
text() { grep -o "\"$1\":\"[^\"]*\"" "$2" 2>/dev/null | head -1 | cut -d'"' -f4; }
# logged <text>: the driver's log lines that begin with <text>, without stamp and severity.
logged() { sed -n "s/^.\{15\} [a-z]* \($1.*\)/\1/p" "$work/driver.log" | paste -sd ';' | sed 's/;/; /g'; }
row() { printf '  %-18s %s\n' "$1" "${2:-(not seen)}"; }

sink="(none)"
if grep -q "Velmora get Target OK" "$work/driver.log"; then
  masks=$(logged 'Velmora connect Sink ' | sed 's/^Velmora connect Sink //')
  sink="::1,19642 \"$(text driverName "$work/play.json")\"; sink masks PCM, DSD LSB, DSD MSB: $masks"
fi
format=""
if [ -s "$work/play.json" ] && [ "$(number rate "$work/play.json")" != 0 ]; then
  format="$(number rate "$work/play.json") Hz, $(grep -o '"typeName":"[^"]*"' "$work/play.json" | head -1 |
    cut -d'"' -f4) x $(grep -o '"channel":' "$work/play.json" | wc -l) ch, buffer $(number used "$work/play.json"); $(logged 'init compleat')"
fi

stats="$work/stats.json"
bitexact="no (nothing reached the sink)"
if [ $played -ne 0 ]; then
  bitexact="no (velmora-play: $(sed -n 's/^result *//p' "$work/play.out"))"
elif [ -s "$work/sink.wav" ]; then
  bitexact=$("$bin/velmora-play" --compare "$work/given.wav" "$work/sink.wav" | sed 's/^bit-exact: //')
fi

echo
echo "== summary"
row "target and sink" "$sink"
row "format" "$format"
plan=$(logged 'configTransfer')
cycle=$(logged 'start cycle=')
row "cycle and packets" "${plan:+$plan; }$cycle"
callbacks=$(number count "$work/play.json")
if [ "${callbacks:-0}" != 0 ]; then
  row "callbacks" "$callbacks, every $(number meanMs "$work/play.json") ms (expected $(number expectedMs "$work/play.json"))"
else
  row "callbacks" "none"
fi
if [ -s "$stats" ]; then
  row "packets" "$(number packets "$stats") ($(number bytes "$stats") bytes), feedbacks $(number feedbacks "$stats")"
  row "resends" "$(number resends "$stats") (gaps $(number gaps "$stats"), duplicates $(number duplicates "$stats"))"
  row "deviation range" "$(number deviationLeast "$stats") to $(number deviationGreatest "$stats") (Q14)"
  row "underruns" "$(number underruns "$stats")"
else
  row "stream" "no statistics: the target saw no stream"
fi
row "bit-exact" "$bitexact"

case $bitexact in
  yes*) exit 0 ;;
  *) exit 1 ;;
esac
