# SPDX-License-Identifier: MIT
# netd: a daemon starts, with its log, its configuration and its commands.
. scripts/demo-scene.sh

title "netd: the first half of a daemon's life"
note "its parameters, /tmp/config/netd.conf:"
show /tmp/config/netd.conf
cp /tmp/config/netd.conf /tmp/before.conf

note "netd starts"
netd >/tmp/netd.out &
netd_pid=$!
wait_for "netd's start" grep -q 'netd: running' /tmp/netd.out
show /tmp/netd.out
grep -q '"sleep 30" with a limit of 1 s gave -267' /tmp/netd.out || fail "the command was not killed"

note "what it changed in its parameters:"
diff /tmp/before.conf /tmp/config/netd.conf | show
grep -q '^ mtu=1428$' /tmp/config/netd.conf || fail "mtu was not saved"

note "a second netd:"
netd >/tmp/second.out || fail "the second netd should end with status 0"
show /tmp/second.out
grep -q 'already running' /tmp/second.out || fail "the second netd ran"

wait_for "the link" grep -q 'link is up' /tmp/netd.log
note "its log at the router-wide level of cli.conf ($(grep '^log msg-level' /tmp/config/cli.conf)):"
show /tmp/netd.log
grep -q DEBUG /tmp/netd.log && fail "debug messages at level info"

note "an operator reads a parameter, and changes the level of the log"
typed qzctl conf netd get wan mtu || fail "the parameter was not read"
typed qzctl log level debug || fail "the level was not set"
wait_for "the first debug message" grep -q '<DEBUG>' /tmp/netd.log
note "the log now, the daemon was not touched:"
show /tmp/netd.log

wait_for "the background command" test -s /tmp/background.txt
note "the command that outlived its call: $(cat /tmp/background.txt)"
end $netd_pid || fail "netd's exit status"
tail -n 1 /tmp/netd.out | show
