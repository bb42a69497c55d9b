"""Timings of the Python package; run with PYTHONPATH=<build>/python /usr/bin/python3 bench/PythonBench.py.

  fill      orl.fill_holes on 4096 x 4096 float32, the bands and parameters of FillHoleBench
            (10% single-pixel holes at random, and large discs), into a preallocated out=; compare
            its median with FillHoleBench --benchmark_filter=BM_RatioToReference (filter_ns_per_pixel
            times 4096^2), run in turn
  stats     orl.statistics against numpy's masked-array equivalent on the same array
  dask      orl.dask.fill_holes on 16384 x 16384 float32 in 2048 x 2048 chunks on a local cluster of
            two worker processes: time, peak memory per worker, and the single-machine call
Pass the parts to run as arguments (all by default).
"""

import resource
import sys
import time

import numpy as np

import orl

NODATA = np.float32(-9999)


def terrain(shape, discs, seed=7, offset=(0, 0)):
    rng = np.random.default_rng(seed)
    y, x = np.ogrid[offset[0]:offset[0] + shape[0], offset[1]:offset[1] + shape[1]]
    a = (500 + 80 * np.sin(x * 0.01) * np.cos(y * 0.013)).astype(np.float32)
    a += rng.uniform(-1, 1, shape).astype(np.float32)
    if not discs:
        a[rng.random(shape) < 0.1] = NODATA
        return a
    for _ in range(int(400 * shape[0] * shape[1] / 4096 ** 2)):
        cy, cx, r = rng.integers(0, shape[0]), rng.integers(0, shape[1]), rng.integers(10, 61)
        y0, y1, x0, x1 = max(0, cy - r), min(shape[0], cy + r + 1), max(0, cx - r), min(shape[1], cx + r + 1)
        yy, xx = np.ogrid[y0:y1, x0:x1]
        a[y0:y1, x0:x1][(yy - cy) ** 2 + (xx - cx) ** 2 <= r * r] = NODATA
    return a


def fill_hole_bench_case(discs, size=4096):
    """The very band of FillHoleBench: its std::mt19937(7) draws, replayed by numpy's MT19937 with the
    same legacy seeding, give the same holes (the terrain agrees to float rounding)."""
    generator = np.random.MT19937()
    generator._legacy_seeding(7)
    y, x = np.ogrid[0:size, 0:size]
    noise = generator.random_raw(size * size).astype(np.float32) / np.float32(2 ** 32) * np.float32(2) - np.float32(1)
    a = (np.float32(500) + np.float32(80) * np.sin(np.float32(0.01) * x.astype(np.float32))
         * np.cos(np.float32(0.013) * y.astype(np.float32))).astype(np.float32) + noise.reshape(size, size)
    if not discs:
        a.ravel()[generator.random_raw(size * size) % 10 == 0] = NODATA
        return a
    for cx, cy, r in generator.random_raw(3 * 400).reshape(400, 3):
        cx, cy, r = int(cx % size), int(cy % size), 10 + int(r % 51)
        y0, y1, x0, x1 = max(0, cy - r), min(size, cy + r + 1), max(0, cx - r), min(size, cx + r + 1)
        yy, xx = np.ogrid[y0:y1, x0:x1]
        a[y0:y1, x0:x1][(yy - cy) ** 2 + (xx - cx) ** 2 <= r * r] = NODATA
    return a


def best(call, repeat=5):
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        call()
        times.append(time.perf_counter() - start)
    return min(times), float(np.median(times))


def fill(repeat=7):
    """Also the filter's time over two plain copy passes, taken in turn within each round as
    FillHoleBench's BM_RatioToReference does, so that the ratio holds on a busy machine."""
    for discs in (False, True):
        a = fill_hole_bench_case(discs)
        out = np.empty_like(a)
        filter_times, copy_times = [], []
        for _ in range(repeat):
            start = time.perf_counter()
            orl.fill_holes(a, nodata=NODATA, max_distance=100, min_directions=1, out=out)
            middle = time.perf_counter()
            np.copyto(out, a)
            np.copyto(out, a)
            filter_times.append(middle - start)
            copy_times.append(time.perf_counter() - middle)
        print(f"fill_holes 4096^2 float32 discs={int(discs)}: best {min(filter_times) * 1e3:.1f} ms, median "
              f"{np.median(filter_times) * 1e3:.1f} ms, ratio to two copy passes {sum(filter_times) / sum(copy_times):.2f}")


def stats():
    a = terrain((4096, 4096), False)
    low, median = best(lambda: orl.statistics(a, nodata=NODATA, bins=1024))

    def masked():
        m = np.ma.masked_equal(a, NODATA)
        return (m.count(), m.min(), m.max(), m.mean(), m.std(), np.ma.median(m),
                np.histogram(m.compressed(), bins=1024))
    mlow, mmedian = best(masked, repeat=3)
    print(f"orl.statistics 4096^2 float32: best {low * 1e3:.1f} ms, median {median * 1e3:.1f} ms; numpy masked: "
          f"best {mlow * 1e3:.1f} ms, median {mmedian * 1e3:.1f} ms; {mlow / low:.1f}x")


def _block(block_info=None):
    location = block_info[None]["array-location"]
    shape = tuple(end - start for start, end in location)
    return terrain(shape, True, seed=location[0][0] * 7919 + location[1][0], offset=(location[0][0], location[1][0]))


def _peak_rss_mib():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024


def dask_fill(size=16384, chunk=2048):
    import dask.array as da
    import distributed

    import orl.dask

    source = da.map_blocks(_block, chunks=((chunk,) * (size // chunk),) * 2, dtype=np.float32)
    reduce = lambda r: (r == NODATA).sum()  # noqa: E731 - a small result, so nothing big goes to the client
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
                                  dashboard_address=None, memory_limit="8GiB") as cluster, \
            distributed.Client(cluster) as client:
        data = source.persist()
        distributed.wait(data)
        base = client.run(_peak_rss_mib)
        start = time.perf_counter()
        unfilled = reduce(orl.dask.fill_holes(data, nodata=NODATA, max_distance=64)).compute()
        elapsed = time.perf_counter() - start
        peaks = client.run(_peak_rss_mib)
    print(f"orl.dask.fill_holes {size}^2 float32, {chunk}^2 chunks, 2 workers: {elapsed:.2f} s, {unfilled} unfilled; "
          "peak RSS per worker (MiB, after input persisted -> after filter): "
          + ", ".join(f"{base[w]:.0f} -> {peaks[w]:.0f}" for w in sorted(peaks)))
    whole = source.compute(scheduler="threads")
    start = time.perf_counter()
    single = reduce(orl.fill_holes(whole, nodata=NODATA, max_distance=64))
    single_time = time.perf_counter() - start
    print(f"orl.fill_holes on the whole array: {single_time:.2f} s, {single} unfilled; dask/single "
          f"{elapsed / single_time:.2f}; this process peak RSS {_peak_rss_mib():.0f} MiB")


if __name__ == "__main__":
    parts = sys.argv[1:] or ["fill", "stats", "dask"]
    for part in parts:
        {"fill": fill, "stats": stats, "dask": dask_fill}[part]()
