"""Refusals: bad arguments, refused configurations, nothing yet, closed
objects; each with its exact exception and message, and the host going on."""
import os
import pathlib

import numpy as np
import pytest

import lumetra_depth as ld
from conftest import write_config


def test_bad_arguments_are_refused_and_the_host_goes_on(cam, grey_sequence):
    frame = grey_sequence.frame(0)
    view = frame[:200]
    depth = np.zeros((200, 320), np.float32)
    pixels = np.array([[1, 2]])
    cases = [
        (lambda: cam.feed_stereo(frame.tolist(), 1), TypeError, "frame: expected a numpy.ndarray of uint8, got list"),
        (lambda: cam.feed_stereo(frame.astype(np.float32), 1), TypeError, "frame: expected dtype uint8, got float32"),
        (lambda: cam.feed_stereo(view, 1), ValueError,
         "frame: expected shape (400, 320) or (400, 320, 3), both views of 320x200 stacked, got (200, 320)"),
        (lambda: cam.feed_stereo(np.zeros((400, 320, 4), np.uint8), 1), ValueError,
         "frame: expected shape (rows, columns) or (rows, columns, 3), got (400, 320, 4)"),
        (lambda: cam.feed_stereo(np.zeros((400, 640), np.uint8)[:, ::2], 1), TypeError,
         "frame: expected a C-contiguous array (numpy.ascontiguousarray makes one), got one with strides (640, 2)"),
        (lambda: cam.feed_stereo(frame, 0), ValueError, "timestamp: expected 1 .. 18446744073709551615, got 0"),
        (lambda: cam.feed_stereo(frame, 2 ** 64), ValueError, "got 18446744073709551616"),
        (lambda: cam.feed_stereo(frame, 1.5), TypeError, "timestamp: expected an int, got float"),
        (lambda: cam.feed_stereo(frame, 1, tag0=-1), ValueError, "tag0: expected 0 .. 4294967295, got -1"),
        (lambda: cam.feed_stereo(view, view[:100], 1), ValueError,
         "right: expected shape (200, 320) like the configured view, got (100, 320)"),
        (lambda: cam.feed_stereo(view, np.zeros((200, 320, 3), np.uint8), 1), ValueError, "right: expected shape"),
        (lambda: cam.feed_colour(np.zeros((10, 10, 4), np.uint8), 1), ValueError, "image: expected shape"),
        (lambda: cam.feed_pose(1, [0, 0], [1, 0, 0, 0]), ValueError, "position: expected 3 numbers, got shape (2,)"),
        (lambda: cam.feed_pose(1, [0, 0, 0], "wxyz"), TypeError, "orientation: expected 4 numbers, got str"),
        (lambda: cam.coordinates([[1.5, 2.0]], depth), TypeError,
         "pixels: expected integer (column, row) pairs, got dtype float64"),
        (lambda: cam.coordinates(np.zeros((4, 3), int), depth), ValueError,
         "pixels: expected shape (N, 2) of (column, row) pairs, got (4, 3)"),
        (lambda: cam.coordinates([[2 ** 31, 0]], depth), ValueError,
         "pixels: pixel coordinates must fit in 32 bits, got values from 0 to 2147483648"),
        (lambda: cam.coordinates(pixels, depth.astype(np.float64)), TypeError, "depth: expected dtype float32"),
        (lambda: cam.coordinates(pixels, depth.T), TypeError, "depth: expected a C-contiguous array"),
        (lambda: cam.coordinates(pixels, depth[0]), ValueError, "depth: expected shape (rows, columns), got (320,)"),
    ]
    for call, kind, message in cases:
        with pytest.raises(kind) as caught:
            call()
        assert message in str(caught.value)
    cam.feed_stereo(frame, 5, tag0=9)
    assert (cam.depth().timestamp, cam.depth().tag0) == (5, 9)


def test_refused_configurations_raise_the_reason(tmp_path, grey_sequence, capfd):
    calib = os.path.join(grey_sequence.dir, "calib.yaml")
    cases = [
        (dict(), "no such file"),
        (dict(cloest_dist=None, closest_dist="0.1", thread_num=None), "missing required key(s): thread_num, cloest_dist"),
        (dict(input_stereo_width="wide"), "input_stereo_width: 'wide' is not a number"),
        (dict(voxelSize="x"), "voxelSize: 'x' is not a number"),
        # Refused inside the library: its error lines are the reason.
        (dict(calib_path="missing.yaml"), "initFromYaml(): init camera failed"),
    ]
    for i, (changes, message) in enumerate(cases):
        directory = tmp_path / str(i)
        directory.mkdir()
        path = write_config(str(directory), **dict(changes, calib_path=changes.get("calib_path", calib)))
        with pytest.raises(ld.Error) as caught:
            ld.Depth(path if changes else str(directory / "absent.yaml"))
        assert message in str(caught.value)
    assert "KORV_LUMO_D_CreateHandleWithConfig refused" in str(caught.value)
    # The library's own line still reaches standard output.
    assert "[ ERROR] initFromYaml(): init camera failed" in capfd.readouterr().out


def test_nothing_yet_and_refused_feeds(config, grey_sequence):
    frame = grey_sequence.frame(0)
    with ld.Depth(config()) as cam:
        for call in (cam.depth, cam.rectified, cam.point_cloud):
            with pytest.raises(ld.NotReady):
                call()
    for changes, reason in [(dict(enable_module="0"), "enable_module is 0 in the configuration"),
                            (dict(calib_path=None), "the configuration names no calib_path")]:
        with ld.Depth(config(**changes)) as cam:
            with pytest.raises(ld.Error) as caught:
                cam.feed_stereo(frame, 1)
            assert str(caught.value) == f"KORV_LUMO_D_FeedStereoImage refused the frame ({reason})"
            assert not isinstance(caught.value, (ld.Timeout, ld.NotReady))
            if "calib_path" in changes:
                with pytest.raises(ld.Error, match="no rectification"):
                    cam.rectify_info()


def test_a_closed_object_refuses_every_call(grey_sequence):
    cam = ld.Depth(pathlib.Path(grey_sequence.dir) / "config.yaml")
    with cam:
        assert not cam.closed
    assert cam.closed and repr(cam).endswith(" closed>")
    cam.close()
    frame = grey_sequence.frame(0)
    calls = [lambda: cam.feed_stereo(frame, 1), lambda: cam.feed_stereo(frame[:200], frame[200:], 1),
             lambda: cam.feed_colour(frame, 1), lambda: cam.feed_pose(1, [0, 0, 0], [1, 0, 0, 0]), cam.depth,
             cam.rectified, cam.rectify_info, cam.point_cloud,
             lambda: cam.coordinates([[0, 0]], np.zeros((2, 2), np.float32)),
             lambda: cam.locate_objects(np.zeros((2, 2), np.float32), [[0, 0, 1, 1]])]
    for call in calls:
        with pytest.raises(ld.Error, match="^the lumetra_depth.Depth object is closed$"):
            call()
