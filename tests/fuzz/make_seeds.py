#!/usr/bin/env python3
"""Writes the seed corpus: well-formed inputs for each fuzz target, in the
targets' input layout (a 2-byte little-endian length before each packet).
Run from this folder; the output is committed under corpus/<target>/."""
import os
import struct

KINDS = ["i16", "i32", "i64", "len", "ulen", "ptr", "mem", "block", "i16s", "i32s", "i64s",
         "lens", "ulens", "vars"]
FLAGS = [0x1, 0x2, 0x20, 0x8000, 0x10000, 0x40, 0x4, 0x80, 0x8, 0x10, 0x4000, 0x20000, 0x40000, 0x100]
WIDTH = {"i16": 2, "i32": 4, "i64": 8, "len": 8, "ulen": 8, "ptr": 8}
ELEMENT = {"i16s": 2, "i32s": 4, "i64s": 8, "lens": 8, "ulens": 8, "mem": 1, "block": 1}


def packets(*ps):
    return b"".join(struct.pack("<H", len(p)) + p for p in ps)


def params(other_order=False, narrow_ptr=False, narrow_len=False, compression=False):
    marker = b"\x11\x99" if other_order else b"\x99\x11"
    return (b"01:FuzzOS^02:1^03:fuzz^04:" + (b"4" if narrow_ptr else b"8") + b"^05:^06:" + marker +
            b"^07:" + (b"1" if compression else b"0") + b"^10:" + (b"4" if narrow_len else b"8") + b"^\0")


def table():
    out = [b"A"]
    for k, (name, flags) in enumerate(zip(KINDS, FLAGS)):
        r = f"B{len(KINDS) - 1 - k}!{name}!"
        for direction in (0x400, 0x800, 0xC00, 0):
            r += f"{flags | direction}!0!p!"
        out.append(r.encode() + b"\0")
    return out + [b"C"]


def ordinal(name):
    return struct.pack("<h", len(KINDS) - 1 - KINDS.index(name))


def block(payload):
    return struct.pack("<i", len(payload)) + payload


def variants():  # two elements: an int32 7 and a 3-byte block "abc" (tags are bit numbers)
    return struct.pack("<i", 2) + bytes([2]) + struct.pack("<i", 7) + bytes([3]) + block(b"abc")


def call(name):
    """A call frame as a client sends it: in, capacity or nothing for out, in-out, neither."""
    if name in WIDTH:
        value = struct.pack("<q", 5)[:WIDTH[name]]
        return b"D" + ordinal(name) + value + value
    if name == "vars":
        return b"D" + ordinal(name) + variants() * 4
    payload = bytes(range(ELEMENT[name] * 3))
    room = struct.pack("<i", len(payload))
    return b"D" + ordinal(name) + block(payload) + room + block(payload) + room


def reply(name):
    """A reply frame as a server sends it: out and in-out values."""
    if name in WIDTH:
        value = struct.pack("<q", 7)[:WIDTH[name]]
        return b"D" + ordinal(name) + value + value
    if name == "vars":
        return b"D" + ordinal(name) + variants() * 2
    payload = bytes(range(ELEMENT[name] * 3))
    return b"D" + ordinal(name) + block(payload) + block(payload)


def write(target, name, data):
    os.makedirs(f"corpus/{target}", exist_ok=True)
    with open(f"corpus/{target}/seed-{name}", "wb") as f:
        f.write(data)


def main():
    write("client_negotiation", "good", packets(b"87FA9694\0", b"1:0:fuzz\0", params(), *table()))
    write("client_negotiation", "narrow", packets(b"87FA9694\0", b"1:0:fuzz\0",
                                                  params(True, True, True, True), *table()))
    write("server_negotiation", "good", packets(params()))
    write("server_negotiation", "narrow", packets(params(True, True, True, True)))
    for name in KINDS:
        write("server_dispatch", name, b"\0" + packets(call(name), call(name)))
        write("client_reply", name, b"\0" + bytes([KINDS.index(name)]) + packets(reply(name), reply(name)))
    write("server_dispatch", "narrow-ptr", b"\x02" + packets(b"D" + ordinal("ptr") + b"\0\0\0\0" * 2))
    write("packets", "tty", b"\0" + b"\0\0\0\x05hello" + b"\0\0\0\0" + b"\xff\xff\xff\xffgone")
    write("packets", "bsd", b"\1" + b"\0\0\0\x05hello" + b"\0\0\x20\x00" + b"x" * 100)
    write("decoders", "variants", b"\1" + variants() * 4)


if __name__ == "__main__":
    main()
