#!/bin/sh
# SPDX-License-Identifier: MIT
# Usage: bridge.sh BIN CASE [SANITIZER], in a box: the bridge, the bus and a broker of the field.
# A case fails by saying why.
set -u
here=$(dirname "$0")
PATH=$1:$PATH:/usr/sbin
sanitized=${3:-}
for file in hosts nsswitch.conf; do
    mount --bind "$here/../machine/etc/$file" /etc/$file
done
cd /tmp || exit 1
port=1883
me=routers/K31A19041500042 # of examples/router/tmp/device.info

fail() {
    echo "FAILED: $*"
    tail -n 20 broker.log bridge.log watch.out 2>/dev/null
    exit 1
}

# until_true COMMAND...: the limit tells a hang only.
until_true() {
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        [ $tries -lt 1200 ] || fail "this did not happen: $*"
        sleep 0.05
    done
}

# lines N PATTERN FILE: whether the file holds exactly that many such lines.
lines() { [ "$(grep -c "$2" "$3")" -eq "$1" ]; }

# broker [LINE...]: starts one, with these lines in its configuration.
broker() {
    printf '%s\n' "log_type all" "log_dest file /tmp/broker.log" "persistence false" "user root" \
        "max_queued_messages 0" "$@" >broker.conf
    : >broker.log
    mosquitto -c broker.conf >/dev/null 2>&1 &
    broker=$!
    until_true grep -q ' running$' broker.log
}
open_broker() { broker "listener $port 127.0.0.1" "allow_anonymous true"; }

# listen: what the fleet's owner sees, in seen.
listen() {
    : >seen
    mosquitto_sub -h 127.0.0.1 -p $port -t '#' -q 1 -F '%r %t %p' >seen &
    until_true grep -q "Received SUBSCRIBE" broker.log
}

bridge() {
    mbus-mqtt --host 127.0.0.1 --retry 1:1 --log bridge.log "$@" &
    bridge=$!
    until_true grep -q 'on the bus as' bridge.log
}

end_bridge() {
    kill "$bridge"
    wait "$bridge" || fail "the bridge's exit status"
}

# The bus, a daemon that tells it what is written to descriptor 9, and one that prints what it hears.
bus() {
    mbusd --quiet --log mbusd.log &
    until_true test -S mbus.sock
    mkfifo param.in
    bus_param <param.in >param.out &
    exec 9>param.in
    until_true grep -q connected param.out
    bus_watch watcher >watch.out &
    until_true grep -q mtu=1500 watch.out
}

# events FIRST LAST: not more at once than fit into a ring; the bus's other listener has heard them all.
events() {
    first=$1
    while [ "$first" -le "$2" ]; do
        last=$((first + 29 < $2 ? first + 29 : $2))
        seq -f 'mtu=%g' "$first" $last >&9
        until_true grep -q "\"mtu=$last\"" watch.out
        first=$((last + 1))
    done
}

case_events() {
    open_broker
    listen
    bus
    bridge --publish 'par?m'
    until_true grep -qx "0 $me/state online" seen
    until_true grep -qx "0 $me/status/rssi -71" seen
    events 1 3
    until_true grep -qx "0 $me/bus/param/0 mtu=3" seen
    sed -e 's/^rssi:.*/rssi:-60/' -e /^sim:/d modem.info >new && mv new modem.info
    until_true grep -qx "0 $me/status/rssi -60" seen
    until_true grep -qx "0 $me/status/sim " seen
    lines 1 "status/imei" seen || fail "a value that did not change was published again"
    mosquitto_sub -h 127.0.0.1 -t "$me/#" -W 2 -F '%r %t %p' >kept
    for text in "1 $me/state online" "1 $me/status/rssi -60" "1 $me/dropped 0"; do
        grep -qx "$text" kept || fail "not retained: $text"
    done
    ! grep -q "bus/\|sim" kept || fail "an event or a value that is gone was retained"
    mosquitto_sub -h 127.0.0.1 -i K31A19041500042 -t none -E # another router of the same name
    until_true lines 2 "state online" seen
    # The server of the bus is replaced: the bridge joins the next one.
    kill "$(pgrep -x mbusd)"
    until_true grep -q "^mbusd: ended\|ending" mbusd.log
    rm bridge.log
    mbusd --quiet --log mbusd2.log &
    until_true grep -q "on the bus as" bridge.log
    end_bridge
    until_true grep -qx "0 $me/state offline" seen
}

