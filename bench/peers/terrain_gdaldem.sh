#!/usr/bin/env bash
# Slope, aspect and hillshade of one large GeoTIFF with gdaldem and with pixwerk, file to
# file in one run, with an identity export of the same file as the I/O floor. Prints the
# times, the speed ratios against gdaldem and each chain's time over the identity export.
# Outputs: slope F32, aspect F32 (pixwerk's default 16-bit aspect is timed too), hillshade
# 8-bit; both leave the border cells without a value.
# Each run writes a new file after a sync (replacing an existing file costs its page cache
# and varies more than the work measured). gdaldem's time is the best of three runs; each
# pixwerk chain and an identity export of the same file run five times in turn, and the
# chain's best is set against the identity's best of the same turns.
# Usage: bench/peers/terrain_gdaldem.sh [SIZE]   (default 8192; build the release preset first)
set -euo pipefail
cd "$(dirname "$0")/../.."
size="${1:-8192}"
bin=build/release/bin
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

"$bin/pixwerk-sample" "$work" 1024 > /dev/null
gdal_translate -q -outsize "$size" "$size" -r bilinear -co TILED=YES "$work/dem.tif" "$work/input.tif"
chain() {  # name, function, extra arguments, pixel type
  cat > "$work/$1.json" <<JSON
{ "function": "$2", "arguments": { "$3": "input.tif" $4 } $5 }
JSON
}
chain identity IdentityFunction Raster "" ""
chain slope SlopeFunction DEM "" ""
chain aspect AspectFunction Raster "" ', "pixelType": "F32"'
chain aspect16 AspectFunction Raster "" ""
chain hillshade HillshadeFunction DEM "" ""

run_once() {  # output, command...: one run writing a new file after a sync; prints seconds
  local out="$1" start end
  shift
  rm -f "$out"
  sync
  start=$(date +%s.%N)
  "$@" > /dev/null 2>&1
  end=$(date +%s.%N)
  echo "$end - $start" | bc -l
}
best() {  # the smaller of two numbers, the second empty at first
  if [ -z "$2" ] || [ "$(echo "$1 < $2" | bc -l)" = 1 ]; then echo "$1"; else echo "$2"; fi
}
seconds() {  # output, command...: the best of three runs
  local out="$1" b=""
  shift
  for _ in 1 2 3; do b=$(best "$(run_once "$out" "$@")" "$b"); done
  echo "$b"
}
ours() {  # job: the best of five runs of the chain and of the identity export, taken in turns
  # so that both see the machine in the same state; prints "chain identity"
  local c="" i=""
  for _ in 1 2 3 4 5; do
    i=$(best "$(run_once "$work/identity.tif" "$bin/pixwerk" run "$work/identity.json" \
      -o "$work/identity.tif" --quiet)" "$i")
    c=$(best "$(run_once "$work/$1.tif" "$bin/pixwerk" run "$work/$1.json" -o "$work/$1.tif" \
      --quiet)" "$c")
  done
  echo "$c $i"
}
echo "terrain of a ${size} x ${size} Float32 GeoTIFF, $(nproc) cores"
for job in slope aspect hillshade; do
  peer=$(seconds "$work/peer_$job.tif" gdaldem "$job" -q "$work/input.tif" "$work/peer_$job.tif")
  read -r mine identity <<< "$(ours "$job")"
  printf "%-10s gdaldem %6.2f s   pixwerk %6.2f s   ratio %5.1fx   identity %5.2f s   over identity %4.2fx\n" \
    "$job" "$peer" "$mine" "$(echo "$peer / $mine" | bc -l)" "$identity" "$(echo "$mine / $identity" | bc -l)"
done
read -r mine identity <<< "$(ours aspect16)"
printf "%-10s (16-bit output)  pixwerk %6.2f s                 identity %5.2f s   over identity %4.2fx\n" \
  aspect "$mine" "$identity" "$(echo "$mine / $identity" | bc -l)"
# The outputs agree with gdaldem's where both have values (Horn's method, z 1, the same
# light): the largest difference over the interior.
/usr/bin/python3 - "$work" <<'PY'
import sys
from osgeo import gdal
import numpy as np
work = sys.argv[1]
def read(path):
    dataset = gdal.Open(path)  # kept alive while its band is read
    band = dataset.GetRasterBand(1)
    values = band.ReadAsArray().astype(np.float64)[1:-1, 1:-1]
    nodata = band.GetNoDataValue()
    valid = np.isfinite(values) if nodata is None else (values != nodata) & np.isfinite(values)
    return values, valid
for job in ("slope", "aspect", "hillshade"):
    a, va = read(f"{work}/{job}.tif")
    b, vb = read(f"{work}/peer_{job}.tif")
    both = va & vb
    d = np.abs(a - b)[both]
    if job == "aspect":
        d = np.minimum(d, 360 - d)
    print(f"{job:<10} differences from gdaldem: largest {d.max():.3g}, 99.9% within "
          f"{np.quantile(d, 0.999):.3g}, over {both.sum()} cells")
PY
