#!/usr/bin/env python3
"""Shows the point cloud of one frame of a synthetic sequence with Open3D
(Debian package python3-open3d) when it is installed and a display is there;
otherwise, or with --save, writes it as an ASCII PLY file.

    lumetra-depth synth --out seq --frames 1
    python3 show_cloud.py seq [--frame 0] [--save cloud.ply]
"""
import argparse
import os

import numpy as np

import lumetra_depth as ld
from synthetic_sequence import read_png, timestamp


def write_ply(path, points):
    with open(path, "w") as f:
        f.write(f"ply\nformat ascii 1.0\nelement vertex {len(points)}\n"
                "property float x\nproperty float y\nproperty float z\nend_header\n")
        np.savetxt(f, points, fmt="%.5f")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("sequence", help="directory written by 'lumetra-depth synth'")
    parser.add_argument("--frame", type=int, default=0)
    parser.add_argument("--save", metavar="PLY", help="write the cloud to this file instead of showing it")
    args = parser.parse_args()

    with ld.Depth(os.path.join(args.sequence, "config.yaml")) as cam:
        colour = os.path.join(args.sequence, f"colour_{args.frame:06d}.png")
        if os.path.exists(colour):
            cam.feed_colour(read_png(colour), timestamp(args.frame))
        cam.feed_stereo(read_png(os.path.join(args.sequence, f"frame_{args.frame:06d}.png")), timestamp(args.frame))
        points, _ = cam.point_cloud()  # metres, rectified left camera frame (Z forward, Y down)
    print(f"{len(points)} points, x {points[:, 0].min():.2f} .. {points[:, 0].max():.2f}, "
          f"z {points[:, 2].min():.2f} .. {points[:, 2].max():.2f}")

    try:
        import open3d as o3d
    except ImportError:
        o3d = None
    if args.save or o3d is None or not os.environ.get("DISPLAY"):
        path = args.save or "cloud.ply"
        write_ply(path, points)
        print(f"wrote {path}" + ("" if o3d else " (apt-get install python3-open3d to see it here)"))
        return
    cloud = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(points.astype(np.float64)))
    cloud.paint_uniform_color([0.2, 0.5, 0.8])
    o3d.visualization.draw_geometries([cloud], window_name="lumetra_depth point cloud")


if __name__ == "__main__":
    main()
