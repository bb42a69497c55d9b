"""The catalogue bindings against small independent numpy references or properties, one table."""
import colorsys

import numpy as np
import pytest

import orl

from test_orl import DTYPES, FLOATS

INTS = [d for d in DTYPES if d not in FLOATS]


def rng(seed=0):
    return np.random.default_rng(seed)


def values(dtype, shape=(9, 13), seed=0, low=None, high=None):
    """Random pixels over much of the dtype's range (integers) or [-50, 50] (floats)."""
    if np.dtype(dtype).kind == "f":
        return rng(seed).uniform(-50 if low is None else low, 50 if high is None else high, shape).astype(dtype)
    info = np.iinfo(dtype)
    low = max(info.min, -1000) if low is None else low
    high = min(info.max, 1000) if high is None else high
    return rng(seed).integers(low, high, shape, endpoint=True).astype(dtype)


def to_dtype(x, dtype):
    """float64 values into dtype as the library does: half away from zero, saturated; NaN kept for floats."""
    if np.dtype(dtype).kind == "f":
        with np.errstate(over="ignore"):
            return x.astype(dtype)
    info = np.iinfo(dtype)
    return np.clip(np.sign(x) * np.floor(np.abs(x) + 0.5), info.min, info.max).astype(dtype)


def pixelwise(op, dtype, *inputs):
    """op in float32 for float32, in float64 otherwise, brought back to dtype."""
    with np.errstate(all="ignore"):
        if dtype == np.float32:
            return op(*[a.astype(np.float32) for a in inputs]).astype(np.float32)
        return to_dtype(op(*[a.astype(np.float64) for a in inputs]), dtype)


def brute_distance(a, metric):
    background = np.argwhere(a == 0)
    ys, xs = np.mgrid[0:a.shape[0], 0:a.shape[1]]
    dy = np.abs(ys[..., None] - background[:, 0])
    dx = np.abs(xs[..., None] - background[:, 1])
    return {"euclidean": np.sqrt(dx * dx + dy * dy), "cityblock": dx + dy,
            "chessboard": np.maximum(dx, dy), "squared": dx * dx + dy * dy}[metric].min(axis=-1)


def shapes(dtype):
    """Sparse zeros in a field of ones: the background of the distance transforms."""
    a = (rng(3).random((11, 14)) > 0.08).astype(dtype)
    a[0, 0] = 0
    return a


def brute_reconstruction(marker, mask):
    j = np.minimum(marker, mask)
    while True:
        p = np.pad(j, 1, constant_values=j.min())
        dilated = np.max([p[y:y + j.shape[0], x:x + j.shape[1]] for y in range(3) for x in range(3)], axis=0)
        nxt = np.minimum(mask, dilated)
        if np.array_equal(nxt, j):
            return j
        j = nxt


def sobel_doubled_angle(a):
    """cos and sin of twice the Sobel gradient's angle, edges replicated."""
    p = np.pad(a.astype(np.float64), 1, mode="edge")
    s = lambda y, x: p[y:y + a.shape[0], x:x + a.shape[1]]  # noqa: E731
    gx = s(0, 2) + 2 * s(1, 2) + s(2, 2) - s(0, 0) - 2 * s(1, 0) - s(2, 0)
    gy = s(2, 0) + 2 * s(2, 1) + s(2, 2) - s(0, 0) - 2 * s(0, 1) - s(0, 2)
    angle = np.arctan2(2 * gx * gy, gx * gx - gy * gy)
    return np.cos(angle), np.sin(angle)


def check_equal(result, expected):
    assert result.dtype == expected.dtype and result.shape == expected.shape
    np.testing.assert_array_equal(result, expected)


def check_close(result, expected, rtol=1e-6, atol=0.0):
    assert result.shape == expected.shape
    np.testing.assert_allclose(result.astype(np.complex128), expected.astype(np.complex128), rtol=rtol, atol=atol)


