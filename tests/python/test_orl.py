import threading
import time

import numpy as np
import pytest

import orl

DTYPES = [np.uint8, np.uint16, np.int16, np.uint32, np.int32, np.float32, np.float64]
FLOATS = [np.float32, np.float64]


def raster(dtype, shape=(37, 53), holes=0.3, seed=1, nodata=None):
    """Smooth terrain in the dtype's range with holes set to nodata (NaN for floats without one)."""
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[0:shape[0], 0:shape[1]]
    a = (100 + 40 * np.sin(x * 0.2) * np.cos(y * 0.15) + rng.uniform(0, 20, shape)).astype(dtype)
    a[rng.random(shape) < holes] = np.nan if nodata is None else nodata
    return a


def reference_fill(a, nodata, max_distance, min_directions):
    """The filter by its definition, hole by hole: eight lines, weights 1 / steps, float32 sums."""
    dtype = a.dtype
    valid = np.isfinite(a) if dtype.kind == "f" else np.ones(a.shape, bool)
    if nodata is not None:
        valid &= a != nodata
    if valid.all():
        return a.copy()
    fill = nodata if nodata is not None else (np.nan if dtype.kind == "f" else
                                              (np.iinfo(dtype).max if dtype.kind == "u" else np.iinfo(dtype).min))
    out = a.copy()
    h, w = a.shape
    for y, x in zip(*np.nonzero(~valid)):
        weights, values, count = np.float32(0), np.float32(0), 0
        for dx, dy in [(-1, 0), (0, -1), (-1, -1), (1, -1), (1, 0), (0, 1), (-1, 1), (1, 1)]:
            for steps in range(1, int(max_distance) + 1):
                u, v = x + dx * steps, y + dy * steps
                if not (0 <= u < w and 0 <= v < h):
                    break
                if valid[v, u]:
                    weight = np.float32(1) / np.float32(steps)
                    weights, values, count = weights + weight, values + weight * np.float32(a[v, u]), count + 1
                    break
        out[y, x] = fill if count < min_directions else (values / weights).astype(dtype)
    return out


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("max_distance,min_directions", [(64.0, 1), (2.5, 3)])
def test_fill_holes_matches_definition_and_writes_in_place(dtype, max_distance, min_directions):
    nodata = 0 if dtype in FLOATS else 7
    a = raster(dtype, nodata=nodata)
    before = a.copy()
    out = np.empty_like(a)
    result = orl.fill_holes(a, nodata=nodata, max_distance=max_distance, min_directions=min_directions, out=out)
    assert result is out or np.shares_memory(result, out)
    np.testing.assert_array_equal(a, before)
    expected = reference_fill(a, nodata, max_distance, min_directions)
    np.testing.assert_array_equal(out == nodata, expected == nodata)
    np.testing.assert_allclose(out.astype(float), expected.astype(float), rtol=1e-6, atol=0 if dtype in FLOATS else 1)


@pytest.mark.parametrize("dtype", FLOATS)
def test_float_holes_default_to_nan_and_non_contiguous_inputs_are_copied(dtype):
    a = raster(dtype, shape=(40, 60))
    expected = orl.fill_holes(np.ascontiguousarray(a[:, ::2]), max_distance=2, min_directions=6)
    np.testing.assert_array_equal(orl.fill_holes(a[:, ::2], max_distance=2, min_directions=6), expected)
    np.testing.assert_array_equal(orl.fill_holes(np.asfortranarray(a), max_distance=2, min_directions=6),
                                  orl.fill_holes(a, max_distance=2, min_directions=6))
    assert np.isnan(expected).any() and np.array_equal(np.isnan(expected), np.isnan(reference_fill(
        np.ascontiguousarray(a[:, ::2]), None, 2, 6)))


