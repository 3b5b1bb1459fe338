"""Reading a sequence made by `lumetra-depth synth`, with OpenCV's Python module.

frames(directory) lists (index, stacked frame) in order; ground_truth(path)
reads a depth_N.tiff file (32-bit float, metres, 0 = no depth).
"""
import glob
import os
import re

import cv2


def read_png(path):
    """An 8-bit grey or colour image as uint8 (H, W) or (H, W, 3) in blue, green, red order."""
    image = cv2.imread(path, cv2.IMREAD_UNCHANGED)
    if image is None:
        raise ValueError(f"{path}: not an image OpenCV can read")
    return image


def ground_truth(path):
    """A float depth TIFF as float32 (H, W)."""
    depth = cv2.imread(path, cv2.IMREAD_UNCHANGED)
    if depth is None or depth.dtype != "float32":
        raise ValueError(f"{path}: not a 32-bit float depth image")
    return depth


def frames(directory):
    """(index, stacked frame) for each frame_N.png of the sequence, in order."""
    for path in sorted(glob.glob(os.path.join(directory, "frame_*.png"))):
        yield int(re.search(r"frame_(\d+)\.png$", path).group(1)), read_png(path)


def timestamp(index):
    """The time stamp given to frame `index`: nanoseconds at 30 frames per second."""
    return (index + 1) * 33_333_333