def case_binary(name, op):
    def run(dtype):
        a, b = values(dtype, seed=1), values(dtype, seed=2, low=1, high=9)  # b > 0: no division by zero
        check = check_close if dtype in FLOATS else check_equal
        check(getattr(orl, name)(a, b), pixelwise(op, dtype, a, b))
        check(getattr(orl, name)(a, 3), pixelwise(lambda x: op(x, 3), dtype, a))
    return run


def case_unary(name, op, **kwargs):
    def run(dtype):
        a = values(dtype, seed=4, low=0 if name in ("sqrt", "log") else None, high=10 if name == "exp" else None)
        a[a == 0] = 1
        check = check_close if dtype in FLOATS else check_equal
        check(getattr(orl, name)(a, **kwargs), pixelwise(op, dtype, a))
    return run


def case_distance(metric, method):
    def run(dtype):
        a = shapes(dtype)
        result = orl.distance_transform(a, mode=metric, method=method)
        expected = brute_distance(a, metric)
        if method == "chamfer" and metric in ("euclidean", "squared"):
            rel = 0.02 if metric == "euclidean" else 0.0404
            assert np.all(np.abs(result - expected) <= rel * expected + 1e-6)
        else:
            check_close(result, expected)
    return run


def case_skeleton(method):
    def run(dtype):
        a = np.zeros((12, 16), dtype)
        a[2:9, 2:13] = 1
        a[10, 1:15] = 1  # a line one pixel wide stays
        s = orl.skeleton(a, method=method)
        assert s.dtype == dtype and set(np.unique(s)) <= {0, 1}
        assert np.all(s[a == 0] == 0) and s[2:9, 2:13].any() and s[2:9, 2:13].sum() < 20
        np.testing.assert_array_equal(s[10], a[10])
        np.testing.assert_array_equal(orl.skeleton(s, method=method), s)
    return run


def case_reconstruction(dtype):
    mask = values(dtype, seed=5, low=0, high=100)
    marker = np.zeros_like(mask)
    marker[4, 6] = mask[4, 6]
    check_equal(orl.grayscale_reconstruction(marker, mask), brute_reconstruction(marker, mask))


def case_equalize(dtype):
    a = values(dtype, shape=(40, 50), seed=6)
    e = orl.equalize_histogram(a, bins=4096)
    order = np.argsort(a, axis=None, kind="stable")
    assert np.all(np.diff(e.ravel()[order].astype(np.float64)) >= 0)  # monotone
    if dtype in (np.uint8, np.uint16, np.int16):
        assert (e.min(), e.max()) == (np.iinfo(dtype).min, np.iinfo(dtype).max)
    else:
        assert (e.min(), e.max()) == (a.min(), a.max())


def case_resample(dtype):
    a = values(dtype, shape=(6, 8), seed=7)
    check_equal(orl.resample(a, (12, 24), kernel="nearest"), np.repeat(np.repeat(a, 2, 0), 3, 1))
    block_mean = a.astype(np.float64).reshape(3, 2, 4, 2).mean(axis=(1, 3))
    check_close(orl.resample(a, (3, 4), kernel="average"), to_dtype(block_mean, dtype), rtol=1e-6, atol=1)


def case_fft(dtype):
    a = values(dtype, shape=(5, 12), seed=8)
    spectrum = orl.fft(a)
    padded = np.zeros((8, 16))
    padded[:5, :12] = a
    assert spectrum.dtype == (np.complex64 if dtype == np.float32 else np.complex128)
    check_close(spectrum, np.fft.fft2(padded), rtol=1e-5, atol=1e-2)
    check_close(orl.ifft(spectrum, a.shape), a, rtol=1e-5, atol=1e-4)


def case_gradient(dtype):
    y, x = np.mgrid[0:20, 0:30]
    a = (60 + 40 * np.sin(x * 0.3 + y * 0.1) + 30 * np.cos(y * 0.25)).astype(dtype)
    g = orl.gradient_orientation(a)
    assert g.dtype == (np.float64 if dtype == np.float64 else np.float32)
    assert np.all((g >= 0) & (g < np.pi))
    cos, sin = sobel_doubled_angle(a)
    check_close(np.cos(2 * g.astype(np.float64)), cos, atol=1e-4)
    check_close(np.sin(2 * g.astype(np.float64)), sin, atol=1e-4)
    assert orl.gradient_orientation(a, shape=(10, 15)).shape == (10, 15)


