# Sourced by the wine rig scripts: a fresh Wine prefix of their own for one
# run, whose server stays up between the commands and ends with the script.

wine=/usr/lib/wine/wine64
[ -x "$wine" ] || wine=$(command -v wine64 || command -v wine)
wineserver=$(dirname "$wine")/wineserver
[ -x "$wineserver" ] || wineserver=$(command -v wineserver)
export WINEDEBUG=-all

# Wine 8 doesn't carry SetThreadPriority over to Linux, and every socket call
# and timed wait of a Windows program is a round trip to the wineserver. So
# where root may, the server and the programs that stream run in a real-time
# class, as the driver asks for its threads and as the native build's
# platform layer sets them; on a busy machine they then keep time as the
# native build does.
realtime=()
if chrt -f 5 true 2>/dev/null; then realtime=(chrt -f 5); fi

fresh_wine_prefix() {
  WINEPREFIX=$(mktemp -d "${TMPDIR:-/tmp}/velmora-wine.XXXXXX")
  export WINEPREFIX
  trap end_wine_prefix EXIT
  # A persistent server: without it each command would start one anew.
  "${realtime[@]}" "$wineserver" -p
  "$wine" wineboot --init >/dev/null 2>&1
}

end_wine_prefix() {
  "$wineserver" -k 2>/dev/null || true
  "$wineserver" -w 2>/dev/null || true
  rm -rf "$WINEPREFIX"
}

wine_run() {
  "$wine" "$@"
}

wine_run_realtime() {
  "${realtime[@]}" "$wine" "$@"
}

# C:\A\B as a path under the prefix's drive_c.
wine_unix_path() {
  local rest=${1#[Cc]:\\}
  echo "$WINEPREFIX/drive_c/${rest//\\//}"
}
