"""The operations of ``orl`` on Dask arrays.

``fill_holes``, ``gradient_orientation`` and ``resample`` (by an integer reduction factor) run the
filter chunk by chunk with a halo of neighbouring pixels; ``statistics`` joins per-chunk partial
results. All give what the single-machine call gives on the whole array (see each function for the
exact terms). They run on whatever scheduler is active, a ``distributed`` cluster included; the
chunk work releases the GIL, so threaded workers run chunks in parallel.

The filters of ``orl`` that work pixel by pixel (arithmetic, ``astype``, masks, stacks) need no
halo: ``darr.map_blocks(lambda block: orl.sqrt(block))`` runs them as they are (through a lambda or
a Python function, which a distributed cluster ships by pickling; the extension's own functions do
not pickle). The global ones (distance transforms, skeletons, reconstruction, equalization, FFT)
depend on the whole raster and are single-machine only.
"""

import math
from functools import reduce

import dask
import dask.array as da
import numpy as np

from . import _orl

__all__ = ["fill_holes", "gradient_orientation", "resample", "statistics"]


def fill_holes(darr, nodata=None, max_distance=64.0, min_directions=2, mask=None, mask_range=None):
    """Fill the holes of a 2-D Dask array, chunk by chunk; see ``orl.fill_holes``.

    Each chunk is filtered together with a halo of ``ceil(max_distance)`` pixels of its neighbours
    (nothing is added beyond the array's edges), and the halo is cut off again. A hole only takes
    values from valid pixels at most ``max_distance`` steps away along its eight lines, and those
    all lie inside the halo, so without a mask the result equals ``orl.fill_holes`` on the whole
    array bit for bit, for any chunking.

    With a mask the same holds as long as every invalid pixel of ``darr`` is also selected by the
    mask. Invalid pixels the mask does not select are skipped: they do not lengthen a line, so a
    line may reach across a run of them beyond the halo. Near a chunk edge such a hole can then
    see fewer contributions than on the whole array, and may stay unfilled or get another value.

    Parameters
    ----------
    darr : dask.array.Array, 2-D
        Any of the seven dtypes of ``orl.fill_holes``.
    nodata, max_distance, min_directions, mask_range
        As for ``orl.fill_holes``.
    mask : dask.array.Array or ndarray, optional
        Same shape as ``darr``; rechunked to ``darr``'s chunks.

    Returns
    -------
    dask.array.Array
        Lazy, with ``darr``'s dtype, shape and chunks.
    """
    darr = da.asarray(darr)
    if darr.ndim != 2:
        raise ValueError("darr: expected a 2-D array, got %d dimensions" % darr.ndim)
    if not max_distance > 0 or not math.isfinite(max_distance):
        raise ValueError("max_distance: must be positive and finite")
    halo = int(math.ceil(max_distance))
    depth = {0: halo, 1: halo}
    kwargs = dict(nodata=nodata, max_distance=max_distance, min_directions=min_directions, mask_range=mask_range)
    if mask is None:
        return da.map_overlap(
            lambda block: _orl.fill_holes(block, **kwargs), darr, depth=depth, boundary="none",
            dtype=darr.dtype, meta=np.empty((0, 0), darr.dtype))
    mask = da.asarray(mask)
    if mask.shape != darr.shape:
        raise ValueError("mask: shape differs from the input's")
    mask = mask.rechunk(darr.chunks)
    return da.map_overlap(
        lambda block, mask_block: _orl.fill_holes(block, mask=mask_block, **kwargs), darr, mask,
        depth=depth, boundary="none", dtype=darr.dtype, meta=np.empty((0, 0), darr.dtype))


def _join_moments(left, right):
    """Joins two (valid, invalid, min, max, sum, sum of squares) partials as the library joins its own."""
    return (left[0] + right[0], left[1] + right[1], right[2] if right[2] < left[2] else left[2],
            right[3] if right[3] > left[3] else left[3], left[4] + right[4], left[5] + right[5])


# Module-level functions, as distributed ships tasks by reference and cannot pickle the extension's.
def _chunk_moments(block, nodata):
    return _orl._chunk_moments(block, nodata)


def _chunk_histogram(block, nodata, low, high, bins):
    return _orl._chunk_histogram(block, nodata, low, high, bins)


