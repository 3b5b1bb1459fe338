"""Threads and lifetime: reading while another thread feeds, the GIL released
while the library waits, closing with a call under way, and handles opened
and closed without memory growth."""
import os
import threading
import time

import numpy as np
import pytest

import lumetra_depth as ld
from conftest import render


# Three-channel frames, two matchers and the filters; the handle is closed
# with the last frames still in flight.
def test_one_thread_feeds_while_another_reads(grey_sequence, config):
    s = grey_sequence
    frames = 12
    with ld.Depth(config(async_mode="1", thread_num="2", enable_filter="true")) as cam:
        seen, failures = [], []

        def feed():
            try:
                for k in range(1, frames + 4):
                    cam.feed_stereo(np.repeat(s.frame(k % s.frames)[..., None], 3, axis=2), 100 * k, tag0=k)
                    time.sleep(0.01 if k <= frames else 0)
            except Exception as e:  # reported by the main thread
                failures.append(e)

        feeder = threading.Thread(target=feed)
        feeder.start()
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline and not (seen and seen[-1][0] >= 100 * frames):
            try:
                r = cam.depth()
                assert r.depth.shape == (200, 320)
                seen.append((r.timestamp, r.tag0))
                assert cam.rectified().shape == (400, 320, 3)
            except ld.NotReady:
                pass
            time.sleep(0.002)
        feeder.join()
        assert not failures
        assert seen and seen[-1][0] >= 100 * frames
        # Each depth carries the tags of the very frame it came from.
        assert all(t == 100 * tag for t, tag in seen)


def test_a_waiting_feed_lets_other_threads_run_and_close_waits_for_it(grey_sequence, config):
    # No matcher: a synchronous feed waits its full 2 s for a depth that never comes.
    cam = ld.Depth(config(thread_num="0", async_mode="0"))
    outcome = []

    def feed():
        try:
            cam.feed_stereo(grey_sequence.frame(0), 7)
        except ld.Error as e:
            outcome.append(e)

    start = time.monotonic()
    feeder = threading.Thread(target=feed)
    feeder.start()
    turns = 0
    while time.monotonic() - start < 0.5:
        assert cam.rectify_info()["P1"].shape == (3, 4)
        turns += 1
    assert feeder.is_alive() and turns > 100
    cam.close()  # waits for the feed under way, then destroys the handle
    assert time.monotonic() - start > 1.5
    feeder.join()
    assert len(outcome) == 1 and isinstance(outcome[0], ld.Timeout)
    assert str(outcome[0]).startswith("feed_stereo: no depth for time stamp 7 after ")


def resident_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


@pytest.mark.skipif(bool(os.environ.get("LUMO_SANITIZE")),
                    reason="the sanitizers' allocators keep freed memory (address) or touch every page (thread)")
def test_handles_opened_and_closed_leave_memory_flat(tmp_path):
    s = render(str(tmp_path), width=160, height=100, frames=1)
    config = os.path.join(s.dir, "config.yaml")

    def cycle():
        with ld.Depth(config) as cam:
            cam.feed_stereo(s.frame(0), 1)
            assert cam.depth().depth.shape == (100, 160)
            cam.point_cloud()

    for _ in range(5):
        cycle()
    before = resident_bytes()
    for _ in range(40):
        cycle()
    # An open handle holds about 2 MB here, so 40 handles left behind (or
    # their buffers) would be some 80 MB; 16 MB of slack for the allocators.
    assert resident_bytes() - before < 16 * 2 ** 20
