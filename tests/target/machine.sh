# Stage "machine": what only a machine has, and at its end a watchdog that resets it.
. tests/target/flash.sh
load ledtrig-timer ledtrig-oneshot watchdog
insmod /modules/softdog.ko soft_margin=2 && ln -s watchdog /dev/mdm9x07_watchdog
"$BUILD/bin/test_machine" --gtest_filter=-FlashAfterReset.*:WatchdogReset.* || return
echo "qz: as far as the reset"
"$BUILD/bin/test_machine" --gtest_filter=WatchdogReset.*
