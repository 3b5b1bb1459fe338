#!/usr/bin/env python3
"""Runs a synthetic sequence through lumetra_depth and prints the accuracy of
its depth against the sequence's ground truth.

    lumetra-depth synth --out seq --frames 10
    python3 accuracy.py seq
"""
import argparse
import glob
import os
import sys

import numpy as np

import lumetra_depth as ld
from synthetic_sequence import frames, ground_truth, read_png, timestamp


def compare(depth, truth):
    """Share of ground-truth pixels with depth, median relative error and share within 2 %."""
    if depth.shape != truth.shape:  # depth restored to the input size, truth at the working size
        rows = np.arange(truth.shape[0]) * depth.shape[0] // truth.shape[0]
        columns = np.arange(truth.shape[1]) * depth.shape[1] // truth.shape[1]
        depth = depth[np.ix_(rows, columns)]
    seen = truth > 0
    measured = seen & (depth > 0)
    error = np.abs(depth[measured] - truth[measured]) / truth[measured]
    return measured.sum() / seen.sum(), np.median(error), (error < 0.02).mean()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("sequence", help="directory written by 'lumetra-depth synth'")
    parser.add_argument("--frames", type=int, default=0, help="at most this many frames (default all)")
    args = parser.parse_args()

    results = []
    with ld.Depth(os.path.join(args.sequence, "config.yaml")) as cam:
        print(f"{cam.input_size[0]}x{cam.input_size[1]} views, matched at {cam.working_size[0]}x{cam.working_size[1]}")
        for index, frame in frames(args.sequence):
            if args.frames and index >= args.frames:
                break
            colour = os.path.join(args.sequence, f"colour_{index:06d}.png")
            if os.path.exists(colour):  # alignment on: the colour frame goes first
                cam.feed_colour(read_png(colour), timestamp(index))
            cam.feed_stereo(frame, timestamp(index))  # the configuration's async_mode 0: waits for the depth
            r = cam.depth()
            coverage, median, within = compare(r.depth, ground_truth(os.path.join(args.sequence,
                                                                                   f"depth_{index:06d}.tiff")))
            results.append((coverage, median, within))
            print(f"frame {index}: {100 * coverage:5.1f} % of pixels with depth, median error "
                  f"{100 * median:.2f} %, {100 * within:5.1f} % within 2 %")
    if not results:
        sys.exit(f"no frame_*.png in {args.sequence}")
    coverage, median, within = np.mean(results, axis=0)
    print(f"mean over {len(results)} frames: {100 * coverage:.1f} % with depth, median error {100 * median:.2f} %, "
          f"{100 * within:.1f} % within 2 %")


if __name__ == "__main__":
    main()
