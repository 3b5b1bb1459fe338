"""Reading a sequence made by `lumetra-depth synth` with numpy alone.

frames(directory) lists (index, stacked frame) in order; ground_truth(path)
reads a depth_N.ldep file. PNG files are read by OpenCV when python3-opencv is
installed, else by the small 8-bit PNG reader below.
"""
import glob
import os
import re
import struct
import zlib

import numpy as np


def read_png(path):
    """An 8-bit grey or colour PNG as uint8 (H, W) or (H, W, 3) in blue, green, red order."""
    try:
        import cv2
        return cv2.imread(path, cv2.IMREAD_UNCHANGED)
    except ImportError:
        pass
    with open(path, "rb") as f:
        data = f.read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError(f"{path}: not a PNG file")
    pos, compressed = 8, []
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        pos += 12 + length
        if kind == b"IHDR":
            width, height, bits, colour, _, _, interlace = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            compressed.append(body)
    if bits != 8 or colour not in (0, 2) or interlace:
        raise ValueError(f"{path}: only 8-bit grey or RGB PNG without interlacing is read here")
    channels = 1 if colour == 0 else 3
    rows = np.frombuffer(zlib.decompress(b"".join(compressed)), np.uint8).reshape(height, 1 + width * channels)
    kinds = rows[:, 0]
    filtered = rows[:, 1:].reshape(height, width, channels).astype(np.int32)
    # Undo the per-row filters one anti-diagonal at a time: a pixel depends on
    # its left, upper and upper-left neighbours only. Padded by a zero row and column.
    image = np.zeros((height + 1, width + 1, channels), np.int32)
    for d in range(height + width - 1):
        r = np.arange(max(0, d - width + 1), min(height, d + 1))
        c = d - r
        left, up, corner = image[r + 1, c], image[r, c + 1], image[r, c]
        k = kinds[r].reshape(-1, 1)
        guess = left + up - corner
        near_left, near_up, near_corner = abs(guess - left), abs(guess - up), abs(guess - corner)
        paeth = np.where((near_left <= near_up) & (near_left <= near_corner), left,
                         np.where(near_up <= near_corner, up, corner))
        predicted = np.select([k == 1, k == 2, k == 3, k == 4], [left, up, (left + up) // 2, paeth], 0)
        image[r + 1, c + 1] = (filtered[r, c] + predicted) & 255
    image = image[1:, 1:].astype(np.uint8)
    return image[:, :, 0] if channels == 1 else image[:, :, ::-1].copy()


def ground_truth(path):
    """A .ldep file: "LDEP", width and height as little-endian uint32, then float32 rows."""
    with open(path, "rb") as f:
        magic, width, height = struct.unpack("<4sII", f.read(12))
        if magic != b"LDEP":
            raise ValueError(f"{path}: not a depth file")
        return np.fromfile(f, "<f4", width * height).reshape(height, width)


def frames(directory):
    """(index, stacked frame) for each frame_N.png of the sequence, in order."""
    for path in sorted(glob.glob(os.path.join(directory, "frame_*.png"))):
        yield int(re.search(r"frame_(\d+)\.png$", path).group(1)), read_png(path)


def timestamp(index):
    """The time stamp given to frame `index`: nanoseconds at 30 frames per second."""
    return (index + 1) * 33_333_333
