#!/usr/bin/env python3
"""Writes rotrandom.dds: 64x64 RGBA8 random rotations for the rotated-disc
shadow filter. RG hold (cos a, sin a) and BA (cos b, sin b) of two angles,
each component packed from [-1, 1] to [0, 255]. A fixed seed makes the file
the same on every run.

    python3 rotrandom.py [output]     (default: rotrandom.dds beside this file)
"""
import math
import os
import random
import struct
import sys

SIZE = 64
SEED = 20261124


def pack(value):
    return max(0, min(255, int(round((value * 0.5 + 0.5) * 255.0))))


def pixels(size, seed):
    rng = random.Random(seed)
    out = bytearray()
    for _ in range(size * size):
        for _pair in range(2):
            angle = rng.random() * 2.0 * math.pi
            out += bytes((pack(math.cos(angle)), pack(math.sin(angle))))
    return bytes(out)


def header(size):
    caps, height, width, pitch, pixelformat = 0x1, 0x2, 0x4, 0x8, 0x1000
    rgb, alpha_pixels = 0x40, 0x1
    pf = struct.pack("<8I", 32, rgb | alpha_pixels, 0, 32, 0xFF, 0xFF00, 0xFF0000, 0xFF000000)
    texture = 0x1000
    return (b"DDS " +
            struct.pack("<7I", 124, caps | height | width | pitch | pixelformat, size, size, size * 4, 0, 1) +
            struct.pack("<11I", *([0] * 11)) + pf + struct.pack("<5I", texture, 0, 0, 0, 0))


def main():
    target = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                                                  "rotrandom.dds")
    with open(target, "wb") as f:
        f.write(header(SIZE) + pixels(SIZE, SEED))


if __name__ == "__main__":
    main()
