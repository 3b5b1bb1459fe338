"""The detection helpers from Python, each against a plain reference written
here: label lists, letterboxing and back, decoding with per-class
suppression, and objects placed on a depth image through the pinhole model."""
import math

import numpy as np
import pytest

import lumetra_depth as ld


def test_read_labels(tmp_path):
    cases = [
        (b"person\r\n\n# comment\nbicycle  \n  car\n", ["person", "bicycle", "  car"]),
        ("caf\u00e9\nStra\u00dfe".encode(), ["caf\u00e9", "Stra\u00dfe"]),
        (b"# only a comment\n\n", "has no class names"),
        (b"ok\n\xff\xfe\n", "line 2 is not UTF-8"),
    ]
    for i, (content, expected) in enumerate(cases):
        path = tmp_path / f"{i}.txt"
        path.write_bytes(content)
        if isinstance(expected, list):
            assert ld.read_labels(path) == expected
        else:
            with pytest.raises(ld.Error, match=f"^KORV_LUMO_D_ReadLabels\\(\\): .*{expected}$"):
                ld.read_labels(str(path))
    for path, reason in [(tmp_path / "absent", "No such file or directory"), (tmp_path, "Is a directory")]:
        with pytest.raises(ld.Error) as caught:
            ld.read_labels(path)
        assert str(caught.value) == f"KORV_LUMO_D_ReadLabels(): cannot read label list '{path}': {reason}"


def bilinear(image, rows, columns):
    """Resize with pixel centres aligned (x_src = (x + 0.5) * w / columns - 0.5), edges clamped."""
    h, w = image.shape[:2]
    y = np.clip((np.arange(rows) + 0.5) * h / rows - 0.5, 0, h - 1)
    x = np.clip((np.arange(columns) + 0.5) * w / columns - 0.5, 0, w - 1)
    y0, x0 = np.floor(y).astype(int), np.floor(x).astype(int)
    y1, x1 = np.minimum(y0 + 1, h - 1), np.minimum(x0 + 1, w - 1)
    fy, fx = (y - y0)[:, None], (x - x0)[None, :]
    if image.ndim == 3:
        fy, fx = fy[..., None], fx[..., None]
    f = image.astype(np.float64)
    top = f[y0][:, x0] * (1 - fx) + f[y0][:, x1] * fx
    bottom = f[y1][:, x0] * (1 - fx) + f[y1][:, x1] * fx
    return top * (1 - fy) + bottom * fy


@pytest.mark.parametrize("shape, width, height, pad", [
    ((30, 40, 3), 64, 64, 114),   # wider than tall: padded above and below
    ((41, 7), 32, 20, 0),         # tall and odd: padded left and right
    ((1, 9), 16, 16, 255),        # one row
    ((24, 32, 3), 32, 24, 7),     # same size: copied
    ((50, 60), 17, 13, 114),      # shrunk
])
def test_letterbox_and_back_against_a_plain_reference(shape, width, height, pad):
    rng = np.random.default_rng(sum(shape))
    image = rng.integers(0, 256, shape, dtype=np.uint8)
    out, info = ld.letterbox(np.asfortranarray(image), width, height, pad=pad)
    h, w = shape[:2]
    scale = min(width / w, height / h)
    inner_w = min(max(math.floor(w * scale + 0.5), 1), width)
    inner_h = min(max(math.floor(h * scale + 0.5), 1), height)
    left, top = (width - inner_w) // 2, (height - inner_h) // 2
    assert info.scale == pytest.approx(scale, rel=1e-6)
    assert (info.pad_left, info.pad_top, info.source_size, info.target_size) == (left, top, (w, h), (width, height))
    assert out.shape == (height, width) + shape[2:] and out.dtype == np.uint8
    inside = np.zeros(out.shape, bool)
    inside[top:top + inner_h, left:left + inner_w] = True
    assert (out[~inside] == pad).all()
    expected = bilinear(image, inner_h, inner_w)  # OpenCV's fixed point rounds within 1
    assert np.abs(out[top:top + inner_h, left:left + inner_w] - expected).max() <= 1.0

    # Back: the resized image is the whole image, a box in the padding nothing,
    # and any box (x - pad) / scale, clipped to the image.
    boxes = np.array([[left, top, left + inner_w, top + inner_h], [0, 0, left, top],
                      [left + 0.5, top + 0.25, left + 0.75 * inner_w, top + inner_h + 100.0]])
    reference = np.clip((boxes - [left, top, left, top]) / scale, 0, [w, h, w, h])
    reference[(reference[:, 2] <= reference[:, 0]) | (reference[:, 3] <= reference[:, 1])] = 0
    back = ld.unletterbox(info, boxes)
    assert back.dtype == np.float32 and back.shape == (3, 4)
    np.testing.assert_allclose(back, reference, rtol=1e-5, atol=1e-4)


