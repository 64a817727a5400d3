#!/usr/bin/env bash
# The stretch of a 16-bit band to 8 bits against NumPy on the same 8192 x 8192 array, and
# the stretch and mask chains file to file against an identity export of the same file and
# gdal_translate -scale, in one run; prints cells per second and ratios. Each side computes the statistics its stretch
# needs from the whole array: minimum and maximum, mean and standard deviation, or for the
# percent clip the histogram (NumPy's bincount, cumulative sums and a lookup table).
# NumPy runs on one core; Pixwerk is timed on one thread (per-core ratio) and on two.
# Usage: bench/peers/enhancement_numpy.sh [SIZE]   (file size, default 8192; build the release
# preset first; needs python3-numpy and python3-gdal)
set -euo pipefail
cd "$(dirname "$0")/../.."
size="${1:-8192}"
source bench/peers/lib.sh

echo "== one 16-bit band of 8192 x 8192 cells, $(nproc) cores"
"$python" - "$work" <<'PY'
import sys, time, numpy as np
work = sys.argv[1]
n = 1 << 26
rng = np.random.default_rng(7)
band = np.clip(rng.normal(3000, 800, n), 0, 65535).astype(np.uint16)
band.tofile(f"{work}/band_u16.raw")

def best(f, runs=3):
    times = []
    for _ in range(runs):
        t = time.perf_counter(); f(); times.append(time.perf_counter() - t)
    return n / min(times)

def linear(a, lo, hi):
    return np.clip((a - lo) * (255.0 / (hi - lo)) + 0.5, 0, 255).astype(np.uint8)

def minmax():
    return linear(band, float(band.min()), float(band.max()))

def stddev():
    m, s = band.mean(), band.std()
    return linear(band, m - 2 * s, m + 2 * s)

def percent_clip():
    counts = np.bincount(band, minlength=65536)
    cumulative = np.cumsum(counts)
    total = cumulative[-1]
    lo = np.searchsorted(cumulative, total * 0.005, side="right")
    hi = np.searchsorted(cumulative, total * (1 - 0.005), side="left") + 1
    table = linear(np.arange(65536, dtype=np.float64), lo, hi)
    return table[band]

with open(f"{work}/numpy.txt", "w") as out:
    for name, f in [("minmax", minmax), ("stddev", stddev), ("percent_clip", percent_clip)]:
        out.write(f"{name} {best(f)}\n")
PY

PIXWERK_PEER_DIR="$work" "$bench" --benchmark_filter='BM_StretchU16ToU8' \
  --benchmark_format=json --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  > "$work/pixwerk.json" 2> /dev/null

"$python" - "$work" <<'PY'
import json, sys
work = sys.argv[1]
numpy = dict(l.split() for l in open(f"{work}/numpy.txt"))
runs = {b["run_name"]: b["items_per_second"]
        for b in json.load(open(f"{work}/pixwerk.json"))["benchmarks"]
        if b.get("aggregate_name") == "median"}
cases = [("minmax", 5, 2), ("stddev", 3, 2), ("percent_clip", 6, 3)]
print(f"{'stretch to 8 bits':<18}{'NumPy 1 core':>14}{'Pixwerk 1':>12}{'ratio':>8}{'goal':>7}{'Pixwerk 2':>12}")
for name, code, goal in cases:
    peer = float(numpy[name])
    one = runs.get(f"BM_StretchU16ToU8/type:{code}/threads:1/real_time")
    two = runs.get(f"BM_StretchU16ToU8/type:{code}/threads:2/real_time")
    if one is None or two is None:
        print(f"{name:<18} missing benchmark"); continue
    print(f"{name:<18}{peer/1e6:>11.0f} M/s{one/1e6:>8.0f} M/s{one/peer:>7.1f}x{goal:>6}x{two/1e6:>8.0f} M/s")
PY

echo "== file to file: ${size} x ${size} UInt16 GeoTIFF of four bands (stretches to 8 bits)"
"$bin/pixwerk-sample" "$work" 1024 > /dev/null
gdal_translate -q -outsize "$size" "$size" -r bilinear -co TILED=YES "$work/image.tif" "$work/input.tif"
cat > "$work/identity.json" <<'JSON'
{ "function": "IdentityFunction", "arguments": { "Raster": "input.tif" } }
JSON
for type in MinimumMaximum StandardDeviation PercentClip; do
  cat > "$work/$type.json" <<JSON
{ "function": "StretchFunction", "arguments": { "Raster": "input.tif", "StretchType": "$type" },
  "pixelType": "U8" }
JSON
done
cat > "$work/MaskRange.json" <<'JSON'
{ "function": "MaskFunction", "arguments": { "Raster": "input.tif", "IncludedRanges": [500, 1500] } }
JSON
cat > "$work/DRA.json" <<'JSON'
{ "function": "StretchFunction",
  "arguments": { "Raster": "input.tif", "StretchType": "MinimumMaximum", "DRA": true },
  "pixelType": "U8" }
JSON
export GDAL_NUM_THREADS=ALL_CPUS
# One run first, untimed: the first export after the input is written runs slower than the
# rest (pages of the new file and of the output still being set up), which would flatter
# every chain timed after it.
seconds "$bin/pixwerk" run "$work/identity.json" -o "$work/identity.tif" --quiet > /dev/null
identity_run="$bin/pixwerk run $work/identity.json -o $work/identity.tif --quiet"
for job in MinimumMaximum StandardDeviation PercentClip DRA MaskRange; do
  read -r identity x < <(in_turn "$identity_run" "$bin/pixwerk run $work/$job.json -o $work/$job.tif --quiet")
  printf "%-18s %6.2f s   identity export %6.2f s (in turn)   %4.2fx (goal <= 1.3x)\n" "$job" "$x" "$identity" "$(echo "$x / $identity" | bc -l)"
done
peer=$(best gdal_translate -q -ot Byte -scale -co TILED=YES "$work/input.tif" "$work/peer.tif")
x=$(best "$bin/pixwerk" run "$work/MinimumMaximum.json" -o "$work/MinimumMaximum.tif" --quiet)
printf "%-18s gdal_translate -scale %6.2f s   pixwerk %6.2f s   ratio %5.1fx\n" "minimum-maximum" "$peer" "$x" "$(echo "$peer / $x" | bc -l)"
