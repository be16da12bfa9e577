#!/bin/bash
# A 10-second stream in the raw frame transfer mode across a veth pair: the
# host sends its audio as Ethernet frames through the packet library, the
# sink takes them from a packet socket and answers with feedback and resend
# requests on its UDP port; its WAV file must hold the source bit for bit.
# A short stream with raw frames switched off (ThredMode 0x8000), and with
# the packet library hidden from the host, runs in another mode, which the
# check names.
#
#     raw-stream-netns.sh VELMORA_TARGET NETNS_RAW_STREAM [ASAN_TARGET ASAN_RAW_STREAM]
#
# With the ASan builds of both programs given, a short raw stream runs once
# more with them, so that a raw context left behind on any path shows as a leak.
# Exits 77 (skipped) where namespaces can't be made or libpcap is missing.
set -u

target_tool=$1
stream_tool=$2
asan_target_tool=${3:-}
asan_stream_tool=${4:-}
seconds=10

. "$(dirname "$0")/netns-setup.sh"

if ! ldconfig -p | grep -q 'libpcap\.so'; then
    echo "skipped: no libpcap on this machine"
    exit 77
fi

scope=$(ip -n "$host_ns" -o link show vfh | cut -d: -f1)
numbered="$target_address%$scope"
: >"$work/target.log"

# streams NAME MODE FLAGS [TARGET_OPTIONS...]: a stream with ThredMode
# FLAGS whose set-up settles on MODE, and a bit-exact copy at the sink.
# $host_prefix runs before the host program, $target_bin and $stream_bin
# name the programs.
host_prefix=()
target_bin=$target_tool
stream_bin=$stream_tool
streams() {
    local name=$1 mode=$2 flags=$3
    shift 3
    rm -f "$work/$name.wav"*
    in_target "$target_bin" --name "raw target" --sink "1,0,Out" --modes 2 --raw vft \
        --wav "$work/$name.wav" --stats-json "$work/$name.json" --log-level 4 "$@" >>"$work/target.log" 2>&1 &
    local target_pid=$!
    sleep 1
    in_host "${host_prefix[@]}" "$stream_bin" play "$numbered" "$flags" "$seconds" >"$work/$name.host" 2>&1
    local played=$?
    ip netns pids "$target_ns" | xargs -r kill 2>/dev/null
    wait "$target_pid"
    local target_status=$?
    echo "$name: host $played, target $target_status: $(tr '\n' ' ' <"$work/$name.host")"
    [ -f "$work/$name.json" ] && echo "$name sink: $(head -c 300 "$work/$name.json")"
    [ "$played" -eq 0 ] && [ "$target_status" -eq 0 ] && grep -qx "mode=$mode" "$work/$name.host" &&
        "$stream_tool" compare "$work/$name.wav" "$seconds"
}

# streams_with_resends: the raw stream, and the sink asked for resends.
streams_with_resends() {
    streams "$@" --drop 0.002 && ! grep -q '"resends":0,' "$work/$1.json"
}

# Hides the packet library from the host program only: its files are
# covered by /dev/null in a mount namespace of its own.
hide_library() {
    local files=()
    for f in $(ldconfig -p | awk '/libpcap\.so/ {print $NF}'); do files+=("$(readlink -f "$f")"); done
    host_prefix=(unshare -m --propagation private sh -c \
        'for f in "$@"; do case $f in --) shift; break;; esac; mount --bind /dev/null "$f" || exit 1; shift; done; exec "$@"' \
        hide "${files[@]}" --)
}

check "raw frames carry $seconds s bit-exact, feedback and resends over UDP" streams_with_resends raw RFS 0
# What the other streams check shows in their first seconds.
seconds=3
check "ThredMode 0x8000 takes mode 2 instead" streams no-raw mode2 0x8000
hide_library
check "without the packet library the host takes mode 2" streams hidden mode2 0
host_prefix=()
if [ -n "$asan_target_tool" ] && [ -n "$asan_stream_tool" ]; then
    target_bin=$asan_target_tool
    stream_bin=$asan_stream_tool
    check "the ASan builds stream raw frames and leave nothing behind" streams asan RFS 0
    check "the ASan builds free the raw path they don't take" streams asan-no-raw mode2 0x8000
fi

finish_checks