def case_color(dtype):
    rgb = rng(9).random((3, 4, 5)).astype(np.float32)
    hsv = orl.convert_color(rgb, "rgb_to_hsv")
    expected = np.array([colorsys.rgb_to_hsv(*rgb[:, i, j]) for i in range(4) for j in range(5)]).T.reshape(3, 4, 5)
    expected[0] *= 360
    check_close(hsv, expected, rtol=1e-4, atol=1e-4)
    gray = orl.convert_color(rgb, "rgb_to_gray")
    check_close(gray, 0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2], atol=1e-6)
    rgb8 = rng(9).integers(0, 255, (3, 6, 7), endpoint=True).astype(np.uint8)
    back = orl.convert_color(orl.convert_color(rgb8, "rgb_to_ycbcr"), "ycbcr_to_rgb")
    assert np.abs(back.astype(int) - rgb8).max() <= 1


def case_mask(dtype):
    a, m = values(dtype, seed=10), rng(11).integers(0, 4, (9, 13)).astype(np.uint8)
    fill = np.nan if dtype in FLOATS else 5
    check_equal(orl.mask(a, m, nodata=None if dtype in FLOATS else 5), np.where(m == 0, fill, a).astype(dtype))
    check_equal(orl.mask(a, m == 2, nodata=5), np.where(m == 2, 5, a).astype(dtype))
    check_equal(orl.mask(a, m, mask_range=(1, 2), nodata=5), np.where((m < 1) | (m > 2), 5, a).astype(dtype))


def case_range_replace(dtype):
    a = values(dtype, seed=12)
    hit = (a >= -100) & (a <= 300)
    check_equal(orl.mask_range_replace(a, -100, 300, value=7), np.where(hit, 7, a).astype(dtype))
    check_equal(orl.mask_range_replace(a, -100, 300, inside=False, nodata=7), np.where(hit, a, 7).astype(dtype))


def case_mask_merge(dtype):
    masks = rng(13).integers(0, 2, (3, 9, 13)).astype(dtype)
    check_equal(orl.mask_merge(masks), (masks.sum(axis=0) >= 2).astype(dtype))
    weighted = (2 * (masks[0] * 3.0 + masks[1] + masks[2]) >= 5).astype(dtype)
    check_equal(orl.mask_merge(masks, weights=[3, 1, 1]), weighted)


def case_min_max(dtype):
    a, b = values(dtype, seed=14), values(dtype, seed=15)
    low, high = orl.min_max(a, b)
    check_equal(low, np.minimum(a, b))
    check_equal(high, np.maximum(a, b))


def case_astype(dtype):
    a = rng(16).uniform(-70000.0, 70000.0, (9, 13))
    a[0, :4] = [2.5, -2.5, 0.5, 1e300]
    check_equal(orl.astype(a, dtype), to_dtype(a, dtype))
    check_equal(orl.astype(orl.astype(a, dtype), np.float64), to_dtype(a, dtype).astype(np.float64))


def case_medoid(dtype):
    stack = values(dtype, shape=(5, 6, 7), seed=17)
    s = stack.astype(np.float64)
    cost = np.abs(s[:, None] - s[None, :]).sum(axis=1)
    check_equal(orl.medoid(stack), np.take_along_axis(stack, cost.argmin(axis=0)[None], 0)[0])
    vectors = values(dtype, shape=(4, 3, 5, 6), seed=18)
    v = vectors.astype(np.float64)
    cost = np.sqrt(((v[:, None] - v[None, :]) ** 2).sum(axis=2)).sum(axis=1)
    best = cost.argmin(axis=0)
    check_equal(orl.medoid(vectors), np.take_along_axis(vectors, best[None, None].repeat(3, 1), 0)[0])


