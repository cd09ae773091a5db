#!/usr/bin/env python3
"""Draws lake.png, a blue drop on nothing, with the standard library alone: make_icon.py > lake.png"""
import struct
import sys
import zlib

SIZE = 32


def pixel(x, y):
    """RGBA of one pixel: a circle with a point on top."""
    dx, dy = x - 15.5, y - 20.0
    inside = dx * dx + dy * dy <= 81 or (1 <= y < 20 and abs(dx) <= (y - 1) * 0.47)
    if not inside:
        return (0, 0, 0, 0)
    light = max(0, min(60, int(40 - 3 * dx - 2 * dy)))
    return (30 + light, 110 + light, 190 + light, 255)


def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


rows = b"".join(b"\0" + b"".join(bytes(pixel(x, y)) for x in range(SIZE)) for y in range(SIZE))
sys.stdout.buffer.write(
    b"\x89PNG\r\n\x1a\n"
    + chunk(b"IHDR", struct.pack(">IIBBBBB", SIZE, SIZE, 8, 6, 0, 0, 0))
    + chunk(b"IDAT", zlib.compress(rows, 9))
    + chunk(b"IEND", b"")
)
