#!/usr/bin/env python3
"""Computes the test vectors of docs/wire-protocol.md from nothing but Python's standard library.

Prints them; with --check FILE compares them with the blocks of that document instead. The cipher is
written out here after RFC 8439, so that the vectors do not come from the code they are to test.
"""
import base64
import hashlib
import json
import re
import struct
import sys


def chacha20_block(key, counter, nonce):
    state = list(struct.unpack("<4I", b"expand 32-byte k") + struct.unpack("<8I", key)
                 + (counter,) + struct.unpack("<3I", nonce))
    work = state[:]

    def quarter(a, b, c, d):
        for x, y, z, turn in ((a, b, d, 16), (c, d, b, 12), (a, b, d, 8), (c, d, b, 7)):
            work[x] = (work[x] + work[y]) & 0xFFFFFFFF
            mixed = work[z] ^ work[x]
            work[z] = ((mixed << turn) | (mixed >> (32 - turn))) & 0xFFFFFFFF

    for _ in range(10):
        for a, b, c, d in ((0, 4, 8, 12), (1, 5, 9, 13), (2, 6, 10, 14), (3, 7, 11, 15),
                           (0, 5, 10, 15), (1, 6, 11, 12), (2, 7, 8, 13), (3, 4, 9, 14)):
            quarter(a, b, c, d)
    return struct.pack("<16I", *((w + s) & 0xFFFFFFFF for w, s in zip(work, state)))


def poly1305(key, message):
    r = int.from_bytes(key[:16], "little") & 0x0FFFFFFC0FFFFFFC0FFFFFFC0FFFFFFF
    total = 0
    for i in range(0, len(message), 16):
        total = (total + int.from_bytes(message[i:i + 16] + b"\1", "little")) * r % (2**130 - 5)
    return ((total + int.from_bytes(key[16:], "little")) % 2**128).to_bytes(16, "little")


