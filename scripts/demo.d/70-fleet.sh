# SPDX-License-Identifier: MIT
# mbus-mqtt: two routers in boxes of their own, and a broker between them that everybody may listen to.
. scripts/demo-scene.sh
PATH=$PATH:/usr/sbin
command -v mbus-mqtt >/dev/null || exit 0 # built with -DQZLIB_MQTT=ON

title "mbus-mqtt: from one router to a fleet"
broker=/tmp/line/broker.sock # the boxes see nothing else of each other
mkdir /tmp/line
chmod 777 /tmp/line
cat >/tmp/broker.conf <<CONF
listener 0 $broker
allow_anonymous true
user root
log_type error
CONF
mosquitto -c /tmp/broker.conf >/tmp/broker.log 2>&1 &
broker_pid=$!
wait_for "the broker's start" test -S $broker
note "whoever runs the fleet listens: mosquitto_sub -t 'routers/#' -v"
mosquitto_sub --unix $broker -t 'routers/#' -v >/tmp/seen &
sub_pid=$!

# router NAME: a bus, a daemon that tells it of its parameter, one that prints what it hears, the bridge.
router() {
    mkdir "/tmp/line/$1"
    mkfifo "/tmp/line/$1/in"
    # shellcheck disable=SC2016 # for the shell in the box
    qzbox --bind "$PWD" --bind /tmp/line -- sh -c '
        cd "/tmp/line/$2"
        mbusd --quiet --log mbusd.log &
        until [ -S /tmp/mbus.sock ]; do sleep 0.05; done
        mbus-mqtt --host "$1" --id "$2" --publish param --accept reboot --log bridge.log &
        bus_watch >watch.out &
        exec bus_param <in >param.out' sh $broker "$1" &
}

note "two routers start: north and south"
router north
north_pid=$!
router south
south_pid=$!
exec 8>/tmp/line/north/in 9>/tmp/line/south/in
for name in north south; do
    wait_for "the daemons of $name" grep -q 'mtu=1500' /tmp/line/$name/watch.out
    wait_for "the bridge of $name" grep -q 'on the bus as' /tmp/line/$name/bridge.log
    wait_for "the birth of $name" grep -qx "routers/$name/state online" /tmp/seen
done

note "a daemon of north changes its parameter: mtu=1428"
echo "mtu=1428" >&8
wait_for "the event at the broker" grep -qx 'routers/north/bus/param/0 mtu=1428' /tmp/seen
note "an order for south alone, and one that no router accepts"
mosquitto_pub --unix $broker -t routers/south/send/format/1 -m all
mosquitto_pub --unix $broker -t routers/south/send/reboot/1 -m "in 5 minutes"
wait_for "the order on the bus of south" grep -q 'got type 1, name reboot, "in 5 minutes"' /tmp/line/south/watch.out
grep -q reboot /tmp/line/north/watch.out && fail "north has got the order, too"
grep -q format /tmp/line/south/watch.out && fail "an order came through that is not accepted"

note "south ends, without a word"
kill -9 $south_pid
wait $south_pid 2>/dev/null
wait_for "its last will" grep -qx 'routers/south/state offline' /tmp/seen
exec 8>&- 9>&-
wait $north_pid || fail "the exit status of north"
wait_for "the last will of north" grep -qx 'routers/north/state offline' /tmp/seen
end $sub_pid
end $broker_pid || fail "the broker's exit status"

note "what the fleet's owner saw:"
show /tmp/seen
note "what daemons of south heard:"
show /tmp/line/south/watch.out
note "what its bridge logged:"
show /tmp/line/south/bridge.log
