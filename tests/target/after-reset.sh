# Stage "after-reset": the machine of stage "machine", started again.
. tests/target/flash.sh
"$BUILD/bin/test_machine" --gtest_filter=FlashAfterReset.* && "$BUILD/bin/environment_loop" 0 | grep -qx 'found 5'
