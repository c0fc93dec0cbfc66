# SPDX-License-Identifier: MIT
# linkd supervises two links: one of them goes down, and the default route moves.
. scripts/demo-scene.sh

title "network: two links, one goes down, the route moves"

# far NUMBER: the far end of link wan$1, in a network namespace of its own that lives as long
# as the process that answers there. Its id goes to /tmp/far$1.pid.
far() {
    # shellcheck disable=SC2016 # for the inner shell
    unshare --net sh -c 'echo $$ >/tmp/far'"$1"'.pid; until ip link set lo up && ip addr add 10.64.'"$1"'.1/30 dev far'"$1"' &&
        ip link set far'"$1"' up; do sleep 0.05; done 2>/dev/null; exec linkd -a 7' &
    wait_for "far end $1" test -s "/tmp/far$1.pid"
    ip link add "wan$1" type veth peer name "far$1"
    ip link set "far$1" netns "$(cat "/tmp/far$1.pid")"
    ip addr add "10.64.$1.2/30" dev "wan$1"
    ip link set "wan$1" up
}

default_is_on() { ip -4 route get 192.0.2.1 2>/dev/null | grep -q " dev $1 "; }

far 0
far 1
note "two links:"
ip -br addr show | grep wan | show
ip rule add from 192.168.10.0/24 lookup 100 prio 1000
ip route add default via 10.64.1.1 dev wan1 table 100
ip route add 10.64.1.0/30 dev wan1 table 100

zservsim --apply >/tmp/zservsim.out 2>&1 &
zservsim_pid=$!
wait_for "the routing daemon's socket" grep -q 'listening on' /tmp/zservsim.out
linkd -i 200 wan0=10.64.0.1 wan1=10.64.1.1 >/tmp/linkd.out &
linkd_pid=$!
wait_for "a default route on wan0" default_is_on wan0
wait_for "linkd seeing it" grep -q 'the default route is on wan0' /tmp/linkd.out
note "linkd, its first look:"
show /tmp/linkd.out
grep -q 'wan1 running, address 10.64.1.2 (noted 10.64.1.2).*answers after' /tmp/linkd.out || fail "wan1 was not seen working"
grep -q 'rule 1000, from 192.168.10.0/24: table 100, 0.0.0.0/0 mask 0.0.0.0 by 10.64.1.1 on wan1' /tmp/linkd.out ||
    fail "the source route was not seen"
note "for people"
typed qzctl route list || fail "no routes"
typed qzctl if wan1 || fail "no interface"

seen=$(wc -l </tmp/linkd.out)
note "the far end of wan0 goes away"
far_pid=$(cat /tmp/far0.pid)
nsenter --net="/proc/$far_pid/ns/net" ip link set far0 down || fail "far0 does not go down"
wait_for "the route's move to wan1" default_is_on wan1
wait_for "linkd seeing it" grep -q 'the default route is on wan1' /tmp/linkd.out
tail -n "+$((seen + 1))" /tmp/linkd.out | show
typed qzctl route via 192.0.2.1 || fail "no route"

note "it comes back"
seen=$(wc -l </tmp/linkd.out)
nsenter --net="/proc/$far_pid/ns/net" ip link set far0 up || fail "far0 does not come up"
wait_for "the route's return to wan0" default_is_on wan0
back() { tail -n "+$((seen + 1))" /tmp/linkd.out | grep -q 'the default route is on wan0'; }
wait_for "linkd seeing it" back

end $linkd_pid || fail "linkd's exit status"
grep -q 'linkd: ended' /tmp/linkd.out || fail "linkd did not end by itself"
wait_for "the routes' end" sh -c '! ip route | grep -q default'
note "what the routing daemon was asked:"
show /tmp/zservsim.out
grep -q malformed /tmp/zservsim.out && fail "a malformed request"
end $zservsim_pid || fail "zservsim's exit status"
kill "$(cat /tmp/far0.pid)" "$(cat /tmp/far1.pid)"
wait