def statistics(darr, nodata=None, bins=1024):
    """Statistics of a 2-D Dask array from per-chunk partial results; see ``orl.statistics``.

    Two passes over the chunks. The first gives each chunk's counts, extremes and sums (exact
    integers for integer dtypes); the second each chunk's histogram over the joined extremes, binned
    exactly as the single-machine call bins. The partials are small and joined by the caller.
    Persist ``darr`` first when computing it twice is costly.

    For integer dtypes the result equals ``orl.statistics(darr.compute(), nodata, bins=bins)``
    exactly. For float dtypes everything but ``mean``, ``variance`` and ``std`` is exact as well;
    those come from sums of doubles added in another order than the library's parallel reduction,
    and agree to the last few bits (relative 1e-12 and better in practice).

    Returns
    -------
    dict
        As ``orl.statistics``.
    """
    darr = da.asarray(darr)
    if darr.ndim != 2:
        raise ValueError("darr: expected a 2-D array, got %d dimensions" % darr.ndim)
    blocks = list(darr.to_delayed().ravel())
    chunk_moments = dask.delayed(_chunk_moments, pure=True)
    moments = dask.compute(*[chunk_moments(block, nodata) for block in blocks])
    valid, invalid, low, high, total, squares = reduce(_join_moments, moments)
    chunk_histogram = dask.delayed(_chunk_histogram, pure=True)
    histograms = dask.compute(*[chunk_histogram(block, nodata, low, high, bins) for block in blocks])
    histogram = np.sum(histograms, axis=0, dtype=np.uint64)
    return _orl._finish_statistics(darr.dtype, nodata is not None, valid, invalid, low, high, total, squares,
                                   bins, histogram)


def gradient_orientation(darr, nodata=None, nodata_policy="invalidate"):
    """Gradient orientation of a 2-D Dask array at full resolution; see ``orl.gradient_orientation``.

    A pixel's gradient depends on its 3 x 3 neighbourhood only, so each chunk is filtered with a
    halo of one pixel (none beyond the array's edges, where the filter replicates the edge as on the
    whole array): the result equals ``orl.gradient_orientation(darr.compute())`` bit for bit.

    Returns
    -------
    dask.array.Array
        Lazy, float32 (float64 for float64 input), with ``darr``'s chunks.
    """
    darr = da.asarray(darr)
    if darr.ndim != 2:
        raise ValueError("darr: expected a 2-D array, got %d dimensions" % darr.ndim)
    dtype = np.float64 if darr.dtype == np.float64 else np.float32
    return da.map_overlap(
        lambda block: _orl.gradient_orientation(block, nodata=nodata, nodata_policy=nodata_policy), darr,
        depth={0: 1, 1: 1}, boundary="none", dtype=dtype, meta=np.empty((0, 0), dtype))


_KERNEL_REACH = {"nearest": 1, "average": 1, "bilinear": 1, "cubic": 2, "lanczos3": 3}


def resample(darr, factor, kernel="average", nodata=None):
    """Reduce a 2-D Dask array by an integer factor on both axes; see ``orl.resample``.

    Each output pixel covers ``factor`` x ``factor`` input pixels and its kernel reaches at most
    ``reach * factor`` input pixels from its cell (reach 1 for nearest, average and bilinear, 2 for
    cubic, 3 for lanczos3). Each chunk is filtered with a halo of that many pixels, a multiple of the
    factor, so the cell grid of a chunk with its halo is that of the whole array; the outputs of the
    halo are cut off again. The result equals ``orl.resample(darr.compute(), shape)`` with ``shape``
    the array's shape divided by ``factor``, bit for bit.

    Every chunk must be a multiple of ``factor``, and at least the halo wide where an axis has more
    than one chunk (rechunk first); otherwise ValueError. Enlarging, or any other ratio, is single-machine only.

    Returns
    -------
    dask.array.Array
        Lazy, of ``darr``'s dtype, with chunks ``darr``'s divided by ``factor``.
    """
    darr = da.asarray(darr)
    if darr.ndim != 2:
        raise ValueError("darr: expected a 2-D array, got %d dimensions" % darr.ndim)
    if int(factor) != factor or factor < 1:
        raise ValueError("factor: must be a positive integer")
    factor = int(factor)
    if kernel not in _KERNEL_REACH:
        raise ValueError("kernel: %r is not one of %s" % (kernel, ", ".join(map(repr, _KERNEL_REACH))))
    if any(c % factor for axis in darr.chunks for c in axis):
        raise ValueError("darr: every chunk must be a multiple of factor on both axes; rechunk first")
    reach = _KERNEL_REACH[kernel]
    halo = reach * factor
    if any(len(axis) > 1 and min(axis) < halo for axis in darr.chunks):
        raise ValueError("darr: chunks narrower than the kernel's reach of %d pixels; rechunk" % halo)
    padded = da.overlap.overlap(darr, depth={0: halo, 1: halo}, boundary="none")
    counts = [len(axis) for axis in darr.chunks]

    def block(b, block_info=None):
        location = block_info[0]["chunk-location"]
        out = _orl.resample(b, (b.shape[0] // factor, b.shape[1] // factor), kernel=kernel, nodata=nodata)
        cut = [slice(reach if location[i] > 0 else 0, -reach if location[i] < counts[i] - 1 else None)
               for i in (0, 1)]
        return out[cut[0], cut[1]]

    chunks = tuple(tuple(c // factor for c in axis) for axis in darr.chunks)
    return padded.map_blocks(block, chunks=chunks, dtype=darr.dtype, meta=np.empty((0, 0), darr.dtype))
