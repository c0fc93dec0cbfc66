# SPDX-License-Identifier: MIT
# boardd: the hardware's daemon counts boots, drives lights, feeds the watchdog, takes orders.
. scripts/demo-scene.sh

title "boardd: identity, boot environment, LEDs, watchdog, local messages"
partition=$(grep -l '^aboot$' /sys/class/mtd/mtd*/name | sed 's|.*/mtd\([0-9]*\)/name|\1|')
flash=/dev/mtdblock$partition
note "the flash is $flash; the watchdog is a plain file, which can be fed but not stopped"
note "the settings, of which the serial number is one:"
nvram show | show
note "an order that no daemon takes:"
boardd led net 2 >/tmp/order.out 2>&1 && fail "the order was carried out"
show /tmp/order.out
grep -q '^boardd: net 2: no boardd takes the order' /tmp/order.out || fail "the order did not say why"

# start_boardd LOG: starts it in the background, its output in LOG.
start_boardd() {
    boardd >"$1" &
    boardd_pid=$!
    wait_for "boardd's start" grep -q 'boardd: running' "$1"
}

# order WORD...: gives an order and shows the answer.
order() {
    boardd "$@" >/tmp/order.out || fail "the order was not carried out"
    show /tmp/order.out
}

# kernel_confirms LED TRIGGER: plays the kernel, which marks the active trigger in its list.
kernel_confirms() {
    [ "$(cat "/sys/class/leds/$1/trigger")" = "$2" ] || fail "LED $1 did not get the trigger $2"
    echo "none timer oneshot" | sed "s/$2/[$2]/" >"/sys/class/leds/$1/trigger"
}

note "first boot"
start_boardd /tmp/boot1.out
wait_for "its own announcement" grep -q 'heard from boardd' /tmp/boot1.out
show /tmp/boot1.out
for text in 'hardware [^(]' 'device id [^(]' 'boot loader 1.4.2' 'serial number QZ-0042' 'board K31, module EC20' \
    'id 1a2b3c4d' 'boardd: boot 1$'; do
    grep -q "$text" /tmp/boot1.out || fail "no \"$text\" in the identity"
done

note "another process orders by name: LED net fast, LED data on"
kernel_confirms power none
order led net 2
order led data 1
[ "$(cat /sys/class/leds/net/delay_on /sys/class/leds/net/delay_off)" = 100100 ] || fail "the delays of net"
[ "$(cat /sys/class/leds/data/brightness)" = 1 ] || fail "the brightness of data"
kernel_confirms net timer
kernel_confirms data none
note "and asks"
for led in net data power; do
    order show $led
done
typed qzctl led || fail "no lights"
grep -q 'LED net is in mode 2' /tmp/boot1.out || fail "net does not blink"
grep -q 'LED data is in mode 1' /tmp/boot1.out || fail "data is not on"

fed=$(wc -c </dev/mdm9x07_watchdog)
wait_for "another feed" sh -c "[ \$(wc -c </dev/mdm9x07_watchdog) -gt $fed ]"
note "the watchdog was fed $(wc -c </dev/mdm9x07_watchdog) times"
end "$boardd_pid" || fail "boardd's exit status"
[ "$(cat /sys/class/leds/power/trigger)" = none ] || fail "the power light is still on"
tail -n 2 /tmp/boot1.out | show

note "second boot"
start_boardd /tmp/boot2.out
grep 'boardd: boot [0-9]' /tmp/boot2.out | show
grep -q 'boardd: boot 2$' /tmp/boot2.out || fail "the boot was not counted"
end "$boardd_pid" || fail "boardd's exit status"
note "the environment in the last 128 KiB of $flash; a person changes it, too"
typed qzctl env set bootdelay=1 --backup /tmp/env.before || fail "the variable was not set"
typed qzctl env list || fail "the environment is not readable"
for variable in baudrate=115200 bootcount=2 bootdelay=1; do
    tail -c 131072 "$flash" | tail -c +5 | tr '\0' '\n' | grep -qx $variable || fail "$variable is not on flash"
done
