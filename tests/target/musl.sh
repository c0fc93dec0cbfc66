# Stage "musl": the program that calls every family, against the small libc, in a box with the other ends
# of the bus and of the serial line. scripts/target-musl says in EVERY_FAMILY and TOOLS where it has them.
# shellcheck disable=SC2016 # for the inner shell
"${TOOLS:=$BUILD/bin}/qzbox" --bind "$SOURCE" --bind "$BUILD" -- sh -c '
    "$0/mbusd" --quiet &
    "$0/modemsim" --link /tmp/modem "$1/examples/modem.at" >/dev/null &
    until [ -S /tmp/mbus.sock ] && [ -e /tmp/modem ]; do sleep 0.1; done
    $2' "$TOOLS" "$SOURCE" "${EVERY_FAMILY:-/qz/musl/every_family}"
