#!/usr/bin/env bash
# Arithmetic, NDVI, the mask by range and a min-max stretch against NumPy on the same arrays, and file to file against
# gdal_calc.py on the same GeoTIFF, in one run; prints cells per second and ratios.
# NumPy runs on one core (its ufuncs are single-threaded); Pixwerk's array kernels are
# timed on one and on two threads, and the two-thread figure is set against the memory
# bandwidth bound for the bytes each cell moves.
# Usage: bench/peers/elementary_numpy.sh [SIZE]   (file size, default 8192; build the
# release preset first; needs python3-numpy and python3-gdal)
set -euo pipefail
cd "$(dirname "$0")/../.."
size="${1:-8192}"
source bench/peers/lib.sh

echo "== arrays of 16 M cells, $(nproc) cores"
"$python" - "$work" <<'PY'
import sys, time, numpy as np
work = sys.argv[1]
n = 1 << 24
rng = np.random.default_rng(1)
a8 = rng.integers(0, 256, n, dtype=np.uint8); b8 = rng.integers(0, 256, n, dtype=np.uint8)
af = rng.uniform(-1000, 1000, n).astype(np.float32); bf = rng.uniform(1, 1000, n).astype(np.float32)
red = rng.integers(0, 10000, n, dtype=np.uint16); nir = rng.integers(0, 10000, n, dtype=np.uint16)
for name, arr in [("a_u8", a8), ("b_u8", b8), ("a_f32", af), ("b_f32", bf), ("red_u16", red), ("nir_u16", nir)]:
    arr.tofile(f"{work}/{name}.raw")

def best(f, runs=7):
    times = []
    for _ in range(runs):
        t = time.perf_counter(); f(); times.append(time.perf_counter() - t)
    return n / min(times)

def ndvi_scientific():
    r = red.astype(np.float32); i = nir.astype(np.float32)
    s = i + r
    with np.errstate(divide="ignore", invalid="ignore"):
        q = np.where(s == 0, 0, (i - r) / s).astype(np.float32)
    return q

def ndvi_scaled():
    r = red.astype(np.float64); i = nir.astype(np.float64)
    s = i + r
    with np.errstate(divide="ignore", invalid="ignore"):
        q = np.where(s == 0, 0, np.trunc((i - r) / s * 100 + 100.5))
    return q.astype(np.uint8)

results = {
    "plus_u8": best(lambda: np.add(a8, b8, dtype=np.uint16)),
    "divide_f32": best(lambda: np.divide(af, bf, dtype=np.float64)),
    "ndvi_scientific": best(ndvi_scientific),
    "ndvi_scaled": best(ndvi_scaled),
    "mask_range_u16": best(lambda: np.where((red >= 1000) & (red <= 8000), red, 0)),
    "stretch_u16_u8": best(lambda: np.clip((red - 1000.0) * (255.0 / 8000.0) + 0.5, 0, 255).astype(np.uint8)),
}
with open(f"{work}/numpy.txt", "w") as out:
    for k, v in results.items():
        out.write(f"{k} {v}\n")
PY

PIXWERK_PEER_DIR="$work" "$bench" --benchmark_filter='BM_(Arithmetic|Ndvi|MaskRange|StretchMinMax)' \
  --benchmark_format=json --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  > "$work/pixwerk.json" 2> /dev/null

"$python" - "$work" <<'PY'
import json, sys
work = sys.argv[1]
numpy = dict(l.split() for l in open(f"{work}/numpy.txt"))
runs = {}
for b in json.load(open(f"{work}/pixwerk.json"))["benchmarks"]:
    if b.get("aggregate_name") == "max" or b["name"].endswith("_max"):
        pass
    if b.get("aggregate_name") != "median":
        continue
    runs[b["run_name"]] = b["items_per_second"]
bandwidth = 23e9  # two-thread copy bandwidth of this machine, bytes per second
cases = [("plus_u8", "BM_ArithmeticPlusU8/{}/real_time", 4),
         ("divide_f32", "BM_ArithmeticDivideF32/{}/real_time", 16),
         ("ndvi_scientific", "BM_Ndvi/scientific:1/threads:{}/real_time", 8),
         ("ndvi_scaled", "BM_Ndvi/scientific:0/threads:{}/real_time", 5),
         ("mask_range_u16", "BM_MaskRange/{}/real_time", 4),
         ("stretch_u16_u8", "BM_StretchMinMaxU16ToU8/{}/real_time", 3)]
print(f"{'kernel':<18}{'NumPy 1 core':>14}{'Pixwerk 1':>12}{'ratio':>8}{'Pixwerk 2':>12}{'of bound':>10}")
for name, pattern, bytes_per_cell in cases:
    one, two = runs.get(pattern.format(1)), runs.get(pattern.format(2))
    peer = float(numpy[name])
    if one is None or two is None:
        print(f"{name:<18} missing benchmark"); continue
    bound = bandwidth / bytes_per_cell
    print(f"{name:<18}{peer/1e6:>11.0f} M/s{one/1e6:>8.0f} M/s{one/peer:>7.1f}x"
          f"{two/1e6:>8.0f} M/s{100*two/bound:>9.0f}%")
PY

echo "== file to file: ${size} x ${size} UInt16 GeoTIFF of four bands"
"$bin/pixwerk-sample" "$work" 1024 > /dev/null
gdal_translate -q -outsize "$size" "$size" -r bilinear -co TILED=YES "$work/image.tif" "$work/input.tif"
cat > "$work/sum.json" <<'JSON'
{ "function": "ArithmeticFunction",
  "arguments": { "Raster": { "function": "ExtractBandFunction", "arguments": { "Raster": "input.tif", "BandIDs": [2] } },
                 "Raster2": { "function": "ExtractBandFunction", "arguments": { "Raster": "input.tif", "BandIDs": [3] } },
                 "Operation": "plus" } }
JSON
cat > "$work/ndvi.json" <<'JSON'
{ "function": "NDVIFunction", "arguments": { "Raster": "input.tif", "ScientificOutput": true } }
JSON
export GDAL_NUM_THREADS=ALL_CPUS
for job in sum ndvi; do
  if [ "$job" = sum ]; then
    peer=(gdal_calc.py --quiet --overwrite -A "$work/input.tif" --A_band=3 -B "$work/input.tif" --B_band=4
          --calc="A.astype(numpy.uint32)+B" --type=UInt32 --outfile="$work/peer_sum.tif")
  else
    peer=(gdal_calc.py --quiet --overwrite -A "$work/input.tif" --A_band=3 -B "$work/input.tif" --B_band=4
          --calc="numpy.where((A.astype(numpy.float32)+B)==0,0,(B.astype(numpy.float32)-A)/(B.astype(numpy.float32)+A))"
          --type=Float32 --outfile="$work/peer_ndvi.tif")
  fi
  p=$(seconds "${peer[@]}")
  x=$(seconds "$bin/pixwerk" run "$work/$job.json" -o "$work/pixwerk_$job.tif" --quiet)
  printf "%-6s gdal_calc %6.2f s   pixwerk %6.2f s   ratio %5.1fx\n" "$job" "$p" "$x" "$(echo "$p / $x" | bc -l)"
done
