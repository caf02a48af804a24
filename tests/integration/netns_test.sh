#!/usr/bin/env bash
# Two machines in one: two network namespaces joined by a veth pair. A publisher in one and
# "diag echo" in the other, each with a Cyclone configuration that names only its veth
# interface and the peer's address, so traffic never leaves the pair. The namespaces are
# removed however the test ends. Exit 77 (skipped) where namespaces cannot be made.
#
# usage: netns_test.sh PATH_TO_KORCOMMON
set -u
korcommon=${1:?usage: netns_test.sh PATH_TO_KORCOMMON}

skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }

# Without root or iproute2 (the ip command) the first namespace cannot be made: skipped.
ns_pub="korcommon_pub_$$"
ns_echo="korcommon_echo_$$"
subnet="10.213.$(($$ % 250))"
work=$(mktemp -d)

cleanup() {
  for ns in "$ns_pub" "$ns_echo"; do
    ip netns pids "$ns" 2>/dev/null | xargs -r kill -9
    ip netns del "$ns" 2>/dev/null
  done
  rm -rf "$work"
}
trap cleanup EXIT

ip netns add "$ns_pub" 2>/dev/null || skip "cannot create a network namespace here (root and iproute2?)"
ip netns add "$ns_echo" || fail "cannot create the second namespace"
ip link add veth_pub netns "$ns_pub" type veth peer name veth_echo netns "$ns_echo" ||
  skip "cannot create a veth pair here"
ip -n "$ns_pub" addr add "$subnet.1/30" dev veth_pub
ip -n "$ns_echo" addr add "$subnet.2/30" dev veth_echo
for ns in "$ns_pub" "$ns_echo"; do ip -n "$ns" link set lo up; done
ip -n "$ns_pub" link set veth_pub up
ip -n "$ns_echo" link set veth_echo up

# Only the veth interface, unicast to the other end: nothing else is a target.
cyclone_config() {  # INTERFACE PEER_ADDRESS
  printf '<CycloneDDS><Domain id="any"><General><Interfaces><NetworkInterface name="%s"/></Interfaces>' "$1"
  printf '<AllowMulticast>false</AllowMulticast></General><Discovery><ParticipantIndex>auto</ParticipantIndex>'
  printf '<Peers><Peer address="%s"/></Peers></Discovery></Domain></CycloneDDS>' "$2"
}
# Runs COMMAND in NAMESPACE; used in the background only, as it replaces its shell.
in_namespace() {  # NAMESPACE INTERFACE PEER_ADDRESS COMMAND...
  exec ip netns exec "$1" env DOVA_DOMAIN_ID=7 DOVA_TRANSPORT=dds \
    CYCLONEDDS_URI="$(cyclone_config "$2" "$3")" "${@:4}"
}

in_namespace "$ns_echo" veth_echo "$subnet.1" "$korcommon" diag echo --json --no-batch \
  --name '^netns/' >"$work/echo.out" 2>"$work/echo.err" &
# Ten reports a second until five have crossed: however long discovery takes on a busy
# machine, the reports after it must arrive.
in_namespace "$ns_pub" veth_pub "$subnet.2" "$korcommon" diag pub netns/check warn 7 \
  "across the veth pair" --rate 10 >"$work/pub.out" 2>"$work/pub.err" &
publisher=$!
for _ in $(seq 300); do
  [[ $(grep -c '"netns/check"' "$work/echo.out") -ge 5 ]] && break
  sleep 0.1
done
kill -TERM "$publisher"
wait "$publisher" || fail "diag pub failed: $(cat "$work/pub.err")"
received=$(grep -c '"code":7' "$work/echo.out")
[[ $received -ge 5 ]] || fail "received $received reports: $(cat "$work/echo.out" "$work/echo.err")"
echo "PASSED: $received reports crossed from $subnet.1 to $subnet.2"
