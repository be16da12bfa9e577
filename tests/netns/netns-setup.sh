# Two network namespaces joined by a veth pair, for the netns tests: the
# host side ($host_ns, link vfh) and the target side ($target_ns, link vft),
# with link-local addresses usable at once. Sourced; exits 77 (skipped)
# where namespaces can't be made, and cleans up on exit.
#
# Sets: host_ns target_ns work target_address target (address%vfh), and
# the helpers check, in_host, in_target, set_link_mtu.

run_id="vf$$r$RANDOM"
host_ns="${run_id}h"
target_ns="${run_id}t"
work=$(mktemp -d)
failures=0

# Every namespace of this run, and everything that runs inside them, is the
# run's own; a script that makes another adds it here.
namespaces=("$host_ns" "$target_ns")
cleanup() {
    for ns in "${namespaces[@]}"; do
        ip netns pids "$ns" 2>/dev/null | xargs -r kill 2>/dev/null
    done
    wait 2>/dev/null
    for ns in "${namespaces[@]}"; do
        ip netns del "$ns" 2>/dev/null
    done
    rm -rf "$work"
}
trap cleanup EXIT

check() {
    local what=$1
    shift
    if "$@"; then
        echo "ok: $what"
    else
        echo "FAILED: $what"
        failures=$((failures + 1))
    fi
}

in_host() { ip netns exec "$host_ns" "$@"; }
in_target() { ip netns exec "$target_ns" "$@"; }

if ! ip netns add "$host_ns" 2>/dev/null; then
    echo "skipped: network namespaces are refused here (needs root and iproute2)"
    exit 77
fi
ip netns add "$target_ns" || exit 1

# Link-local addresses without duplicate address detection, so that they
# are usable at once.
for ns in "$host_ns" "$target_ns"; do
    ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0 || exit 1
    ip -n "$ns" link set lo up || exit 1
done
ip link add vfh netns "$host_ns" type veth peer name vft netns "$target_ns" || exit 1
ip -n "$host_ns" link set vfh up && ip -n "$target_ns" link set vft up || exit 1

target_address=""
for _ in $(seq 50); do
    target_address=$(ip -n "$target_ns" -6 -o addr show dev vft scope link | awk '{print $4}' | cut -d/ -f1)
    [ -n "$target_address" ] && break
    sleep 0.1
done
[ -n "$target_address" ] || { echo "FAILED: the target side has no link-local address"; exit 1; }
target="$target_address%vfh"

set_link_mtu() {
    ip -n "$host_ns" link set vfh mtu "$1" && ip -n "$target_ns" link set vft mtu "$1"
}


# The verdict of a run: its failures, with the target's log to explain them.
finish_checks() {
    if [ "$failures" -ne 0 ]; then
        echo "target log:"
        cat "$work/target.log"
        exit 1
    fi
    echo "all netns checks passed"
}
