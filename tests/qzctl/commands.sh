#!/bin/sh
# Usage: commands.sh BIN EXAMPLES CMAKE, in a box on the example router: what each command answers.
set -u
PATH=$1:$PATH
cd /
failed=0
trap 'kill $(jobs -p) 2>/dev/null' EXIT

examples=$2 cmake=$3
for file in hosts nsswitch.conf; do
    mount --bind "$(dirname "$0")/../machine/etc/$file" /etc/$file
done

# Rows STATUS|PATTERN|ARGUMENTS: the whole output, on one line, matches the pattern as case takes it. With
# "j" after the status, a parser other than the library's takes what comes with --json, too.
cat >/run/json.cmake <<'CMAKE'
file(READ /run/out text)
string(JSON members LENGTH "${text}")
CMAKE
run_table() {
    while IFS='|' read -r status pattern arguments; do
        eval "timeout 20 qzctl $arguments" >/run/out 2>/run/errors </dev/null && got=0 || got=$?
        said=$(cat /run/out /run/errors | tr -s '\n\t ' ' ')
        # shellcheck disable=SC2254 # a pattern
        case "$got $said" in
        "${status%j} "$pattern) ;;
        *) echo "qzctl $arguments: status $got, \"$said\"" && failed=1 ;;
        esac
        [ "$status" != 0j ] || { eval "timeout 20 qzctl $arguments --json" >/run/out &&
            "$cmake" -P /run/json.cmake >/dev/null 2>&1; } ||
            { echo "qzctl $arguments --json: $(cat /run/out)" && failed=1; }
    done
}

expect() { "$@" || { echo "not so: $*" && failed=1; }; }
until_there() { until "$@" >/dev/null 2>&1; do sleep 0.02; done; }