def seal(key, nonce, plaintext, additional):
    stream = b"".join(chacha20_block(key, 1 + i, nonce) for i in range((len(plaintext) + 63) // 64))
    ciphertext = bytes(p ^ s for p, s in zip(plaintext, stream))

    def padded(data):
        return data + bytes(-len(data) % 16)

    message = (padded(additional) + padded(ciphertext)
               + struct.pack("<QQ", len(additional), len(ciphertext)))
    return ciphertext + poly1305(chacha20_block(key, 0, nonce)[:32], message)


def subkey(master, number, context):
    return hashlib.blake2b(b"", digest_size=32, key=master, salt=struct.pack("<Q", number) + bytes(8),
                           person=context + bytes(8)).digest()


KEYFRAME, FEC_PACKET, AUDIO, LAST_IN_FRAME, AUDIO_PARITY = 0x01, 0x02, 0x04, 0x08, 0x20


def header(frame_id, index, count, flags, group=0, timestamp=0, stream=1):
    return struct.pack("<IIHHBBQ", stream, frame_id, index, count, flags, group, timestamp)


def media_nonce(head):
    stream, frame_id, index, _, flags = struct.unpack("<IIHHB", head[:13])
    return struct.pack("<IIHH", stream, frame_id, index, 0xA5C3 if flags & AUDIO_PARITY else 0)


def datagram(key, head, plaintext):
    return head + seal(key, media_nonce(head), plaintext, head)


REPAIR_FACTORS = (bytes.fromhex("92 2b 67 3c"), bytes.fromhex("ee 77 85 a1"))


def field_product(a, b):
    product = 0
    for bit in range(8):
        if b >> bit & 1:
            product ^= a << bit
    for bit in range(15, 7, -1):
        if product >> bit & 1:
            product ^= 0x14D << (bit - 8)
    return product


def sound_vectors(key):
    frames = [bytes.fromhex(text) for text in ("1122334455", "aabbcc", "01020304", "f0e1d2c3b4")]
    longest = max(map(len, frames))
    shards = []
    for number, factors in enumerate(REPAIR_FACTORS):
        symbol = bytearray(longest)
        for factor, frame in zip(factors, frames):
            for i, byte in enumerate(frame):
                symbol[i] ^= field_product(factor, byte)
        shards.append(struct.pack("<HBBBBH4H", longest, 4, 2, number, 1, 0, *map(len, frames)) + symbol)
    data = header(257, 0, 1, AUDIO | LAST_IN_FRAME, timestamp=5005000, stream=2)
    repair = header(256, 1, 4, AUDIO | AUDIO_PARITY, timestamp=5015000, stream=2)
    return {"repair-factors-0": REPAIR_FACTORS[0], "repair-factors-1": REPAIR_FACTORS[1],
            "sound-datagram": datagram(key, data, frames[1]),
            "sound-repair-0": shards[0], "sound-repair-1": shards[1],
            "sound-repair-nonce": media_nonce(repair),
            "sound-repair-datagram": datagram(key, repair, shards[1])}


def input_packet(kind, count, payload):
    return struct.pack("<BBH8x", 1, kind, count % 65536) + payload.ljust(16, b"\0")


def input_datagram(key, count, packet):
    nonce = bytes(range(0xA0, 0xA8)) + struct.pack("<I", count)
    return nonce + seal(key, nonce, packet, b"")


def input_vectors(key):
    move = input_packet(0, 0, struct.pack("<hhB", -3, 5, 1))
    press = input_packet(3, 65535, struct.pack("<HBB", 0xA3, 29, 2))
    wheel = input_packet(2, 65536, struct.pack("<hh", 0, -240))
    lost = input_packet(7, 2, struct.pack("<IIIBB", 100, 101, 103, 1, 1))
    return {"input-move-packet": move, "input-move-datagram": input_datagram(key, 0, move),
            "input-key-packet": press, "input-key-datagram": input_datagram(key, 65535, press),
            "input-wheel-datagram": input_datagram(key, 65536, wheel),
            "feedback-keyframe-packet": input_packet(6, 1, b""),
            "feedback-lost-packet": lost, "feedback-lost-datagram": input_datagram(key, 2, lost),
            "feedback-media-packet": input_packet(8, 3, struct.pack("<HHHB", 125, 18, 599, 1))}


def vectors():
    master = bytes(range(32))
    keys = {name: subkey(master, number, ("ox" + name + "1").encode())
            for number, name in ((1, "video"), (2, "audio"), (3, "input"))}
    video = keys["video"]
    out = {"master-key": master}
    for name, key in keys.items():
        out[name + "-key"] = key
    out["token-sha256"] = hashlib.sha256(b"correct horse").digest()

    small = bytes.fromhex("00 00 00 01 41 9a 02 1c 7f")
    head = header(0x01020304, 0, 1, LAST_IN_FRAME, timestamp=0x1122334455)
    out["small-nonce"] = struct.pack("<IIHH", 1, 0x01020304, 0, 0)
    out["small-datagram"] = datagram(video, head, small)

    frame = bytes((7 * i + 3) % 256 for i in range(2424))
    parts = [frame[i:i + 1162] for i in range(0, len(frame), 1162)]
    parity = bytearray(1162)
    for part in parts:
        for i, byte in enumerate(part):
            parity[i] ^= byte
    heads = [header(7, i, 3, KEYFRAME | (LAST_IN_FRAME if i == 2 else 0),
                    timestamp=5000000 if i == 0 else 0) for i in range(3)]
    heads.append(header(7, 3, 3, KEYFRAME | FEC_PACKET, group=0x80))
    for i, (head, part) in enumerate(zip(heads, parts + [bytes(parity)])):
        packet = datagram(video, head, part)
        out[f"key-header-{i}"] = head
        out[f"key-tag-{i}"] = packet[-16:]
        out[f"key-sha256-{i}"] = hashlib.sha256(packet).digest()
    out["key-parity-end"] = bytes(parity[96:112])
    out["repair-200-header"] = header(8, 1700 + 200, 1700, FEC_PACKET, group=0x80 | 200 & 0x7F)
    out["probe"] = b"OXP1"
    out["probe-legacy"] = bytes(1)

    out.update(sound_vectors(keys["audio"]))
    out.update(input_vectors(keys["input"]))

    ready = {"type": "session_ready", "caps": 0}
    ready.update({name + "_key": base64.b64encode(key).decode() for name, key in keys.items()})
    out["session-ready"] = json.dumps(ready, sort_keys=True, separators=(",", ":"))
    return out


def as_block(data):
    if isinstance(data, str):
        return ("json", data + "\n")
    rows = [data[i:i + 16] for i in range(0, len(data), 16)]
    return ("hex", "".join(row.hex(" ") + "\n" for row in rows))


def main():
    wanted = {name: as_block(data) for name, data in vectors().items()}
    if len(sys.argv) != 3 or sys.argv[1] != "--check":
        for name, (kind, text) in wanted.items():
            print(f"```{kind} {name}\n{text}```\n")
        return 0
    with open(sys.argv[2], encoding="utf-8") as document:
        blocks = re.findall(r"^```(hex|json) (\S+)\n(.*?)^```$", document.read(), re.M | re.S)
    found = {name: (kind, text) for kind, name, text in blocks}
    computable = wanted.keys() | {name for name, (kind, _) in found.items() if kind == "hex"}
    wrong = [name for name in sorted(computable) if found.get(name) != wanted.get(name)]
    print("vectors that differ: " + ", ".join(wrong) if wrong else f"{len(wanted)} vectors agree")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
