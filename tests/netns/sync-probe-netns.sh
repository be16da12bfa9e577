#!/bin/bash
# The stream set-up's packet size probe across a real link: a sink that
# asks for large packets gets them where the link carries them, and 1500
# bytes where it doesn't.
#
#     sync-probe-netns.sh VELMORA_TARGET NETNS_RAW_STREAM
#
# Exits 77 (skipped) where namespaces can't be made.
set -u

target_tool=$1
probe_tool=$2

. "$(dirname "$0")/netns-setup.sh"

# Address and interface number, for a program that takes no names.
scope=$(ip -n "$host_ns" -o link show vfh | cut -d: -f1)
numbered="$target_address%$scope"

# settles MTU DATA_REQ DATA_MAX EXPECTED: the packet size the set-up takes.
settles() {
    local mtu=$1 request=$2 greatest=$3 expected=$4
    set_link_mtu "$mtu"
    in_target "$target_tool" --name "probe target" --sink "1,0,Out" --data-req "$request" \
        --data-max "$greatest" --log-level 3 >>"$work/target.log" 2>&1 &
    local pid=$!
    sleep 1
    local result
    result=$(in_host "$probe_tool" play "$numbered" 0 0 2>&1)
    echo "link $mtu, sink asks $request (at most $greatest): $result"
    ip netns pids "$target_ns" | xargs -r kill 2>/dev/null
    wait "$pid" 2>/dev/null
    grep -q "smtu=$expected " <<<"$result"
}

check "a 9000-byte link carries the 8000 bytes the sink asks for" settles 9000 8000 0 8000
check "with a greater size allowed, the whole 9000-byte link is used" settles 9000 8000 12000 9000
check "a 1500-byte link keeps 1500" settles 1500 8000 12000 1500
check "a sink that asks for no more than 1500 is not probed" settles 9000 1400 0 1500

finish_checks
