# Stage "musl": the program that calls every family, against the small libc. every_family in a box with
# the other ends of the bus and of the serial line; EVERY_FAMILY and TOOLS say how and with which.
"${TOOLS:=$BUILD/bin}/qzbox" --bind "$SOURCE" --bind "$BUILD" -- sh -c '
    "$0/mbusd" --quiet &
    "$0/modemsim" --link /tmp/modem "$1/examples/modem.at" >/dev/null &
    until [ -S /tmp/mbus.sock ] && [ -e /tmp/modem ]; do sleep 0.1; done
    $2' "$TOOLS" "$SOURCE" "${EVERY_FAMILY:-/qz/musl/every_family}"
