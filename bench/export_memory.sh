#!/usr/bin/env bash
# Peak memory and core use of a large export: a constant chain written at SIZE x SIZE
# (default 20000) cells of U8, once with one thread and once with all cores. The peak
# resident size should stay flat (threads x strip size), not grow with the raster.
# Usage: bench/export_memory.sh [SIZE]   (build the release preset first)
set -euo pipefail
cd "$(dirname "$0")/.."
size="${1:-20000}"
pixwerk=build/release/bin/pixwerk
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cat > "$work/constant.json" <<JSON
{ "function": "ConstantFunction",
  "arguments": { "Constant": [7],
    "RasterInfo": { "type": "RasterInfo",
      "Extent": { "XMin": 0, "YMin": 0, "XMax": $size, "YMax": $size },
      "PixelSizeX": 1, "PixelSizeY": 1, "BandCount": 1, "PixelType": "U8" } } }
JSON
echo "constant chain, ${size} x ${size} U8 ($((size * size / 1000000)) MB of cells)"
for threads in 1 "$(nproc)"; do
  /usr/bin/time -f "%e %M %P" -o "$work/time" \
    "$pixwerk" run "$work/constant.json" -o "$work/out.tif" --threads "$threads" --quiet
  read -r seconds peak cpu < "$work/time"
  printf "threads %-2s  %6.2f s  peak %6.1f MB  cpu %s\n" "$threads" "$seconds" "$(echo "$peak / 1024" | bc -l)" "$cpu"
  rm -f "$work/out.tif"
done