def case_select_index(dtype):
    stack = values(dtype, shape=(4, 9, 13), seed=19)
    index = rng(20).integers(0, 4, (2, 9, 13)).astype(np.uint16)
    check_equal(orl.select_index(index[0].astype(np.uint8), stack), np.take_along_axis(stack, index[:1], 0)[0])
    check_equal(orl.select_index(index, stack), np.stack([np.take_along_axis(stack, i[None], 0)[0] for i in index]))


def case_regression(dtype):
    stack = values(dtype, shape=(3, 9, 13), seed=21, low=0, high=100)
    c = [0.5, -1.25, 2.0, 3.0]
    predicted = np.tensordot(c[:3], stack.astype(np.float64), 1) + c[3]
    check = check_close if dtype in FLOATS else check_equal  # sums in another order
    check(orl.predict_regression(stack, c), to_dtype(predicted, dtype))
    check(orl.predict_regression(stack, c, bounds=(0, 50)), to_dtype(np.clip(predicted, 0, 50), dtype))
    m = np.array([[1.0, 0, 0, 0], [0, 1, 0, 0], [0, 0, 1, 0.5]])
    check_equal(orl.stratify(stack, m, classes=[10, 20, 30]),
                np.array([10, 20, 30], np.uint8)[np.argmax(np.tensordot(m[:, :3], stack, 1) + m[:, 3:, None], 0)])


CASES = {
    **{name: (DTYPES, case_binary(name, op)) for name, op in [
        ("add", np.add), ("subtract", np.subtract), ("multiply", np.multiply), ("divide", np.divide),
        ("power", np.power), ("minimum", np.minimum), ("maximum", np.maximum)]},
    **{name: (DTYPES, case_unary(name, op)) for name, op in [
        ("negative", np.negative), ("absolute", np.absolute), ("sqrt", np.sqrt), ("log", np.log), ("exp", np.exp)]},
    "scale_offset": (DTYPES, case_unary("scale_offset", lambda x: 1.5 * x - 2.25, scale=1.5, offset=-2.25)),
    "clip": (DTYPES, case_unary("clip", lambda x: np.clip(x, -20, 30), low=-20, high=30)),
    **{"distance %s %s" % (m, method): (DTYPES if m == "euclidean" else [np.uint8, np.float32], case_distance(m, method))
       for m in ["euclidean", "squared", "cityblock", "chessboard"] for method in ["exact", "chamfer"]},
    **{"skeleton " + m: ([np.uint8, np.int32, np.float64], case_skeleton(m))
       for m in ["zhang_suen", "guo_hall_a1", "guo_hall_a2", "simple"]},
    "grayscale_reconstruction": (DTYPES, case_reconstruction),
    "equalize_histogram": (DTYPES, case_equalize),
    "resample": (DTYPES, case_resample),
    "fft": (FLOATS, case_fft),
    "gradient_orientation": ([np.uint8, np.uint16, np.int16, np.float32, np.float64], case_gradient),
    "convert_color": ([np.float32], case_color),
    "mask": (DTYPES, case_mask),
    "mask_range_replace": ([np.int16, np.int32, np.float32], case_range_replace),
    "mask_merge": (DTYPES, case_mask_merge),
    "min_max": (DTYPES, case_min_max),
    "astype": (DTYPES, case_astype),
    "medoid": (DTYPES, case_medoid),
    "select_index": (DTYPES, case_select_index),
    "regression": ([np.uint8, np.int16, np.float64], case_regression),
}


@pytest.mark.parametrize("name,dtype", [(name, np.dtype(d).name) for name, (dtypes, _) in CASES.items()
                                        for d in dtypes])
def test_filter_against_reference(name, dtype):
    CASES[name][1](np.dtype(dtype).type)


def test_out_is_written_in_place():
    a = values(np.float32, seed=22)
    out = np.empty_like(a)
    assert np.shares_memory(orl.clip(a, 0, 1, out=out), out)
    distances = np.empty(shapes(np.uint8).shape, np.float32)
    assert np.shares_memory(orl.distance_transform(shapes(np.uint8), out=distances), distances)
    b = a.copy()
    assert np.shares_memory(orl.add(b, a, out=b), b)  # a filter that may write over its source
    np.testing.assert_array_equal(b, a + a)
