# SPDX-License-Identifier: MIT
# modemd: a daemon talks to a simulated modem, and another one learns what the modem says.
. scripts/demo-scene.sh

title "modemd: the modem's line"
rm -f /tmp/modem.info # of the box's tree; from here on it is modemd's

# last_is NAME VALUE: what statusd read last.
last_is() {
    [ "$(grep "table: $1 is" /tmp/statusd.out | tail -n 1)" = "statusd: table: $1 is $2" ]
}
opened_twice() {
    [ "$(grep -c 'open the device(/tmp/modem) succeed' /tmp/modemd.log)" -ge 2 ]
}

mbus_pid=
if command -v mbusd >/dev/null; then
    note "the bus server starts"
    mbusd >/tmp/mbusd.out 2>&1 &
    mbus_pid=$!
    wait_for "the bus server" test -S /tmp/mbus.sock
fi

note "a simulated modem with a card in it, on /tmp/modem"
modemsim --link /tmp/modem --control /tmp/modem.control --transcript /tmp/modem.transcript \
    examples/modem.at >/tmp/modemsim.out &
sim_pid=$!
wait_for "the modem's line" test -e /tmp/modem

note "modemd opens the line; statusd wants to know how the modem is"
statusd >/tmp/statusd.out &
status_pid=$!
wait_for "statusd's start" grep -q 'statusd: running' /tmp/statusd.out
modemd /tmp/modem >/tmp/modemd.out &
modem_pid=$!

# The signal of examples/modem.at: 18, 21, 24 and 20 steps of 2 dB above -113 dBm.
wait_for "the signal quality" grep -qE 'table: rssi is -(77|71|65|73)' /tmp/statusd.out
wait_for "the card's state" last_is sim READY
note "what went over the line (the simulator's transcript):"
show /tmp/modem.transcript

note "the signal becomes worse: 3 steps, -107 dBm"
echo 'value csq = 3,99' >/tmp/modem.control
wait_for "the worse signal" last_is rssi -107

note "the USIM card is pulled out"
echo 'fault usim' >/tmp/modem.control
wait_for "the removal of the card" last_is sim absent

note "and put back; the line hangs up in the middle of an answer and comes back as another tty"
echo 'clear' >/tmp/modem.control
wait_for "the card" last_is sim READY
echo 'fault hangup' >/tmp/modem.control
wait_for "modemd's second line" opened_twice
wait_for "the signal on the new line" last_is rssi -107

note "the modem's status, for whoever asks"
typed qzctl modem || fail "there is no status"
note "what statusd saw:"
show /tmp/statusd.out
note "modemd's log:"
grep -v DEBUG /tmp/modemd.log | show

if [ -n "$mbus_pid" ]; then
    grep -q 'bus: rssi is -107' /tmp/statusd.out || fail "the signal quality did not come over the bus"
    grep -q 'bus: sim is absent' /tmp/statusd.out || fail "the card's removal did not come over the bus"
fi
end $modem_pid || fail "modemd's exit status"
end $status_pid || fail "statusd's exit status"
end $sim_pid || fail "modemsim's exit status"
[ ! -e /tmp/modem ] || fail "modemsim left its link"
if [ -n "$mbus_pid" ]; then
    end $mbus_pid || fail "mbusd's exit status"
fi
