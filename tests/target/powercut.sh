# Stage "powercut": sets the boot environment until somebody cuts the power.
. tests/target/flash.sh
echo 4 >/sys/block/sda/queue/max_sectors_kb # a block goes out in pieces, as flash pages do
"$BUILD/bin/environment_loop" "${QZ_rounds:-100000}"
