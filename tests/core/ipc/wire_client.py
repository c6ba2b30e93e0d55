#!/usr/bin/python3
"""A hub client that knows only the wire format (4-byte little-endian length, then a MessagePack
map with integer keys). usage: wire_client.py PIPE_PATH REPORT_PATH. It answers PINGs, answers a
post to object 0 with a MESSAGE carrying one of its objects, and ends once that is released."""
import json
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
    pipe, report_path = sys.argv[1], sys.argv[2]
    report = {"pongs": 0}
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.settimeout(20)
    sock.connect(pipe)
    send(sock, {TYPE: HELLO, DISPLAY_NAME: "python", TAG: "wire"})
    my_id = None
    thing = None
    for record in frames(sock):
        kind = record.get(TYPE)
        if kind == HELLO:
            my_id = record[WORKER_ID]
            report["id"] = my_id
            thing = (1 << 16) + my_id
        elif kind == PING:
            send(sock, {TYPE: PONG})
            report["pongs"] += 1
        elif kind == MESSAGE and record[OBJECT_ID] == 0:
            peer = record[SOURCE]
            report["announced_by"] = peer
            report["announcement"] = msgpack.unpackb(record[PAYLOAD], raw=False)
            # The object travels as ext type 1 with its 8-byte little-endian id.
            payload = msgpack.packb({"thing": msgpack.ExtType(1, struct.pack("<Q", thing))},
                                    use_bin_type=True)
            send(sock, {TYPE: MESSAGE, OBJECT_ID: thing, TARGET: peer, PAYLOAD: payload,
                        OBJECTS: {thing: "PyThing"}})
        elif kind == INSTANCE_RELEASE:
            report["released"] = [record[OBJECT_ID], record[USAGE]]
            break
    with open(report_path, "w") as out:
        json.dump(report, out)
    ok = report.get("released") == [thing, 1] and report["pongs"] > 0
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
