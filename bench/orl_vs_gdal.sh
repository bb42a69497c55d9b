#!/usr/bin/env bash
# End to end on one float32 GeoTIFF (uncompressed, 10% single-pixel holes as no-data -9999), warm
# page cache: `orl fill` against `gdal_fillnodata.py` with the same maximum distance and no
# smoothing, and `orl stats` against `gdalinfo -stats`. Times and peak memory from /usr/bin/time.
#
#   bench/orl_vs_gdal.sh [SIZE] [ORL]
#     SIZE  width and height in pixels (16384: a 1 GiB file)
#     ORL   the built tool (build/rel/tools/orl/orl)
#   ORL_BENCH_DIR  where the files go (/tmp/orl-bench); the input is kept for the next run.
set -euo pipefail
size=${1:-16384}
orl=$(realpath "${2:-build/rel/tools/orl/orl}")
dir=${ORL_BENCH_DIR:-/tmp/orl-bench}
mkdir -p "$dir"
in="$dir/in-$size.tif"

need() { command -v "$1" >/dev/null || { echo "orl_vs_gdal: needs $1 (apt-get install $2)" >&2; exit 1; }; }
need gdal_fillnodata.py python3-gdal
need gdalinfo gdal-bin
[ -x /usr/bin/time ] || { echo "orl_vs_gdal: needs /usr/bin/time (apt-get install time)" >&2; exit 1; }

if [ ! -f "$in" ]; then
  echo "making $in ($size x $size float32)"
  # Debian's Python, which has the GDAL bindings; a python3 earlier on PATH may not.
  /usr/bin/python3 - "$in" "$size" <<'PY'
import sys
import numpy as np
from osgeo import gdal
path, n = sys.argv[1], int(sys.argv[2])
ds = gdal.GetDriverByName("GTiff").Create(path, n, n, 1, gdal.GDT_Float32, ["BIGTIFF=YES"])
ds.SetGeoTransform([500000.0, 1.0, 0.0, 4600000.0, 0.0, -1.0])
ds.SetProjection("EPSG:32633")
band = ds.GetRasterBand(1)
band.SetNoDataValue(-9999.0)
rng = np.random.default_rng(1)
x = np.arange(n, dtype=np.float32)
for y0 in range(0, n, 1024):
    y = np.arange(y0, min(n, y0 + 1024), dtype=np.float32)[:, None]
    rows = 900 + 300 * np.sin(x / 700.0) * np.cos(y / 900.0) + 0.01 * (x + y) + rng.normal(0, 0.4, (len(y), n))
    rows = rows.astype(np.float32)
    rows[rng.random(rows.shape) < 0.1] = -9999.0
    band.WriteArray(rows, 0, y0)
ds = None
PY
fi
cat "$in" > /dev/null # warm page cache

run() { # label, command...
  local label=$1; shift
  rm -f "$dir"/out*.tif "$in.aux.xml"
  /usr/bin/time -f "%e %M" -o "$dir/time" "$@" > /dev/null
  read -r seconds kib < "$dir/time"
  printf "%-44s %8.2f s %8.0f MiB\n" "$label" "$seconds" "$((kib / 1024))"
}

echo "$size x $size float32, $(nproc) cores"
run "gdal_fillnodata.py -md 10 -si 0" gdal_fillnodata.py -q -md 10 -si 0 "$in" "$dir/out-gdal.tif"
run "orl fill -d 10 (tiled ZSTD)" "$orl" fill -q -d 10 "$in" "$dir/out.tif"
run "orl fill -d 10 -co COMPRESS=NONE" "$orl" fill -q -d 10 -co COMPRESS=NONE "$in" "$dir/out.tif"
run "orl fill -d 10 --memory 256M" "$orl" fill -q -d 10 --memory 256M "$in" "$dir/out.tif"
run "gdalinfo -stats" gdalinfo -stats "$in"
run "orl stats" "$orl" stats -q "$in"
run "orl stats --memory 256M" "$orl" stats -q --memory 256M "$in"
rm -f "$dir"/out*.tif "$dir/time" "$in.aux.xml"
