"""Orl: raster filters and statistics over numpy arrays, without copies.

A C-contiguous 2-D array of dtype uint8, uint16, int16, uint32, int32, float32 or float64 is used
in place; other layouts are copied once. ``orl.dask`` runs the same operations on Dask arrays.
"""

from ._orl import fill_holes, statistics

__all__ = ["fill_holes", "statistics"]