def test_bool_mask_selects_holes_and_range_mask_excludes():
    a = raster(np.float32, holes=0.0)
    mask = np.zeros(a.shape, bool)
    mask[10:14, 20:30] = True
    filled = orl.fill_holes(a, mask=mask)
    np.testing.assert_array_equal(filled[~mask], a[~mask])
    assert not np.array_equal(filled[mask], a[mask])
    ranged = orl.fill_holes(a, mask=mask.astype(np.uint8) * 9, mask_range=(0, 5))
    np.testing.assert_array_equal(ranged, filled)


BAD_CALLS = {
    "int64 dtype": (TypeError, lambda: orl.fill_holes(np.zeros((4, 4), np.int64))),
    "bool dtype": (TypeError, lambda: orl.statistics(np.zeros((4, 4), bool))),
    "3-D": (ValueError, lambda: orl.fill_holes(np.zeros((2, 4, 4), np.float32))),
    "1-D statistics": (ValueError, lambda: orl.statistics(np.zeros(4, np.uint8))),
    "out dtype": (TypeError, lambda: orl.fill_holes(np.zeros((4, 4), np.float32), out=np.zeros((4, 4)))),
    "out shape": (ValueError, lambda: orl.fill_holes(np.zeros((4, 4), np.float32), out=np.zeros((4, 5), np.float32))),
    "out is input": (ValueError, lambda: (lambda a: orl.fill_holes(a, out=a))(np.zeros((4, 4), np.float32))),
    "out read-only": (ValueError, lambda: orl.fill_holes(np.zeros((4, 4), np.float32),
                                                         out=np.broadcast_to(np.float32(0), (4, 4)))),
    "mask shape": (ValueError, lambda: orl.fill_holes(np.zeros((4, 4), np.float32), mask=np.zeros((4, 3), bool))),
    "mask_range not a pair": (TypeError, lambda: orl.mask(np.ones((4, 4)), np.ones((4, 4), np.uint8), mask_range=(1,))),
    "mask dtype": (TypeError, lambda: orl.fill_holes(np.zeros((4, 4), np.int16), mask=np.zeros((4, 4), np.int16))),
    "range without mask": (ValueError, lambda: orl.fill_holes(np.zeros((4, 4), np.float32), mask_range=(0, 1))),
    "nodata beyond dtype": (ValueError, lambda: orl.fill_holes(np.zeros((4, 4), np.uint8), nodata=300)),
    "nodata fraction": (ValueError, lambda: orl.statistics(np.zeros((4, 4), np.int32), nodata=1.5)),
    "max_distance": (ValueError, lambda: orl.fill_holes(np.zeros((4, 4), np.float32), max_distance=0)),
    "min_directions": (ValueError, lambda: orl.fill_holes(np.zeros((4, 4), np.float32), min_directions=9)),
    "bins": (ValueError, lambda: orl.statistics(np.zeros((4, 4), np.float32), bins=0)),
    "progress not callable": (TypeError, lambda: orl.statistics(np.zeros((4, 4), np.uint8), progress=3)),
    "distance mode": (ValueError, lambda: orl.distance_transform(np.ones((4, 4), np.uint8), mode="manhattan")),
    "distance dtype": (TypeError, lambda: orl.distance_transform(np.ones((4, 4), np.uint8), dtype=np.int16)),
    "skeleton method": (ValueError, lambda: orl.skeleton(np.ones((4, 4), np.uint8), method="medial")),
    "reconstruction shapes": (ValueError, lambda: orl.grayscale_reconstruction(np.ones((4, 4)), np.ones((4, 5)))),
    "resample empty shape": (ValueError, lambda: orl.resample(np.ones((4, 4)), (0, 4))),
    "gradient int32": (TypeError, lambda: orl.gradient_orientation(np.ones((4, 4), np.int32))),
    "fft integer": (TypeError, lambda: orl.fft(np.ones((4, 4), np.uint8))),
    "ifft side not a power of two": (ValueError, lambda: orl.ifft(np.ones((3, 4), np.complex64))),
    "color two bands": (ValueError, lambda: orl.convert_color(np.ones((2, 4, 4), np.float32), "rgb_to_hsv")),
    "color uint16": (TypeError, lambda: orl.convert_color(np.ones((3, 4, 4), np.uint16), "rgb_to_hsv")),
    "add shapes": (ValueError, lambda: orl.add(np.ones((4, 4)), np.ones((4, 5)))),
    "add dtypes": (TypeError, lambda: orl.add(np.ones((4, 4), np.float32), np.ones((4, 4)))),
    "out overlaps partly": (ValueError, lambda: (lambda m: orl.add(m[:4], m[:4], out=m[1:]))(np.ones((5, 4)))),
    "astype int64": (TypeError, lambda: orl.astype(np.ones((4, 4)), np.int64)),
    "index int32": (TypeError, lambda: orl.select_index(np.zeros((4, 4), np.int32), np.ones((2, 4, 4)))),
    "medoid 2-D": (ValueError, lambda: orl.medoid(np.ones((4, 4)))),
    "coefficient count": (ValueError, lambda: orl.predict_regression(np.ones((2, 4, 4)), [1.0, 2.0])),
    "stratify dtype": (TypeError, lambda: orl.stratify(np.ones((1, 4, 4)), np.ones((2, 2)), dtype=np.int32)),
}


