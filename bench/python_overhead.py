#!/usr/bin/env python3
"""What the Python binding adds to a frame: feed_stereo + depth() from Python
against the same two calls from the C host (lumo_python_host), on the same
rendered 640x400 frame and configuration (synchronous, one matcher). The two
take turns in chunks of a few frames, so that both see the same load; then
the read of a depth alone, where the binding allocates its arrays.

    python3 bench/python_overhead.py [BUILD_DIR] [--chunks 40] [--chunk 5]
"""
import argparse
import glob
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

WIDTH, HEIGHT = 640, 400


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", nargs="?", default="build")
    parser.add_argument("--chunks", type=int, default=40)
    parser.add_argument("--chunk", type=int, default=5, help="frames per turn")
    args = parser.parse_args()
    host = os.path.join(args.build, "tests", "python", "lumo_python_host")
    if not glob.glob(os.path.join(args.build, "python", "lumetra_depth*.so")) or not os.path.exists(host):
        print("python overhead: skipped, the Python module is not built (pybind11-dev, LUMO_BUILD_PYTHON)")
        return
    sys.dont_write_bytecode = True  # nothing left behind in the source tree
    sys.path.insert(0, os.path.join(args.build, "python"))
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "python"))
    import lumetra_depth as ld
    from conftest import write_config

    with tempfile.TemporaryDirectory() as directory:
        bench = [host, "bench", directory, "--width", str(WIDTH), "--height", str(HEIGHT)]
        subprocess.run(bench, check=True)  # renders the frame and its calibration
        frame = np.fromfile(os.path.join(directory, "frame_0.raw"), np.uint8).reshape(2 * HEIGHT, WIDTH)
        write_config(directory, input_stereo_width=str(WIDTH), input_stereo_height=str(HEIGHT))
        c_host = subprocess.Popen(bench, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

        def c_turn(command, count):
            c_host.stdin.write(f"{command} {count}\n")
            c_host.stdin.flush()
            times = []
            for line in c_host.stdout:
                if line.startswith("ok"):
                    return times
                if line.startswith(("frame_ms ", "get_ms ")):
                    times.append(float(line.split()[1]))
            raise RuntimeError("the C host stopped")

        c_frames, py_frames, c_reads, py_reads = [], [], [], []
        with ld.Depth(os.path.join(directory, "config.yaml")) as cam:
            c_turn("frames", args.chunk)  # warm-up on both sides
            for stamp in range(1, args.chunk + 1):
                cam.feed_stereo(frame, stamp)
            for turn in range(args.chunks):
                c_frames += c_turn("frames", args.chunk)
                for _ in range(args.chunk):
                    stamp += 1
                    start = time.perf_counter()
                    cam.feed_stereo(frame, stamp)
                    cam.depth()
                    py_frames.append(1000 * (time.perf_counter() - start))
                c_reads += c_turn("reads", args.chunk)
                for _ in range(args.chunk):
                    start = time.perf_counter()
                    cam.depth()
                    py_reads.append(1000 * (time.perf_counter() - start))
        c_host.stdin.close()
        c_host.wait()

    c, py = statistics.median(c_frames), statistics.median(py_frames)
    c_read, py_read = statistics.median(c_reads), statistics.median(py_reads)
    print(f"Python binding overhead at {WIDTH}x{HEIGHT}, medians of {len(py_frames)} frames each:")
    print(f"  feed_stereo + depth()   C host {c:7.3f} ms   Python {py:7.3f} ms   ({100 * (py - c) / c:+.1f} %)")
    print(f"  depth() alone           C host {c_read:7.3f} ms   Python {py_read:7.3f} ms   "
          f"(+{1000 * (py_read - c_read):.0f} us, {100 * (py_read - c_read) / c:.2f} % of the frame time)")


if __name__ == "__main__":
    main()
