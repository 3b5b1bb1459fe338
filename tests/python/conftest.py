"""Shared set-up of the binding's tests: configuration files, and rendered
sequences with the outputs the C interface handed out for them (written by
the C host lumo_python_host, whose path CTest passes in LUMO_PYTHON_HOST)."""
import os
import subprocess

import numpy as np
import pytest

import lumetra_depth as ld

HOST = os.environ.get("LUMO_PYTHON_HOST", "")

# Every key, quiet defaults: no alignment, filters or debug output.
DEFAULTS = {
    "enable_module": "1", "model_path": '""', "calib_path": "calib.yaml",
    "input_stereo_width": "320", "input_stereo_height": "200", "stereo_img_scaling": "1.0",
    "input_aux_cam_width": "1920", "input_aux_cam_height": "1080", "aux_cam_scaling": "1.0",
    "thread_num": "1", "async_mode": "0", "align_cam_id": "-1", "align_direction": "false",
    "enable_filter": "false", "wls_filter": "false", "depth_mode": "0", "enable_voxel": "false",
    "voxelSize": "0.01", "minPoints": "1", "pointcloud_type": "0", "pointcloud_ROI": "1.0",
    "skip_point": "0", "farthest_dist": "10", "cloest_dist": "0.1", "restore_depth_dim": "1",
    "debug_image": "0", "debug_img_save_path": "/tmp",
}


def write_config(directory, **changes):
    """config.yaml in `directory` with DEFAULTS changed by `changes`; None drops a key."""
    keys = dict(DEFAULTS, **changes)
    path = os.path.join(directory, "config.yaml")
    with open(path, "w") as f:
        f.writelines(f"{k}: {v}\n" for k, v in keys.items() if v is not None)
    return path


class Sequence:
    """A rendered sequence and the C interface's outputs for it."""

    def __init__(self, directory, width, height, frames, bgr, colour):
        self.dir, self.width, self.height, self.frames = directory, width, height, frames
        self.colour_size = (2 * round(width * 9 / 32), width) if colour else None
        self.manifest = {}
        self.stamps = []
        with open(os.path.join(directory, "manifest.txt")) as f:
            for line in f:
                kind, index, *values = line.split()
                values = [int(v) for v in values]
                if kind == "frame":
                    self.stamps.append(tuple(values))  # timestamp, tag0, tag1
                else:
                    self.manifest[kind, int(index)] = values
        self.channels = 3 if bgr else 1

    def raw(self, name, dtype=np.uint8):
        return np.fromfile(os.path.join(self.dir, name), dtype=dtype)

    def frame(self, i):
        shape = (2 * self.height, self.width) + ((3,) if self.channels == 3 else ())
        return self.raw(f"frame_{i}.raw").reshape(shape)

    def colour(self, i):
        return self.raw(f"colour_{i}.raw").reshape(self.colour_size + (3,))

    def pose(self, i):
        values = self.raw(f"pose_{i}.raw", np.float64)
        return values[:3], values[3:]


def render(directory, width=320, height=200, frames=3, bgr=False, colour=False, **config):
    """Writes the configuration, runs the C host on a rendered sequence."""
    if not HOST:
        pytest.skip("LUMO_PYTHON_HOST not set (run through CTest)")
    os.makedirs(directory, exist_ok=True)
    write_config(directory, input_stereo_width=str(width), input_stereo_height=str(height), **config)
    command = [HOST, "reference", directory, "--width", str(width), "--height", str(height),
               "--frames", str(frames)] + ["--bgr"] * bgr + ["--colour"] * colour
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    return Sequence(directory, width, height, frames, bgr, colour)


@pytest.fixture(scope="session")
def grey_sequence(tmp_path_factory):
    """Grey 320x200 frames, synchronous, filters on: the plain set-up other tests reuse."""
    return render(str(tmp_path_factory.mktemp("grey")), enable_filter="true")


@pytest.fixture(scope="module")
def cam(grey_sequence):
    """A handle on the grey sequence's configuration, shared by a module's tests."""
    with ld.Depth(os.path.join(grey_sequence.dir, "config.yaml")) as c:
        yield c


@pytest.fixture
def config(tmp_path, grey_sequence):
    """Writes tmp_path/config.yaml, with the grey sequence's calibration unless changed."""
    calib = os.path.join(grey_sequence.dir, "calib.yaml")
    return lambda **changes: write_config(str(tmp_path), **dict(dict(calib_path=calib), **changes))
