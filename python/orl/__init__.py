"""Orl: raster filters and statistics over numpy arrays, without copies.

A C-contiguous 2-D array of dtype uint8, uint16, int16, uint32, int32, float32 or float64 is used
in place; other layouts are copied once. Stacks of bands are arrays with the bands along the first
axis. ``orl.dask`` runs the chunkable operations on Dask arrays.
"""

from ._orl import (absolute, add, astype, clip, convert_color, distance_transform, divide, equalize_histogram,
                   exp, fft, fill_holes, gradient_orientation, grayscale_reconstruction, ifft, log, mask, mask_merge,
                   mask_range_replace, maximum, medoid, min_max, minimum, multiply, negative, power,
                   predict_regression, resample, scale_offset, select_index, skeleton, sqrt, statistics, stratify,
                   subtract)

__all__ = ["absolute", "add", "astype", "clip", "convert_color", "distance_transform", "divide",
           "equalize_histogram", "exp", "fft", "fill_holes", "gradient_orientation", "grayscale_reconstruction",
           "ifft", "log", "mask", "mask_merge", "mask_range_replace", "maximum", "medoid", "min_max", "minimum",
           "multiply", "negative", "power", "predict_regression", "resample", "scale_offset", "select_index",
           "skeleton", "sqrt", "statistics", "stratify", "subtract"]
