"""What the binding hands out is what the C interface hands out, to the bit,
in the shapes the configuration calls for."""
import os
import re

import numpy as np
import pytest

import lumetra_depth as ld
from conftest import render

# name: (render and configuration changes, depth shape, aligned shape or None)
CASES = {
    # Input size kept; filters make each depth depend on the frames before.
    "grey_filtered": (dict(enable_filter="true"), (200, 320), None),
    # Matched at half size and handed out so; fed as two views; clouds moved
    # by the poses into the world and voxel-filtered.
    "bgr_scaled_world": (dict(bgr=True, stereo_img_scaling="0.5", restore_depth_dim="0", pointcloud_type="2",
                              enable_voxel="true", voxelSize="0.05"), (100, 160), None),
    # Depth registered into the 320x180 colour camera, which it then has the size of.
    "depth_into_colour": (dict(colour=True, align_cam_id="2", align_direction="true", input_aux_cam_width="320",
                               input_aux_cam_height="180"), (180, 320), (180, 320, 3)),
    # Colour registered into the half-size depth grid, both restored to the input size.
    "colour_into_depth": (dict(colour=True, align_cam_id="2", align_direction="false", stereo_img_scaling="0.5",
                               input_aux_cam_width="320", input_aux_cam_height="180"), (200, 320), (200, 320, 3)),
}


def same_bits(array, sequence, name):
    reference = sequence.raw(name)
    assert array.flags.c_contiguous
    assert array.tobytes() == reference.tobytes(), f"{name} differs from the C interface's"


def check_image(array, values, sequence, name, shape):
    """values: status, timestamp, tag0, tag1, width, height, channels, size of the C call."""
    status, timestamp, tag0, tag1, width, height, channels, size = values
    assert status == 0
    assert array.shape[:2] == (height, width) == shape[:2]
    assert array.nbytes == size
    same_bits(array, sequence, name)
    return timestamp, tag0, tag1


@pytest.mark.parametrize("case", CASES)
def test_outputs_match_the_c_interface(case, tmp_path):
    changes, depth_shape, aligned_shape = CASES[case]
    s = render(str(tmp_path), **changes)
    working = (100, 160) if "stereo_img_scaling" in changes else (200, 320)
    with ld.Depth(os.path.join(s.dir, "config.yaml")) as cam:
        for i in range(s.frames):
            timestamp, tag0, tag1 = s.stamps[i]
            cam.feed_pose(timestamp, *s.pose(i))
            if s.colour_size:
                cam.feed_colour(s.colour(i), timestamp)
            frame = s.frame(i)
            if s.channels == 3:  # the two views, the left one in another memory layout
                cam.feed_stereo(np.asfortranarray(frame[:s.height]), frame[s.height:], timestamp, tag0=tag0, tag1=tag1)
            else:
                cam.feed_stereo(frame, timestamp, tag0=tag0, tag1=tag1)

            r = cam.depth()
            assert (r.timestamp, r.tag0, r.tag1) == (timestamp, tag0, tag1)
            assert r.depth.dtype == np.float32 and r.disparity.dtype == np.float32
            assert check_image(r.depth, s.manifest["depth", i], s, f"depth_{i}.raw", depth_shape)[0] == timestamp
            check_image(r.disparity, s.manifest["disparity", i], s, f"disparity_{i}.raw", working)
            if aligned_shape is None:
                assert r.aligned is None
            else:
                assert r.aligned.shape == aligned_shape
                check_image(r.aligned, s.manifest["aligned", i], s, f"aligned_{i}.raw", aligned_shape)
            if i == 0:
                assert np.count_nonzero(r.depth > 0) > r.depth.size // 2

            rectified = cam.rectified()
            assert rectified.shape == (2 * working[0], working[1], 3)
            assert check_image(rectified, s.manifest["rectified", i], s, f"rectified_{i}.raw",
                               rectified.shape)[0] == timestamp

            status, cloud_stamp, points = s.manifest["cloud", i]
            if status == 0:
                cloud, t = cam.point_cloud()
                assert cloud.shape == (points, 3) and t == cloud_stamp == timestamp
                same_bits(cloud, s, f"cloud_{i}.raw")
            else:
                with pytest.raises(ld.NotReady):
                    cam.point_cloud()


def test_rectify_info_and_coordinates(grey_sequence):
    s = grey_sequence
    with ld.Depth(os.path.join(s.dir, "config.yaml")) as cam:
        timestamp, _, _ = s.stamps[0]
        cam.feed_stereo(s.frame(0), timestamp)
        depth = cam.depth().depth
        info = cam.rectify_info()
        assert {k: v.shape for k, v in info.items()} == {"R1": (3, 3), "R2": (3, 3), "P1": (3, 4), "P2": (3, 4)}
        assert np.allclose(info["R1"] @ info["R1"].T, np.eye(3), atol=1e-6)
        p1, p2 = info["P1"], info["P2"]
        assert p2[0, 3] < 0 and p1[0, 0] == p2[0, 0]  # the right camera sits to the right
        assert 0.09 < -p2[0, 3] / p2[0, 0] < 0.11  # the rig's 10 cm baseline

        # Each pixel's ray through the left camera's own (distorted) lens, scaled
        # by its depth; the lens inverted here by plain fixed-point iteration.
        with open(os.path.join(s.dir, "calib.yaml")) as f:
            calib = f.read()
        fx, fy, cx, cy = map(float, re.search(r"intrinsics: \[(.*)\]", calib).group(1).split(","))
        k1, k2, q1, q2 = map(float, re.search(r"distortion_coeffs: \[(.*)\]", calib).group(1).split(","))
        rows, columns = np.nonzero(depth > 0)
        pick = np.linspace(0, rows.size - 1, 500).astype(int)
        pixels = np.stack([columns[pick], rows[pick]], axis=1)
        xd, yd = (pixels[:, 0] - cx) / fx, (pixels[:, 1] - cy) / fy
        x, y = xd, yd
        for _ in range(100):
            r2 = x * x + y * y
            radial = 1 + k1 * r2 + k2 * r2 * r2
            x = (xd - (2 * q1 * x * y + q2 * (r2 + 2 * x * x))) / radial
            y = (yd - (q1 * (r2 + 2 * y * y) + 2 * q2 * x * y)) / radial
        d = depth[rows[pick], columns[pick]]
        expected = np.stack([x * d, y * d, d], axis=1)
        assert np.allclose(cam.coordinates(pixels, depth), expected, rtol=1e-4, atol=1e-5)

        # Outside the image, or no depth there: the origin.
        empty = np.zeros_like(depth)
        outside = [[-1, 5], [5, -1], [320, 0], [0, 200]]
        assert not cam.coordinates(np.array(outside, np.int16), depth).any()
        assert not cam.coordinates(pixels[:3], empty).any()
        assert cam.coordinates(np.zeros((0, 2), int), depth).shape == (0, 3)