@pytest.mark.parametrize("name", BAD_CALLS)
def test_bad_arguments_raise(name):
    error, call = BAD_CALLS[name]
    with pytest.raises(error):
        call()


def test_progress_reaches_one_and_its_exception_comes_back():
    seen = []
    orl.fill_holes(raster(np.float32, shape=(300, 300)), progress=lambda f, text: seen.append(f))
    assert seen and seen[-1] == 1.0 and all(0.0 <= f <= 1.0 for f in seen)

    def fail(fraction, text):
        raise KeyError("stop")
    with pytest.raises(KeyError):
        orl.statistics(raster(np.uint16, nodata=0), nodata=0, progress=fail)


@pytest.mark.parametrize("call", [lambda a: orl.fill_holes(a, max_distance=8),
                                  lambda a: [orl.statistics(a, bins=b) for b in (16, 32, 64)],
                                  lambda a: [orl.distance_transform(a, method=m) for m in ("exact", "chamfer")]],
                         ids=["fill_holes", "statistics", "distance_transform"])
def test_gil_is_released(call):
    a = raster(np.float32, shape=(3000, 3000), holes=0.2)
    ticks, stop = [0], threading.Event()

    def spin():
        while not stop.is_set():
            ticks[0] += 1
    thread = threading.Thread(target=spin)
    thread.start()
    time.sleep(0.05)
    before = ticks[0]
    call(a)  # a held GIL would freeze the counter for the whole call
    after = ticks[0]
    stop.set()
    thread.join()
    assert after - before > 1000


@pytest.mark.parametrize("dtype", DTYPES)
def test_statistics_agree_with_numpy(dtype):
    nodata = 7
    a = raster(dtype, shape=(64, 80), nodata=nodata, holes=0.1)
    valid = a[a != nodata].astype(np.float64)
    s = orl.statistics(a, nodata=nodata, bins=64)
    assert (s["count"], s["invalid"]) == (valid.size, a.size - valid.size)
    assert (s["min"], s["max"]) == (valid.min(), valid.max())
    np.testing.assert_allclose([s["mean"], s["std"]], [valid.mean(), valid.std()], rtol=1e-9)
    assert s["histogram"].sum() == valid.size and len(s["histogram"]) <= 64
    assert abs(s["median"] - np.median(valid)) <= 2 * s["bin_width"] + 1
    approx = orl.statistics(a, nodata=nodata, approx=True, bins=64)  # a small raster is its own sample
    np.testing.assert_array_equal(approx.pop("histogram"), s.pop("histogram"))
    assert approx == s
