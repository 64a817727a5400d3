#!/usr/bin/env bash
# The Python package against the command line and against what a Python user writes today,
# in one run: a SIZE x SIZE slope chain read into NumPy against `pixwerk run` to /dev/shm;
# the export of a 2*SIZE x 2*SIZE hillshade through a local Dask cluster of one and of two
# worker processes; and the slope computed on that two-process cluster by Pixwerk against
# NumPy's Horn slope through dask.array.map_overlap. Prints seconds and ratios.
# Usage: bench/peers/python_dask.sh [SIZE]   (default 8192; build the release preset first)
set -euo pipefail
cd "$(dirname "$0")/../.."
size="${1:-8192}"
source bench/peers/lib.sh

"$bin/pixwerk-sample" "$work" 1024 > /dev/null
gdal_translate -q -outsize "$size" "$size" -r bilinear -co TILED=YES "$work/dem.tif" "$work/input.tif"
big=$((size * 2))
gdal_translate -q -outsize "$big" "$big" -r bilinear -co TILED=YES "$work/dem.tif" "$work/big.tif"
cat > "$work/slope.json" <<'JSON'
{ "function": "SlopeFunction", "arguments": { "DEM": "input.tif" } }
JSON
cat > "$work/hillshade.json" <<'JSON'
{ "function": "HillshadeFunction", "arguments": { "DEM": "big.tif", "ZFactor": 2 } }
JSON
shm=/dev/shm/pixwerk_bench_$$.tif
run=$(best "$bin/pixwerk" run "$work/slope.json" -o "$shm" --quiet)
rm -f "$shm"

# Worker processes import the main module again: it lives in a file.
cat > "$work/bench.py" <<'PY'
import sys, time
import numpy as np
import pixwerk, pixwerk.dask
from distributed import Client, LocalCluster

def main(work, run):

    def best(f, runs=3):
        times = []
        for _ in range(runs):
            start = time.perf_counter()
            f()
            times.append(time.perf_counter() - start)
        return min(times)

    slope = pixwerk.open(f"{work}/slope.json")
    read = best(lambda: slope.read())
    print(f"slope {slope.width} x {slope.height}: read into NumPy {read:6.2f} s, "
          f"pixwerk run to /dev/shm {run:6.2f} s: {read / run:4.2f}x the time (goal <= 1.2x)")

    hillshade = pixwerk.open(f"{work}/hillshade.json")
    times = {}
    for workers in (1, 2):
        with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                          dashboard_address=None) as cluster, Client(cluster) as client:
            client.run(lambda: None)
            for form in ("vrt", "tif"):
                times[workers, form] = best(lambda: pixwerk.dask.export(
                    hillshade, f"{work}/hs_{workers}.{form}", client=client), runs=2)
            if workers == 2:
                def horn(z):
                    z = z.astype(np.float64)
                    dzdx = ((z[:-2, 2:] + 2 * z[1:-1, 2:] + z[2:, 2:])
                            - (z[:-2, :-2] + 2 * z[1:-1, :-2] + z[2:, :-2])) / (8 * 30.0)
                    dzdy = ((z[2:, :-2] + 2 * z[2:, 1:-1] + z[2:, 2:])
                            - (z[:-2, :-2] + 2 * z[:-2, 1:-1] + z[:-2, 2:])) / (8 * 30.0)
                    out = np.zeros(z.shape, np.float32)
                    out[1:-1, 1:-1] = np.degrees(np.arctan(np.hypot(dzdx, dzdy)))
                    return out

                # Graphs of the same keys would find their results still held: each timed
                # run has chunks of its own.
                def numpy_slope(chunks):
                    dem = pixwerk.open(f"{work}/input.tif").to_dask(chunks=chunks,
                                                                    masked=False)[0]
                    return dem.map_overlap(horn, depth=1, boundary="nearest",
                                           dtype=np.float32).mean().compute()

                def pixwerk_slope(chunks):
                    return slope.to_dask(chunks=chunks, masked=False).mean().compute()

                numpy_slope(512), pixwerk_slope(512)
                numpy_user = min(best(lambda: numpy_slope(c), runs=1) for c in (1024, 2048))
                ours = min(best(lambda: pixwerk_slope(c), runs=1) for c in (1024, 2048))
    for form, what in (("vrt", "strips under a VRT"), ("tif", "copied into one GeoTIFF")):
        print(f"hillshade {hillshade.width} x {hillshade.height} through the cluster, {what}: "
              f"1 worker {times[1, form]:6.2f} s, 2 workers {times[2, form]:6.2f} s: "
              f"{times[1, form] / times[2, form]:4.2f}x (goal >= 1.7x)")
    print(f"slope {slope.width} x {slope.height} on 2 workers: NumPy Horn through map_overlap "
          f"{numpy_user:6.2f} s, Pixwerk {ours:6.2f} s: {numpy_user / ours:4.1f}x the speed "
          f"(goal >= 5x)")

if __name__ == "__main__":
    main(sys.argv[1], float(sys.argv[2]))
PY

PYTHONPATH=build/release/python "$python" "$work/bench.py" "$work" "$run"
