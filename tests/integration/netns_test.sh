#!/usr/bin/env bash
# Two machines in one: two network namespaces joined by a veth pair. A
# publisher in one and "diag echo" in the other, each with a Cyclone
# configuration that names only its veth interface and the peer's address, so
# traffic never leaves the pair. Every report must arrive. The namespaces are
# removed however the test ends. Exit 77 (skipped) where namespaces cannot be
# made.
#
# usage: netns_test.sh PATH_TO_KORCOMMON
set -u
korcommon=${1:?usage: netns_test.sh PATH_TO_KORCOMMON}

skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }

[[ $(id -u) -eq 0 ]] || skip "network namespaces need root"
command -v ip >/dev/null || skip "the ip command (iproute2) is not installed"

tag=$$
ns_pub="korcommon_pub_$tag"
ns_echo="korcommon_echo_$tag"
subnet="10.213.$((tag % 250)).0"
address_pub="${subnet%.0}.1"
address_echo="${subnet%.0}.2"
work=$(mktemp -d)

cleanup() {
  [[ -n "${echo_pid:-}" ]] && kill "$echo_pid" 2>/dev/null && wait "$echo_pid" 2>/dev/null
  ip netns pids "$ns_pub" 2>/dev/null | xargs -r kill -9
  ip netns pids "$ns_echo" 2>/dev/null | xargs -r kill -9
  ip netns del "$ns_pub" 2>/dev/null
  ip netns del "$ns_echo" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

ip netns add "$ns_pub" 2>/dev/null || skip "cannot create a network namespace here"
ip netns add "$ns_echo" || fail "cannot create the second namespace"
ip link add veth_pub netns "$ns_pub" type veth peer name veth_echo netns "$ns_echo" ||
  skip "cannot create a veth pair here"
ip -n "$ns_pub" addr add "$address_pub/30" dev veth_pub
ip -n "$ns_echo" addr add "$address_echo/30" dev veth_echo
for ns in "$ns_pub" "$ns_echo"; do ip -n "$ns" link set lo up; done
ip -n "$ns_pub" link set veth_pub up
ip -n "$ns_echo" link set veth_echo up

# Only the veth interface, unicast to the other end: nothing else is a target.
cyclone_config() {  # INTERFACE PEER_ADDRESS
  printf '<CycloneDDS><Domain id="any"><General><Interfaces><NetworkInterface name="%s"/></Interfaces>' "$1"
  printf '<AllowMulticast>false</AllowMulticast></General><Discovery><ParticipantIndex>auto</ParticipantIndex>'
  printf '<Peers><Peer address="%s"/></Peers></Discovery></Domain></CycloneDDS>' "$2"
}

export DOVA_DOMAIN_ID=7 DOVA_TRANSPORT=dds
ip netns exec "$ns_echo" env CYCLONEDDS_URI="$(cyclone_config veth_echo "$address_pub")" \
  "$korcommon" diag echo --json --no-batch --name '^netns/' >"$work/echo.out" 2>"$work/echo.err" &
echo_pid=$!

# Five reports, one every 100 ms, from the other namespace.
ip netns exec "$ns_pub" env CYCLONEDDS_URI="$(cyclone_config veth_pub "$address_echo")" \
  "$korcommon" diag pub netns/check warn 7 "across the veth pair" --rate 10 --count 5 \
  >"$work/pub.out" 2>"$work/pub.err" || fail "diag pub failed: $(cat "$work/pub.err")"

for _ in $(seq 100); do
  [[ $(grep -c '"netns/check"' "$work/echo.out") -ge 5 ]] && break
  sleep 0.1
done
received=$(grep -c '"netns/check"' "$work/echo.out")
[[ $received -eq 5 ]] ||
  fail "received $received of 5 reports: $(cat "$work/echo.out" "$work/echo.err")"
grep -q '"code":7' "$work/echo.out" || fail "the report's code did not survive: $(cat "$work/echo.out")"
echo "PASSED: 5 of 5 reports crossed from $address_pub to $address_echo"