case_orders() {
    open_broker
    bus
    bridge --accept 'led*' --accept m\* --name mine
    until_true grep -q "K31A19041500042 1 $me/send/#" broker.log
    mosquitto_pub -h 127.0.0.1 -t $me/send/led/2 -r -m kept
    for topic in other/1 led/4 mine/1; do
        mosquitto_pub -h 127.0.0.1 -t $me/send/$topic -m refused
    done
    mosquitto_pub -h 127.0.0.1 -t routers/another/send/led/1 -m another
    mosquitto_pub -h 127.0.0.1 -t $me/send/led/1 -n
    until_true grep -q "has not 1 to 4096" bridge.log
    sleep 1.1 # at most one such line is logged in a second
    head -c 4097 /dev/zero | mosquitto_pub -h 127.0.0.1 -t $me/send/led/1 -s
    head -c 100000 /dev/zero | mosquitto_pub -h 127.0.0.1 -t $me/send/led/1 -s # the broker keeps it back
    mosquitto_pub -h 127.0.0.1 -t $me/send/led/3 -m last
    until_true grep -qx 'bus_watch: got type 3, name led, "last"' watch.out
    grep -qx 'bus_watch: got type 2, name led, "kept"' watch.out || fail "an order"
    lines 2 ", name led," watch.out || fail "more orders than two"
    ! grep -q "refused\|another" watch.out || fail "an order that is not accepted"
    for why in "not accepted" "type from 0 to 3" "takes none itself"; do
        lines 1 "$why" bridge.log || fail "not once in the log: $why"
    done
    lines 2 "has not 1 to 4096 bytes" bridge.log || fail "a payload that is empty or too long"
    # What the broker retains is no order for the next connection.
    end_bridge && rm bridge.log
    bridge --accept '*' --name mine --session 0
    until_true lines 2 "K31A19041500042 1 $me/send/#" broker.log
    mosquitto_pub -h 127.0.0.1 -t $me/send/x/0 -m now
    until_true grep -q "now" watch.out
    lines 1 kept watch.out || fail "a retained order came again"
}

# What the broker keeps as dropped, and what it has got, are all of the 300.
accounted() {
    mosquitto_sub -h 127.0.0.1 -t "$me/dropped" -C 1 >dropped
    lines $((300 - $(cat dropped))) "Received PUBLISH.*bus/param" broker.log
}

# Of 300 events the broker has read none when it is killed: 20 are in flight, more does it not permit.
case_cut_line() {
    open_broker
    bus
    bridge --publish param --queue 1000000
    until_true grep -q "Received PUBLISH.*/dropped'" broker.log # the last of the values
    events 1 1
    until_true grep -q "d0.*bus/param" broker.log
    kill -STOP $broker
    events 2 301 # the bus is not held up
    kill -KILL $broker
    wait $broker
    until_true grep -q "connection is lost, 30[01] events wait" bridge.log # the first may not be acknowledged
    waiting=$(sed -n 's/.*lost, \(.*\) events wait/\1/p' bridge.log)
    kill -STOP "$bridge" # until somebody listens
    open_broker
    listen
    kill -CONT "$bridge"
    until_true lines "$waiting" bus/param seen
    seq -f "0 $me/bus/param/0 mtu=%g" $((302 - waiting)) 301 >expected
    grep bus/param seen | cmp - expected || fail "the order"
    # The 20 were sent before, the others were not.
    lines 20 "Received PUBLISH.*(d1.*bus/param" broker.log || fail "the flag"
    # Without room the oldest go, and are counted.
    end_bridge && rm bridge.log
    bridge --publish param --queue 16384
    until_true grep -q "connected to" bridge.log
    kill -KILL $broker
    wait $broker
    until_true grep -q "connection is lost" bridge.log
    events 1001 1300
    open_broker
    until_true grep -q "Received PUBLISH.*bus/param" broker.log
    until_true accounted
    [ "$(cat dropped)" -gt 200 ] || fail "$(cat dropped) dropped: more fitted than the queue holds"
}

