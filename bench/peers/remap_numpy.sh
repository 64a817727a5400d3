#!/usr/bin/env bash
# The remap against NumPy and OpenCV on the same 8192 x 8192 arrays, and file to file against
# an identity export of the same file, in one run; prints cells per second and ratios.
#   dense table, 8- and 16-bit input: a lookup table (NumPy's take, OpenCV's LUT, which takes
#     8-bit input only; the 16-bit case is set against its 8-bit speed) with both cores;
#   five ranges on float input: NumPy's digitize and a lookup of the outputs, one core.
# Usage: bench/peers/remap_numpy.sh [SIZE]   (file size, default 8192; build the release
# preset first; needs python3-numpy, python3-gdal and python3-opencv)
set -euo pipefail
cd "$(dirname "$0")/../.."
size="${1:-8192}"
source bench/peers/lib.sh

echo "== arrays of 8192 x 8192 cells, $(nproc) cores"
"$python" - "$work" <<'PY'
import sys, time, numpy as np
work = sys.argv[1]
n = 1 << 26
rng = np.random.default_rng(3)
u8 = rng.integers(0, 256, n, dtype=np.uint8)
u16 = rng.integers(0, 10000, n, dtype=np.uint16)
f32 = rng.uniform(0, 1000, n).astype(np.float32)
for name, a in [("band_u8", u8), ("band_u16", u16), ("band_f32", f32)]:
    a.tofile(f"{work}/{name}.raw")

def best(f, runs=3):
    times = []
    for _ in range(runs):
        t = time.perf_counter(); f(); times.append(time.perf_counter() - t)
    return n / min(times)

# Ten classes over 8 bits, twenty over 0..10000, five over 0..1000: outputs 1, 2, ...
lut8 = (np.arange(256) * 10 // 256 + 1).astype(np.uint8)
lut16 = np.zeros(65536, np.uint8); lut16[:10000] = np.arange(10000) * 20 // 10000 + 1
edges = np.array([0, 200, 400, 600, 800, 1000.0]); outputs = np.array([0, 1, 2, 3, 4, 5, 0], np.uint8)
results = {
    "numpy_take_u8": best(lambda: lut8[u8]),
    "numpy_take_u16": best(lambda: lut16[u16]),
    "numpy_digitize_f32": best(lambda: outputs[np.digitize(f32, edges)]),
}
try:
    import cv2
    image = u8.reshape(8192, 8192)
    for threads in (1, 2):
        cv2.setNumThreads(threads)
        results[f"opencv_lut_u8_{threads}"] = best(lambda: cv2.LUT(image, lut8))
except ImportError:
    print("OpenCV is missing (apt install python3-opencv): its rows are left out")
with open(f"{work}/peers.txt", "w") as out:
    for k, v in results.items():
        out.write(f"{k} {v}\n")
PY

PIXWERK_PEER_DIR="$work" "$bench" --benchmark_filter='BM_Remap' \
  --benchmark_format=json --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  > "$work/pixwerk.json" 2> /dev/null

"$python" - "$work" <<'PY'
import json, sys
work = sys.argv[1]
peers = {k: float(v) for k, v in (l.split() for l in open(f"{work}/peers.txt"))}
runs = {b["run_name"]: b["items_per_second"]
        for b in json.load(open(f"{work}/pixwerk.json"))["benchmarks"]
        if b.get("aggregate_name") == "median"}
def row(what, mine, peer_name, peer_label, goal):
    peer = peers.get(peer_name)
    if mine is None or peer is None:
        print(f"{what:<34} missing"); return
    print(f"{what:<34}{mine/1e6:>8.0f} M/s  {peer_label:<24}{peer/1e6:>8.0f} M/s{mine/peer:>7.2f}x  (goal {goal})")
one = lambda name: runs.get(f"{name}/1/real_time")
two = lambda name: runs.get(f"{name}/2/real_time")
row("dense table u8, 2 threads", two("BM_RemapDenseU8"), "opencv_lut_u8_2", "OpenCV LUT, 2 threads", ">= 0.5x")
row("dense table u16, 2 threads", two("BM_RemapDenseU16"), "opencv_lut_u8_2", "OpenCV LUT u8, 2 threads", ">= 0.5x")
row("dense table u8, 1 thread", one("BM_RemapDenseU8"), "numpy_take_u8", "NumPy take", "")
row("dense table u16, 1 thread", one("BM_RemapDenseU16"), "numpy_take_u16", "NumPy take", "")
row("five ranges f32, 1 thread", one("BM_RemapFiveRangesF32"), "numpy_digitize_f32", "NumPy digitize", ">= 3x")
PY

echo "== file to file: ${size} x ${size} Float32 elevation to classes"
"$bin/pixwerk-sample" "$work" 1024 > /dev/null
gdal_translate -q -outsize "$size" "$size" -r bilinear -co TILED=YES "$work/dem.tif" "$work/input.tif"
cat > "$work/identity.json" <<'JSON'
{ "function": "IdentityFunction", "arguments": { "Raster": "input.tif" } }
JSON
# The classes as the docs' chain writes them (8 bits), and in the input's own type.
cat > "$work/classes.json" <<'JSON'
{ "function": "RemapFunction",
  "arguments": { "Raster": "input.tif", "InputRanges": [0, 500, 500, 1000, 1000, 1500, 1500, 9000],
                 "OutputValues": [1, 2, 3, 4] },
  "pixelType": "U8" }
JSON
sed 's/"pixelType": "U8"/"pixelType": "F32"/' "$work/classes.json" > "$work/classes_f32.json"
identity=$(best "$bin/pixwerk" run "$work/identity.json" -o "$work/identity.tif" --quiet)
for job in classes classes_f32; do
  x=$(best "$bin/pixwerk" run "$work/$job.json" -o "$work/$job.tif" --quiet)
  printf "identity export %6.2f s   %-12s %6.2f s   %4.2fx (goal <= 1.3x)\n" "$identity" "$job" "$x" "$(echo "$x / $identity" | bc -l)"
done