def reference_decode(rows, objectness, score_threshold, iou_threshold):
    """(class, score, x0, y0, x1, y1) best first: each row's best class, threshold, greedy per-class suppression."""
    first = 5 if objectness else 4
    candidates = []
    for r in rows:
        best = int(np.argmax(r[first:]))
        score = np.float32(r[4] * r[first + best]) if objectness else r[first + best]
        if score >= score_threshold and score > 0 and r[2] > 0 and r[3] > 0:
            candidates.append((best, float(score), r[0] - r[2] / 2, r[1] - r[3] / 2, r[0] + r[2] / 2, r[1] + r[3] / 2))
    kept = []
    for c in sorted(candidates, key=lambda c: -c[1]):
        def iou(k):
            w = max(0.0, min(c[4], k[4]) - max(c[2], k[2]))
            h = max(0.0, min(c[5], k[5]) - max(c[3], k[3]))
            area = lambda b: (b[4] - b[2]) * (b[5] - b[3])
            return w * h / (area(c) + area(k) - w * h)
        if all(k[0] != c[0] or iou(k) <= iou_threshold for k in kept):
            kept.append(c)
    return kept


@pytest.mark.parametrize("objectness", [False, True])
@pytest.mark.parametrize("transposed", [False, True])
def test_decode_against_a_plain_threshold_and_suppression(objectness, transposed):
    rng = np.random.default_rng(3)
    classes, count = 3, 40
    # Boxes clustered on a few centres so that suppression has work to do.
    centres = rng.choice([20.0, 30.0, 60.0], size=(count, 2)) + rng.uniform(-4, 4, (count, 2))
    sizes = rng.uniform(8, 16, (count, 2))
    scores = rng.uniform(0, 1, (count, classes + objectness))
    rows = np.hstack([centres, sizes, scores]).astype(np.float32)
    output = np.ascontiguousarray(rows.T) if transposed else rows
    names = ["cat", "dog", "owl"]
    got = ld.decode_detections(output[None], score_threshold=0.3, iou_threshold=0.4, objectness=objectness,
                               transposed=transposed, labels=names)
    expected = reference_decode(rows.astype(np.float64), objectness, 0.3, 0.4)
    assert 3 < len(expected) < len(reference_decode(rows.astype(np.float64), objectness, 0.3, 1.0))
    assert [(d.class_id, d.label) for d in got] == [(e[0], names[e[0]]) for e in expected]
    np.testing.assert_allclose([(d.score,) + d.box for d in got], [e[1:] for e in expected], rtol=1e-6, atol=1e-4)

    # Fewer boxes asked for: the best ones.
    settings = dict(score_threshold=0.3, iou_threshold=0.4, objectness=objectness, transposed=transposed)
    assert [d.box for d in ld.decode_detections(output, max_boxes=2, **settings)] == [d.box for d in got[:2]]
    # Through a letterbox whose image covers only the right part of the detector
    # input: mapped back and clipped, those off the image dropped; unletterbox
    # keeps them as zeros instead.
    fit = ld.Letterbox(2.0, 50, 0, (30, 40), (80, 80))
    mapped = ld.decode_detections(output, letterbox=fit, **settings)
    reference = [np.clip((np.array(d.box) - [50, 0, 50, 0]) / 2, 0, [30, 40, 30, 40]) for d in got]
    kept = [(d.class_id, r) for d, r in zip(got, reference) if r[2] > r[0] and r[3] > r[1]]
    assert 0 < len(mapped) < len(got)
    assert [d.class_id for d in mapped] == [k[0] for k in kept]
    np.testing.assert_allclose([d.box for d in mapped], [k[1] for k in kept], rtol=1e-6, atol=1e-4)
    back = ld.unletterbox(fit, got)
    assert [d.label for d in back] == [d.label for d in got]
    np.testing.assert_allclose([d.box for d in back if d.box != (0, 0, 0, 0)], [d.box for d in mapped], rtol=1e-6)


