import numpy as np
import pytest

import orl

da = pytest.importorskip("dask.array")
orl_dask = pytest.importorskip("orl.dask")

from test_orl import DTYPES, FLOATS, raster  # noqa: E402

CHUNKINGS = [(16, 16), (7, 50), (45, 9), (64, 64)]


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("chunks", CHUNKINGS, ids=str)
def test_dask_fill_holes_equals_whole_array(client, dtype, chunks):
    nodata = None if dtype in FLOATS else 3
    a = raster(dtype, shape=(60, 90), holes=0.4, seed=5, nodata=nodata)
    expected = orl.fill_holes(a, nodata=nodata, max_distance=5.5, min_directions=2)
    result = orl_dask.fill_holes(da.from_array(a, chunks=chunks), nodata=nodata, max_distance=5.5).compute()
    assert result.dtype == a.dtype
    np.testing.assert_array_equal(result, expected)


def test_dask_fill_holes_with_mask_selecting_every_invalid_pixel(client):
    a = raster(np.float32, shape=(50, 70), holes=0.2, seed=2)
    mask = np.isnan(a) | (np.random.default_rng(3).random(a.shape) < 0.1)
    expected = orl.fill_holes(a, mask=mask, max_distance=4)
    result = orl_dask.fill_holes(da.from_array(a, chunks=(13, 17)), mask=mask, max_distance=4).compute()
    np.testing.assert_array_equal(result, expected)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("nodata", [None, 3])
def test_dask_statistics_equal_whole_array(client, dtype, nodata):
    a = raster(dtype, shape=(70, 90), holes=0.1, seed=4, nodata=3)
    if dtype in (np.uint32, np.int32):  # large values with a small spread: sums beyond 2^64 squares
        a = (a.astype(np.int64) + (4_000_000_000 if dtype == np.uint32 else 2_000_000_000)).astype(dtype)
    expected = orl.statistics(a, nodata=nodata, bins=100)
    for chunks in CHUNKINGS:
        result = orl_dask.statistics(da.from_array(a, chunks=chunks), nodata=nodata, bins=100)
        np.testing.assert_array_equal(result.pop("histogram"), expected["histogram"])
        inexact = ["mean", "variance", "std"] if dtype in FLOATS else []
        for key in inexact:
            assert result.pop(key) == pytest.approx(expected[key], rel=1e-12)
        assert result == {k: v for k, v in expected.items() if k not in inexact and k != "histogram"}


def test_dask_statistics_of_nothing_valid(client):
    a = np.full((20, 20), 9, np.uint16)
    expected = orl.statistics(a, nodata=9)
    result = orl_dask.statistics(da.from_array(a, chunks=7), nodata=9)
    np.testing.assert_array_equal(result.pop("histogram"), expected.pop("histogram"))
    assert result == expected and result["count"] == 0


@pytest.mark.parametrize("chunks", CHUNKINGS, ids=str)
def test_dask_gradient_orientation_equals_whole_array(client, chunks):
    a = raster(np.uint16, shape=(60, 90), holes=0.05, seed=6, nodata=0)
    expected = orl.gradient_orientation(a, nodata=0)
    np.testing.assert_array_equal(orl_dask.gradient_orientation(da.from_array(a, chunks=chunks), nodata=0), expected)


@pytest.mark.parametrize("kernel,factor,chunks", [("average", 2, (16, 30)), ("bilinear", 3, (24, 30)),
                                                  ("cubic", 2, (20, 18)), ("lanczos3", 2, (60, 30))], ids=str)
def test_dask_resample_by_factor_equals_whole_array(client, kernel, factor, chunks):
    a = raster(np.float32, shape=(72, 90), holes=0.05, seed=7)
    expected = orl.resample(a, (72 // factor, 90 // factor), kernel=kernel)
    result = orl_dask.resample(da.from_array(a, chunks=chunks), factor, kernel=kernel)
    assert result.chunks == tuple(tuple(c // factor for c in axis) for axis in da.from_array(a, chunks=chunks).chunks)
    np.testing.assert_array_equal(result.compute(), expected)


def test_pixelwise_filters_run_through_map_blocks(client):
    a = raster(np.float32, shape=(40, 50), holes=0.1, seed=8)
    darr = da.from_array(a, chunks=(16, 16))
    np.testing.assert_array_equal(darr.map_blocks(lambda block: orl.sqrt(block)).compute(), orl.sqrt(a))
