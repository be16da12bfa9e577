#!/bin/bash
# velmora-find in one network namespace against velmora-target in another,
# joined by a veth pair: discovery through ff02::1, the sinks, the MTU at
# three link MTUs, a windowed slot write checked byte for byte, and a write
# whose last frame is lost.
#
#     find-netns.sh VELMORA_FIND VELMORA_TARGET FIND_NETNS_RELAY
#
# Exits 77 (skipped) where namespaces can't be made.
set -u

find_tool=$1
target_tool=$2
relay_tool=$3

. "$(dirname "$0")/netns-setup.sh"

# A slot of 16 blocks of 4 packets of 1024 bytes, acknowledged every 3000.
mkdir -p "$work/slots"
in_target "$target_tool" --name "netns target" --sink "1,0,Line out" --sink "2,0,Phones" --loopback \
    --slots "2,1024,4,16" --window 3000 --slot-dir "$work/slots" --log-level 3 >"$work/target.log" 2>&1 &
sleep 1

list=$(in_host "$find_tool" list 2>&1)
echo "$list"
check "discovery through ff02::1 finds the target" grep -q "target \"netns target\" at $target_address%" <<<"$list"
check "its sinks are listed" grep -q 'sink 1: "Line out"' <<<"$list"
check "both of them" grep -q 'sink 2: "Phones"' <<<"$list"

for mtu in 1500 1400 9000; do
    set_link_mtu "$mtu"
    measured=$(in_host "$find_tool" mtu "$target" 2>&1)
    echo "$measured"
    check "the MTU of a $mtu-byte link is measured exactly" grep -q "^MTU to .*: $mtu bytes" <<<"$measured"
done

# 3.5 blocks, through a window smaller than a block.
head -c $((14 * 1024 + 164)) /dev/urandom >"$work/image.bin"
in_host "$find_tool" --window 2000 write "$target" 0 "$work/image.bin"
check "a windowed slot write passes the CRC check" test $? -eq 0
check "and arrives byte for byte" cmp -s "$work/image.bin" "$work/slots/slot1.bin"

# The last frame carries 164 bytes: a frame of 184 bytes, which the relay
# in front of the target loses.
in_target "$relay_tool" 19700 19642 184 2>"$work/relay.log" &
sleep 0.3
lost=$(in_host "$find_tool" --port 19700 write "$target" 1 "$work/image.bin" 2>&1)
status=$?
echo "$lost"
check "a write whose last frame is lost fails" test $status -eq 1
check "and says that the target stopped acknowledging" grep -q "stopped acknowledging" <<<"$lost"
check "the relay did lose the frame" grep -q "dropped datagram" "$work/relay.log"

finish_checks
