# Stage "machine": what only a machine has, and at its end a watchdog that resets it. The host's
# library has written three rounds into the flash.
. tests/target/flash.sh
load ledtrig-timer ledtrig-oneshot watchdog
insmod /modules/softdog.ko soft_margin=2 && ln -s watchdog /dev/mdm9x07_watchdog
rounds=$("$BUILD/bin/environment_loop" 2 | tr '\n' ' ')
[ "$rounds" = "found 3 set 4 set 5 " ] || { echo "FAILED: the flash from the host: $rounds" && return 1; }
"$BUILD/bin/test_machine" --gtest_filter=-FlashAfterReset.*:WatchdogReset.* || return
echo "qz: as far as the reset"
"$BUILD/bin/test_machine" --gtest_filter=WatchdogReset.*
