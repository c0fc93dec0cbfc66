# SPDX-License-Identifier: MIT
"""hello.py NAME [PEER TEXT]: joins the bus as NAME and prints its packets; sends TEXT to PEER first."""

import os
import sys
import time

import qzlib


def join(name):
    tries = 3  # a busy server may take longer than the call waits
    while qzlib.connect_mbus_server(name.encode()) != 0:
        tries -= 1
        if tries == 0 or not os.path.exists(qzlib.MBUS_SOCKET):
            return False
        time.sleep(0.3)
    print(f"{name}: on the bus")
    return True


def main():
    if len(sys.argv) not in (2, 4):
        sys.exit(__doc__)
    name = sys.argv[1]

    def got(kind, to, data):
        print(f'{name}: got "{data.decode()}", type {kind}, for {to.decode()}')

    qzlib.openmsg(name.encode())
    if not join(name):
        sys.exit(f"{name}: no place on the bus")
    if len(sys.argv) == 4:
        peer, text = (argument.encode() for argument in sys.argv[2:])
        sys.exit(qzlib.mbus_write(1, peer, text) < 0)
    qzlib.mbus_down_cache_process(0, got)
    while True:
        if qzlib.find_client_by_name(name.encode()) is None:
            qzlib.debug_msg(qzlib.LOG_WARNING, b"hello", 0, b"the server is gone")
            while not (os.path.exists(qzlib.MBUS_SOCKET) and join(name)):
                time.sleep(1)
        time.sleep(0.1)


if __name__ == "__main__":
    main()
