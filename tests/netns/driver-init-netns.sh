#!/bin/bash
# The driver initialised by a host in one namespace, with no target named in
# its settings: discovery finds velmora-target in the other namespace
# through ff02::1, and the driver takes its sink; with no target, or only the
# machine's own on the loopback address, init fails with its text.
#
#     driver-init-netns.sh VELMORA_TARGET NETNS_DRIVER_INIT DRIVER_LIBRARY
#
# Exits 77 (skipped) where namespaces can't be made.
set -u

target_tool=$1
init_tool=$2
library=$3

. "$(dirname "$0")/netns-setup.sh"

in_target "$target_tool" --name "Stage" --sink "1,0,Main out" --log-level 3 >"$work/target.log" 2>&1 &
sleep 1

result=$(in_host "$init_tool" "$library" 2>&1)
echo "$result"
check "init finds the target through discovery" grep -q "^init done: " <<<"$result"
check "and names the driver after the target and its output" grep -q "^init done: Stage(Main out)$" <<<"$result"

# Nothing answers once the target is gone: the host is told so.
ip netns pids "$target_ns" | xargs -r kill 2>/dev/null
wait 2>/dev/null
result=$(in_host "$init_tool" "$library" 2>&1)
echo "$result"
check "with no target on the link, init fails with its text" grep -q "^init failed: Velmora can not Find" <<<"$result"

# A machine whose only responder is its own, on the loopback address: the
# driver doesn't take it for a target of the link.
alone_ns="${run_id}l"
namespaces+=("$alone_ns")
ip netns add "$alone_ns" && ip -n "$alone_ns" link set lo up || exit 1
ip netns exec "$alone_ns" "$target_tool" --name "Own" --sink "1,0,Out" --log-level 3 >>"$work/target.log" 2>&1 &
sleep 1
result=$(ip netns exec "$alone_ns" "$init_tool" "$library" 2>&1)
echo "$result"
check "only the machine's own loopback responder: init fails" grep -q "^init failed: Velmora can not Find" <<<"$result"

finish_checks
