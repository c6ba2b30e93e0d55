#!/usr/bin/python3
"""A hub client that knows only the wire format (4-byte little-endian length, then a MessagePack
map with integer keys). usage: wire_client.py PIPE_PATH. Answers PINGs and a post to object 0 (to
the poster: one of its objects, what it heard); exits 0 once pinged and that object released."""
import socket
import struct
import sys

import msgpack

TYPE, DISPLAY_NAME, TAG, WORKER_ID, OBJECT_ID, SOURCE, TARGET, PAYLOAD, OBJECTS, USAGE = range(1, 11)
HELLO, PING, PONG, MESSAGE, REFERENCE_RELEASE, INSTANCE_RELEASE, WORKER_DEAD = range(1, 8)


def send(sock, record):
    body = msgpack.packb(record, use_bin_type=True)
    sock.sendall(struct.pack("<I", len(body)) + body)


def frames(sock):
    buffer = b""
    while True:
        chunk = sock.recv(65536)
        if not chunk:
            return
        buffer += chunk
        while len(buffer) >= 4:
            (length,) = struct.unpack("<I", buffer[:4])
            if len(buffer) < 4 + length:
                break
            yield msgpack.unpackb(buffer[4:4 + length], raw=False, strict_map_key=False)
            buffer = buffer[4 + length:]


def main():
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.settimeout(20)
    sock.connect(sys.argv[1])
    send(sock, {TYPE: HELLO, DISPLAY_NAME: "python", TAG: "wire"})
    thing, pinged, released = None, False, None
    for record in frames(sock):
        kind = record.get(TYPE)
        if kind == HELLO:
            thing = (1 << 16) + record[WORKER_ID]
        elif kind == PING:
            send(sock, {TYPE: PONG})
            pinged = True
        elif kind == MESSAGE and record[OBJECT_ID] == 0:
            # The object travels as ext type 1 with its 8-byte little-endian id.
            payload = msgpack.packb({"thing": msgpack.ExtType(1, struct.pack("<Q", thing)),
                                     "heard": msgpack.unpackb(record[PAYLOAD], raw=False),
                                     "from": record[SOURCE]}, use_bin_type=True)
            send(sock, {TYPE: MESSAGE, OBJECT_ID: thing, TARGET: record[SOURCE], PAYLOAD: payload,
                        OBJECTS: {thing: "PyThing"}})
        elif kind == INSTANCE_RELEASE:
            released = [record[OBJECT_ID], record[USAGE]]
        if pinged and released:
            break
    sys.exit(0 if pinged and released == [thing, 1] else 1)


if __name__ == "__main__":
    main()
