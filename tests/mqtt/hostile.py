# SPDX-License-Identifier: MIT
# A broker that means no good: one misdeed after the other, each on a connection of its own.
import socket, struct, sys

server = socket.create_server(("127.0.0.1", int(sys.argv[1])))
CONNACK = b"\x20\x03\x00\x00\x00"
BASE = b"routers/K31A19041500042/send/"


def length(count):
    out = b""
    while True:
        count, low = divmod(count, 128)
        out += bytes([low | (128 if count else 0)])
        if not count:
            return out


def publish(topic, payload, flags=0):
    number = b"\x00\x07" if flags & 6 else b""
    body = struct.pack(">H", len(topic)) + topic + number + b"\x00" + payload
    return bytes([0x30 | flags]) + length(len(body)) + body


MISDEEDS = [
    b"\x20\x03\x00\x87\x00",  # not authorized
    b"\x00\x00" + b"\xff" * 64,  # no packet at all
    CONNACK + b"\xe0\x02\x8e\x00",  # the session was taken over
    CONNACK + b"\xf0\x00",  # nor that
    CONNACK + b"\x30" + length(200_000_000) + b"\x00\x01a" + b"\x55" * 4_000_000,  # a packet without end
    CONNACK + publish(BASE + b"n" * 60000 + b"/1", b"x") * 3,
    CONNACK + publish(BASE + b"led/1", b"x" * 60000) * 3,
    CONNACK + publish(b"routers/another/send/led/1", b"x") * 20000,
    CONNACK + publish(BASE + b"led/7", b"x", 2) * 50 + publish(BASE + b"led/\xff\xfe/1", b"x"),
    CONNACK + b"".join(publish(BASE + b"led/%d" % n, b"x", 4) for n in range(1000)),  # never released
    CONNACK + b"\x40\x02\x00\x01" * 5000,  # acknowledges what was not sent
    CONNACK + publish(BASE + b"led/1", b""),
]
for misdeed in MISDEEDS:
    line, _ = server.accept()
    line.settimeout(60)
    try:
        line.recv(1000)
        line.sendall(misdeed)
        line.shutdown(socket.SHUT_WR)
        while line.recv(65536):
            pass
    except OSError:
        pass  # the bridge has had enough
    line.close()
