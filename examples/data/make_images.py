#!/usr/bin/env python3
"""Draws the images of the sample documents, with the standard library alone.

    make_images.py drop > lake.png
    make_images.py boat > lakes/images/boat.png
    make_images.py depth > lakes/overlays/depth.png
"""
import struct
import sys
import zlib


def drop(x, y):
    """RGBA of one pixel of 32 x 32: a blue circle with a point on top, on nothing."""
    dx, dy = x - 15.5, y - 20.0
    inside = dx * dx + dy * dy <= 81 or (1 <= y < 20 and abs(dx) <= (y - 1) * 0.47)
    if not inside:
        return (0, 0, 0, 0)
    light = max(0, min(60, int(40 - 3 * dx - 2 * dy)))
    return (30 + light, 110 + light, 190 + light, 255)


def boat(x, y):
    """RGBA of one pixel of 32 x 32: a white sail over a brown hull."""
    if 23 <= y < 29 and 3 + (y - 23) <= x <= 28 - (y - 23):
        return (122, 78, 42, 255)
    if 2 <= y < 22 and 15 <= x <= 15 + (y - 2) * 0.6:
        return (245, 245, 240, 255)
    return (90, 60, 30, 255) if 2 <= y < 23 and x == 14 else (0, 0, 0, 0)


def depth(x, y):
    """RGBA of one pixel of 96 x 64: a lake from above, the darker the deeper."""
    far = ((x - 47.5) / 46) ** 2 + ((y - 31.5) / 30) ** 2
    if far > 1:
        return (0, 0, 0, 0)
    step = int(far * 6) * 26  # lines of equal depth
    return (20 + step, 60 + step, 120 + step * 3 // 4, 200)


DRAWINGS = {"drop": (drop, 32, 32), "boat": (boat, 32, 32), "depth": (depth, 96, 64)}


def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


pixel, width, height = DRAWINGS[sys.argv[1]]
rows = b"".join(b"\0" + b"".join(bytes(pixel(x, y)) for x in range(width)) for y in range(height))
sys.stdout.buffer.write(
    b"\x89PNG\r\n\x1a\n"
    + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0))
    + chunk(b"IDAT", zlib.compress(rows, 9))
    + chunk(b"IEND", b"")
)
