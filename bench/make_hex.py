#!/usr/bin/env python3
"""Writes an Intel HEX file of BYTES bytes that look like firmware, for the benchmarks.

Usage: bench/make_hex.py OUT BYTES
"""
import sys


def record(address, kind, data):
    body = bytes([len(data), address >> 8 & 255, address & 255, kind]) + data
    return ":" + body.hex().upper() + "%02X\n" % (-sum(body) & 255)


def main():
    out, length = sys.argv[1], int(sys.argv[2])
    image = bytes((i * 7 + i // 251 + 3) & 255 for i in range(length))
    with open(out, "w") as f:
        segment = 0
        for at in range(0, length, 16):
            # Beyond 64 KiB a segment record moves the base, 16 bytes a step.
            if at >> 16 != segment:
                segment = at >> 16
                f.write(record(0, 2, (segment << 12).to_bytes(2, "big")))
            f.write(record(at & 0xFFFF, 0, image[at:at + 16]))
        f.write(record(0, 1, b""))


main()
