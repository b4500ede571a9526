#!/usr/bin/env python3
"""Writes the example firmware files example.hex and example_encrypted.hex.

The output is the same on every run, so the files can be regenerated and compared.
Usage: python3 make_example.py [OUTPUT_DIR]
"""

import struct
import sys
from pathlib import Path

RECORD_SIZE = 16
STACK_TOP = 0x20002000
VECTOR_COUNT = 48
CODE_START = VECTOR_COUNT * 4
IMAGE_SIZE = 7 * 1024
BANNER = b"Palimbo example firmware\0"
VERSION = b"v1.0.0\0"


def record(rtype, address, data=b""):
    """One HEX line: byte count, address, type, data and the two's complement checksum."""
    body = bytes([len(data), address >> 8, address & 0xFF, rtype]) + data
    checksum = (-sum(body)) & 0xFF
    return ":" + (body + bytes([checksum])).hex().upper()


def code_bytes(length, seed):
    """Thumb-like halfwords from a fixed generator: plausible to the eye, same on every run."""
    opcodes = [0xB580, 0x4B02, 0x681B, 0x2B00, 0xD1FB, 0xBD80, 0x4770, 0xF000, 0xF800,
               0x6018, 0x3301, 0x2000, 0xE7FE, 0x4A03, 0x6812, 0xB510, 0xBD10, 0x46C0]
    out = bytearray()
    state = seed
    while len(out) < length:
        state = (state * 1103515245 + 12345) & 0x7FFFFFFF
        halfword = opcodes[state % len(opcodes)]
        if state & 0x100:
            halfword ^= (state >> 16) & 0x00FF  # vary the immediate field
        out += struct.pack("<H", halfword)
    return bytes(out[:length])


def example_image():
    reset_handler = CODE_START | 1  # Thumb entry points have bit 0 set
    default_handler = (CODE_START + 0x40) | 1
    vectors = [STACK_TOP, reset_handler] + [default_handler] * (VECTOR_COUNT - 2)
    image = bytearray(struct.pack("<%dI" % VECTOR_COUNT, *vectors))
    strings = BANNER + VERSION
    code_length = IMAGE_SIZE - len(image) - len(strings) - 4
    image += code_bytes(code_length, seed=0x5A17)
    image += strings
    image += struct.pack("<I", sum(image) & 0xFFFFFFFF)  # a trailing sum, as firmware often has
    return bytes(image)


def hex_lines(image):
    lines = [record(0, offset, image[offset:offset + RECORD_SIZE])
             for offset in range(0, len(image), RECORD_SIZE)]
    return lines + [record(1, 0)]


def encrypted_lines():
    """A small file whose data look scrambled, with the encryption marker in front."""
    scrambled = code_bytes(128, seed=0xC0DE)
    lines = [record(0xFF, 0)]
    lines += [record(0, offset, scrambled[offset:offset + RECORD_SIZE])
              for offset in range(0, len(scrambled), RECORD_SIZE)]
    return lines + [record(1, 0)]


def write(path, lines):
    path.write_bytes(("\r\n".join(lines) + "\r\n").encode("ascii"))


def main():
    out_dir = Path(sys.argv[1]) if len(sys.argv) > 1 else Path(__file__).resolve().parent
    write(out_dir / "example.hex", hex_lines(example_image()))
    write(out_dir / "example_encrypted.hex", encrypted_lines())


if __name__ == "__main__":
    main()