run_table <<'TABLE'
0j|*wan apn internet wan mtu 1500*backup restart_modem - |conf netd list
0|[[]{ "group": null, "name": "enable", "value": "1" }*|conf netd list --json
1|qzctl: /tmp/config/netd.conf: no group nope |conf netd list nope
1|qzctl: /tmp/config/netd.conf: no apn |conf netd get apn
1|qzctl: /tmp/config: not a file |conf --file /tmp/config list
0||conf netd set wan mtu=1428 'note=a = b'
0|1428 |conf --file /tmp/config/netd.conf get wan mtu
0|a = b |conf netd get wan note
0||conf netd unset wan obsolete note
1|qzctl: /tmp/config/netd.conf: no obsolete in group wan |conf netd unset wan obsolete
0||conf netd unset --group backup
0||conf fresh set shutdown a=
0| |conf fresh get a
0j|bootcmd=run boot_linux bootdelay=3 baudrate=115200 ethaddr=02:00:5e:00:53:01 |env list
0||env set bootcount=1 bootdelay= --backup /data/env
0| |env get bootdelay
1|qzctl: /dev/mtdblock2: no variable nope |env get nope
0||env restore /data/env
0j|device /dev/mtdblock2 state in order variables 4 *|env verify
0||env clear
0|*cleared*|env verify
1|qzctl: /data/nvram: * bytes, and not the 131072 of an environment |env restore /data/nvram
1|qzctl: it is not logged: the router's level is info |log send debug x
0||log level debug
0|debug |log level
0||log send debug 'a message' --file /run/log --ident me
0|192.168.8.1/24 |cli get interface lan 'ip address'
1|qzctl: /tmp/config/cli.conf: no mtu in interface wan |cli get interface wan mtu
1|qzctl: no server: *|bus list
1|qzctl: no server: *|bus wait a
0j|state connected sim READY *|modem
0|-71 |modem rssi
1|qzctl: /tmp/modem.info: no nope |modem nope
0j|*power on*|led
0||led net fast
1|qzctl: net: its trigger is none of qzctl's modes |led net
1|qzctl: /sys/class/leds/none/trigger: No such file or directory |led none on
0j|*sim_select 0 |gpio
0||gpio sim_select 1
0|1 |gpio sim_select
0||watchdog feed
1|qzctl: /dev/mdm9x07_watchdog: Inappropriate ioctl for device |watchdog stop
0j|model K31-LTE *boot loader 1.4.2*|sys
0j|NAME UP RUNNING *lo yes yes 127.0.0.1 255.0.0.0 *|if
0|{ "name": "lo", "up": true, *|if lo --json
1|qzctl: nope: No such device |if nope
1|qzctl: 127.0.0.1 port 9: it takes no connection |probe tcp 127.0.0.1 9
0|127.0.0.1 |probe dns localhost --timeout 60
1|qzctl: no route to 192.0.2.1 in the main table |route via 192.0.2.1
1|qzctl: the routing daemon is not there: *|route add 10.0.0.0/8 eth0
0|[[]] |route list --json
1|qzctl: no process has the name nobody |msg send 1 x --to nobody
3|qzctl: no message came in time |msg listen --timeout 1
0|it's $x |run -- echo "it's" '$x'
1|qzctl: exit 3: it ended with 3 |run 'exit 3'
3|qzctl: sleep: killed after 1 s |run --timeout 1 -- sleep 20
1|qzctl: /dev/null: not a tty |at --device /dev/null AT
TABLE
expect grep -q '<DEBUG>me:a message' /run/log
expect test -s /dev/mdm9x07_watchdog

# Their peers run.
mbusd --quiet --log /run/mbusd.log &
zservsim >/run/zserv &
modemsim --link /tmp/modem "$examples/modem.at" >/run/modem &
until_there grep -q listening /run/zserv
until_there test -S /tmp/mbus.sock
until_there test -e /tmp/modem
mkfifo /run/orders
bus_param </run/orders >/run/param &
exec 9>/run/orders
qzctl bus listen news --count 2 --json >/run/heard 2>/dev/null &
bus_listener=$!
until_there sh -c 'qzctl bus list | grep qzctl'
qzctl msg listen --count 1 >/run/message &
msg_listener=$!
run_table <<'TABLE'
0||bus wait bus_param
3|qzctl: no client nobody came onto the bus in 1 s |bus wait nobody --timeout 1
0j|NAME RING UP *bus_param 0 *|bus list
0j|NAME PACKETS UP *bus_param 0 *|bus top --count 1
1|qzctl: no client has the name news; *|bus send news hello
0||bus send news hello --topic --type 3
0||bus send news "$(printf '\303(')" --topic
0||bus send bus_param 'to you'
3|*qzctl: no packet came in time |bus listen --timeout 1
1|qzctl: a server runs already, *|bus listen --trace
0||route add 10.1.0.0/16 eth0 --distance 5
0||route del 0.0.0.0/0 10.64.0.1
0|OK +CSQ: * OK |at --device /tmp/modem AT AT+CSQ --transcript /run/transcript
1|[[]{ "command": "AT+NO", "lines": [[]"ERROR"], "ok": false }]*|at --device /tmp/modem AT+NO --json
1|*the modem waits for a text*|at --device /tmp/modem 'AT+CMGS="1"'
TABLE
expect wait $bus_listener
expect grep -qx '{"name":"news","type":3,"length":5,"data":"hello","hex":"68656c6c6f"}' /run/heard
expect grep -q '"hex":"c328"}$' /run/heard
until [ -s /run/message ]; do qzctl msg send 7 hello --to qzctl; done
expect wait $msg_listener
expect grep -q '^qzctl.*type 7  hello$' /run/message
expect grep -q ' < OK$' /run/transcript
until_there grep -q '^delete 0.0.0.0/0 via 10.64.0.1' /run/zserv
until_there grep -q 'name bus_param, "to you"' /run/param

# The words that bash offers.
words=
eval "$(qzctl --completion bash | sed -n 's/^    env) words=\(.*\) ;;$/words=\1/p')"
expect test "$words" = "list get set unset clear verify backup restore --backup --force --image --json --help"
exit $failed