case_login_and_tls() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.crt -days 1 -subj /CN=ca 2>/dev/null
    openssl req -newkey rsa:2048 -nodes -keyout key -out csr -subj /CN=localhost 2>/dev/null
    echo subjectAltName=DNS:localhost >san
    openssl x509 -req -in csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 1 -extfile san -out crt 2>/dev/null
    openssl req -x509 -newkey rsa:2048 -nodes -keyout x.key -out other.crt -days 1 -subj /CN=ca 2>/dev/null
    mosquitto_passwd -c -b passwords me secret
    broker "listener 8883" "cafile /tmp/ca.crt" "certfile /tmp/crt" "keyfile /tmp/key" "password_file /tmp/passwords"
    bus
    printf 'me\nsecret\n' >login
    chmod 644 login
    mbus-mqtt --host localhost --ca ca.crt --login login 2>said && fail "took a file that others read"
    grep -q "^mbus-mqtt: --login login: others than its owner" said || fail "$(cat said)"
    chmod 600 login
    mbus-mqtt --host localhost --login login 2>said && fail "would send it in clear"
    grep -q "^mbus-mqtt: the password would go out in clear" said || fail "$(cat said)"
    mbus-mqtt --host localhost --ca other.crt --login login --retry 1:1 --log bridge.log &
    until_true grep -q "no connection\|certificate verify failed" bridge.log
    mbus-mqtt --host 127.0.0.1 --ca ca.crt --login login --retry 1:1 --name b2 --log name.log & # no such name
    until_true grep -q "certificate\|no connection" name.log
    printf 'me\nwrong\n' >wrong
    chmod 600 wrong
    mbus-mqtt --host localhost --ca ca.crt --login wrong --retry 1:1 --name b3 --log wrong.log &
    until_true grep -q "the broker refuses: Not authorized" wrong.log
    ! grep -q "as K31A19041500042" broker.log || fail "a connection that should not be"
    # The same from the service store.
    printf 'host=localhost\nca=/tmp/ca.crt\nlogin=/tmp/login\npublish=nothing\npublish=param\n' >config/mqtt.conf
    mbus-mqtt --log good.log --name b4 &
    until_true grep -q "connected to localhost" good.log
    until_true grep -q "on the bus" good.log
    events 1 1
    until_true grep -q "Received PUBLISH from K31A19041500042.*bus/param/0" broker.log
}

case_hostile_broker() {
    bus
    python3 "$here/hostile.py" $port >hostile.out &
    hostile=$!
    bridge --publish param --accept 'led*' --keepalive 5
    wait $hostile || fail "the hostile broker: $(cat hostile.out)"
    memory="no memory for"
    [ -z "$sanitized" ] || memory="refused" # there is no limit then
    for why in "$memory" "broker refuses: Not authorized" "ends the connection: Session taken over" "topic is another's" "name is too long" "payload has not"; do
        until_true grep -q "$why" bridge.log
    done
    lines 0 "name led" watch.out || fail "a hostile order came through"
    [ "$memory" = refused ] || resident=$(awk '/VmHWM/ {print $2}' /proc/$bridge/status)
    [ "${resident:-0}" -lt 40000 ] || fail "the bridge took $resident KiB"
    open_broker
    events 1 1
    until_true grep -q "Received PUBLISH from K31A19041500042.*bus/param/0" broker.log
}

case_arguments() {
    printf 'me\n' >half
    chmod 600 half
    while IFS='|' read -r words text; do
        # shellcheck disable=SC2086 # words
        mbus-mqtt $words >out 2>said && fail "took $words"
        case "$(cat said)" in
        "mbus-mqtt: $text"*) ;;
        *) fail "$words: $(cat said)" ;;
        esac
    done <<TABLE
--port 1|no broker
--host h x|x: there are options only
--host h --port 65536|--port 65536: not a number from 1
--host h --id a/b|--id a/b: a router's name holds no /
--host h --prefix a/+/b|--prefix a/+/b: the name holds + or #
--host h --prefix a/|--prefix a/: it begins with / or \$, or ends with /
--host h --retry 5:2|--retry 5:2: the first pause is longer
--host h --retry 5|--retry 5: not two numbers
--host h --queue 100|--queue 100: not a number from 16384
--host h --cert c|a certificate needs its key
--host h --cert c --key k|a certificate is of use with TLS only
--host h --login none|--login none: No such file
--host h --login half|--login half: not two lines
--host h --login /tmp|--login /tmp: not a file
--host h --log /none/log|cannot write the log /none/log: No such
TABLE
    echo 'hots=h' >config/mqtt.conf
    mbus-mqtt --host h 2>said && fail "took a parameter that there is not"
    grep -q '^mbus-mqtt: mqtt.conf: hots: no parameter' said || fail "$(cat said)"
    echo shutdown >config/mqtt.conf
    mbus-mqtt --host h || fail "shutdown"
}

case_"$2"
echo passed
