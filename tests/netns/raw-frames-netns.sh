#!/bin/bash
# Raw frames across a real link: the packet library sends finished frames
# on the host's link, a packet socket on the target's end gets them
# unchanged, the short one included.
#
#     raw-frames-netns.sh NETNS_RAW_FRAMES
#
# Exits 77 (skipped) where namespaces can't be made or libpcap is missing.
set -u

raw_tool=$1

. "$(dirname "$0")/netns-setup.sh"

host_index=$(ip -n "$host_ns" -o link show vfh | cut -d: -f1)
target_mac=$(ip -n "$target_ns" -o link show vft | sed -n 's/.*link\/ether \([0-9a-f:]*\).*/\1/p')
: >"$work/target.log"

# frames_arrive: the receiver on vft, then the sender on vfh.
frames_arrive() {
    in_target "$raw_tool" receive vft "$work/ready" >"$work/target.log" 2>&1 &
    local receiver=$!
    for _ in $(seq 50); do
        [ -e "$work/ready" ] && break
        sleep 0.1
    done
    in_host "$raw_tool" send "$host_index" "$target_mac"
    local sent=$?
    if [ "$sent" -eq 77 ]; then
        kill "$receiver" 2>/dev/null
        exit 77
    fi
    wait "$receiver"
    local received=$?
    cat "$work/target.log"
    [ "$sent" -eq 0 ] && [ "$received" -eq 0 ]
}

check "frames sent through the packet library arrive byte for byte" frames_arrive

finish_checks