def test_locate_objects_against_the_pinhole_model(cam):
    w, h = cam.input_size
    p1 = cam.rectify_info()["P1"].astype(np.float64)
    fx, fy, cx, cy = p1[0, 0], p1[1, 1], p1[0, 2], p1[1, 2]
    z = 2.5
    depth = np.full((h, w), z, np.float32)
    boxes = [(100, 50, 140, 90), (-20, -10, 30, 40), (w - 5, 180, w + 50, h + 9), (10.5, 20.25, 11.0, 21.0)]
    got = cam.locate_objects(depth, np.array(boxes))
    assert [o.status for o in got] == ["located"] * 4
    for (x0, y0, x1, y1), o in zip(boxes, got):
        x0, x1 = max(x0, 0), min(x1, w)
        y0, y1 = max(y0, 0), min(y1, h)
        # Box edges are pixel boundaries; rays go through pixel-centre coordinates, half a pixel less.
        centre = [((x0 + x1) / 2 - 0.5 - cx) / fx * z, ((y0 + y1) / 2 - 0.5 - cy) / fy * z, z]
        assert (o.distance, o.valid_share) == (pytest.approx(z), 1.0)
        np.testing.assert_allclose(o.centre, centre, rtol=1e-5, atol=1e-6)
        assert (o.width, o.height) == (pytest.approx((x1 - x0) / fx * z, rel=1e-5, abs=1e-6),
                                       pytest.approx((y1 - y0) / fy * z, rel=1e-5, abs=1e-6))

    # The median (upper middle) of the valid depths in the box's middle; too few of them: no position.
    rng = np.random.default_rng(5)
    noisy = rng.uniform(1, 4, (h, w)).astype(np.float32)
    noisy[60:80, 110:120] = 0  # half of the middle of (100, 50, 140, 90): columns 110..129, rows 60..79
    sparse = np.zeros((h, w), np.float32)
    sparse[60:64, 110:130] = 3.0  # a fifth of it
    middle = noisy[60:80, 110:130]
    valid = np.sort(middle[middle > 0])
    boxes = [ld.Detection((100, 50, 140, 90), class_id=2, score=0.9), ld.Detection((w, 0, w + 9, 9))]
    located, outside = cam.locate_objects(noisy, boxes)
    assert (located.status, located.distance, located.valid_share) == ("located", valid[len(valid) // 2], 0.5)
    assert (outside.status, outside.distance, outside.valid_share, list(outside.centre)) == ("outside", 0, 0, [0, 0, 0])
    (few,) = cam.locate_objects(sparse, [boxes[0]])
    assert (few.status, few.distance, few.valid_share) == ("no_depth", 0.0, pytest.approx(0.2))
    assert cam.locate_objects(depth, []) == []


def test_bad_detection_inputs_are_refused_and_the_host_goes_on(cam, config):
    image = np.zeros((20, 30), np.uint8)
    rows = np.zeros((4, 6), np.float32)
    depth = np.zeros((200, 320), np.float32)
    fit = ld.letterbox(image, 8, 8)[1]
    nan_score = rows.copy()
    nan_score[2, 5] = np.nan
    line = "the library's error line on standard output says why"
    cases = [
        (lambda: ld.letterbox(image.astype(np.int16), 8, 8), TypeError, "image: expected dtype uint8, got int16"),
        (lambda: ld.letterbox(np.zeros((4, 4, 4), np.uint8), 8, 8), ValueError,
         "image: expected shape (rows, columns) or (rows, columns, 3), got (4, 4, 4)"),
        (lambda: ld.letterbox(image, 0, 8), ValueError, "width: expected 1 .. 32768, got 0"),
        (lambda: ld.letterbox(image, 8, 8, pad=256), ValueError, "pad: expected 0 .. 255, got 256"),
        (lambda: ld.unletterbox({"scale": 1}, [[0, 0, 1, 1]]), TypeError,
         "info: expected a lumetra_depth.Letterbox, got dict"),
        (lambda: ld.unletterbox(fit, [[0, 0, 1]]), ValueError, "boxes: expected shape (N, 4) of x0, y0, x1, y1, got (1, 3)"),
        (lambda: ld.unletterbox(fit, [["a", "b", "c", "d"]]), TypeError, "boxes: expected numbers x0, y0, x1, y1, got dtype <U1"),
        (lambda: ld.unletterbox(ld.Letterbox(0.0, 0, 0, (8, 8), (8, 8)), [[0, 0, 1, 1]]), ld.Error,
         "KORV_LUMO_D_UnletterboxBoxes refused the letterbox record (it needs a positive scale and a source size of 1 to "
         "32768 pixels)"),
        (lambda: ld.decode_detections(rows.astype(np.float64)), TypeError, "output: expected dtype float32, got float64"),
        (lambda: ld.decode_detections(np.zeros((6, 8), np.float32)[:, ::2], transposed=True), TypeError,
         "output: expected a C-contiguous array"),
        (lambda: ld.decode_detections(rows[None, None]), ValueError,
         "output: expected shape (rows, columns) or (1, rows, columns), got (1, 1, 4, 6)"),
        (lambda: ld.decode_detections(rows, objectness=True, class_count=2), ValueError,
         "output: expected 7 values per box (4 box values, objectness, 2 class scores), one box per row, got shape (4, 6)"),
        (lambda: ld.decode_detections(np.zeros((4, 4), np.float32)), ValueError,
         "output: expected at least 5 values per box (4 box values, class scores), one box per row, got shape (4, 4)"),
        (lambda: ld.decode_detections(rows, labels=["a"]), ValueError, "labels: expected 2 names, one per class, got 1"),
        (lambda: ld.decode_detections(rows, labels="ab"), TypeError, "labels: expected a list of str, got str"),
        (lambda: ld.decode_detections(rows, score_threshold=1.5), ValueError, "score_threshold: expected 0.0 .. 1.0, got 1.5"),
        (lambda: ld.decode_detections(rows, iou_threshold="0.4"), TypeError, "iou_threshold: expected a number, got str"),
        (lambda: ld.decode_detections(rows, max_boxes=0), ValueError, "max_boxes: expected 1 .. 2147483647, got 0"),
        (lambda: ld.decode_detections(nan_score), ld.Error, f"KORV_LUMO_D_DecodeDetections refused the output ({line})"),
        (lambda: cam.locate_objects(depth.T, [[0, 0, 1, 1]]), TypeError, "depth: expected a C-contiguous array"),
        (lambda: cam.locate_objects(depth, [ld.Detection((0, 0, 1, 1)), (0, 0, 1, 1)]), TypeError,
         "boxes: expected a list of only lumetra_depth.Detection, got one tuple among them"),
    ]
    for call, kind, message in cases:
        with pytest.raises(kind) as caught:
            call()
        assert str(caught.value).startswith(message)
    with ld.Depth(config(calib_path=None)) as uncalibrated:
        with pytest.raises(ld.Error) as caught:
            uncalibrated.locate_objects(depth, [[0, 0, 1, 1]])
        assert str(caught.value) == "KORV_LUMO_D_LocateObjects refused the call (the configuration names no calib_path)"
    assert cam.locate_objects(depth, [[0, 0, 1, 1]])[0].status == "no_depth"
