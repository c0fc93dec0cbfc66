# SPDX-License-Identifier: MIT
# The message bus: two daemons talk through the bus server, and its table shows it.
. scripts/demo-scene.sh

title "mbusd: two daemons talk over the message bus"
mbusd --log /tmp/mbusd.log 2>/tmp/mbusd.err &
mbusd_pid=$!
wait_for "the bus server's start" test -S /tmp/mbus.sock

note "a daemon that owns a parameter, and one that watches it, connect"
mkfifo /tmp/param.in
bus_param </tmp/param.in >/tmp/param.out &
param_pid=$!
exec 9>/tmp/param.in
wait_for "bus_param's connecting" grep -q 'connected' /tmp/param.out
bus_watch watcher bus_param mtu >/tmp/watch.out &
watch_pid=$!
wait_for "the answer to the watcher's question" grep -q 'type 2, name param, "mtu=1500"' /tmp/watch.out

note "the parameter is changed in one: mtu=1428"
echo "mtu=1428" >&9
wait_for "the change's arrival in the other" grep -q 'type 0, name param, "mtu=1428"' /tmp/watch.out
wait_for "the confirmation" grep -q 'type 3, name bus_param, "seen mtu=1428"' /tmp/param.out

note "who is on the bus, seen from a shell"
typed qzctl bus list || fail "there is no bus"
note "and a question from there"
typed qzctl bus send bus_param 'get mtu' --type 1 || fail "the packet was not sent"
wait_for "the question" grep -q 'type 1, name bus_param, "get mtu"' /tmp/param.out

note "the watcher is killed without warning; the server cleans up after it"
kill -9 $watch_pid
wait $watch_pid 2>/dev/null
wait_for "the end of the watcher's record" grep -q 'watcher: its process is gone' /tmp/mbusd.log
note "it is started again and gets its answer again"
bus_watch watcher bus_param mtu >/tmp/watch2.out &
watch_pid=$!
wait_for "the answer" grep -q '"mtu=1428"' /tmp/watch2.out

end $watch_pid || fail "bus_watch's exit status"
exec 9>&-
wait $param_pid || fail "bus_param's exit status"
end $mbusd_pid || fail "mbusd's exit status"
note "what bus_param saw:"
show /tmp/param.out
note "what bus_watch saw:"
show /tmp/watch.out
note "mbusd's log:"
show /tmp/mbusd.log
[ ! -e /tmp/mbus.sock ] || fail "the socket file is left"
[ "$(wc -l </proc/sysvipc/shm)" -eq 1 ] || fail "shared memory is left"
