#!/usr/bin/env bash
# Identity export of a large tiled GeoTIFF against gdal_translate of the same file, in one
# run: wall time, peak memory and the speed ratio. Both write an uncompressed striped
# GeoTIFF; gdal_translate gets GDAL_NUM_THREADS and a cache like GDAL's default.
# Usage: bench/peers/identity_export.sh [SIZE] [TYPE]   (default 16384 UInt16; build the
# release preset first). With PIXWERK_BASELINE set to another build's pixwerk, that build
# exports the same file in turn with this one (best of three each) and the ratio is printed,
# for "before and after" figures taken in the same machine state.
set -euo pipefail
cd "$(dirname "$0")/../.."
size="${1:-16384}"
type="${2:-UInt16}"
bin=build/release/bin
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# The input: a tiled GeoTIFF of the sample terrain, scaled up to SIZE x SIZE.
"$bin/pixwerk-sample" "$work" 1024 > /dev/null
gdal_translate -q -a_nodata none -ot "$type" -outsize "$size" "$size" -r bilinear -co TILED=YES -co BLOCKXSIZE=256 \
  -co BLOCKYSIZE=256 "$work/dem.tif" "$work/input.tif"
cat > "$work/identity.json" <<JSON
{ "function": "IdentityFunction", "arguments": { "Raster": "input.tif" } }
JSON
echo "identity export of a ${size} x ${size} tiled ${type} GeoTIFF, $(nproc) cores"
measure() {  # label, command...
  local label="$1"
  shift
  sync
  /usr/bin/time -f "%e %M" -o "$work/time" "$@"
  read -r seconds peak < "$work/time"
  printf "%-16s %7.2f s  peak %7.1f MB\n" "$label" "$seconds" "$(echo "$peak / 1024" | bc -l)"
  echo "$seconds" > "$work/$label.seconds"
}
measure gdal_translate env GDAL_NUM_THREADS=ALL_CPUS gdal_translate -q "$work/input.tif" "$work/gdal.tif"
measure pixwerk "$bin/pixwerk" run "$work/identity.json" -o "$work/pixwerk.tif" --quiet
if [ -n "${PIXWERK_BASELINE:-}" ]; then
  best() { sort -n "$1" | head -1; }
  : > "$work/now.all"; : > "$work/base.all"
  for round in 1 2 3; do
    measure baseline "$PIXWERK_BASELINE" run "$work/identity.json" -o "$work/base.tif" --quiet
    cat "$work/baseline.seconds" >> "$work/base.all"
    measure pixwerk "$bin/pixwerk" run "$work/identity.json" -o "$work/pixwerk.tif" --quiet
    cat "$work/pixwerk.seconds" >> "$work/now.all"
  done
  printf "this build against the baseline, best of three each: %.3f s / %.3f s = %.3fx the time\n" \
    "$(best "$work/now.all")" "$(best "$work/base.all")" \
    "$(echo "$(best "$work/now.all") / $(best "$work/base.all")" | bc -l)"
fi
cmp -s <(gdalinfo -checksum "$work/gdal.tif" | grep Checksum) <(gdalinfo -checksum "$work/pixwerk.tif" | grep Checksum) \
  && echo "outputs: same checksum" || echo "outputs: checksums differ"
printf "speed ratio (gdal_translate time / pixwerk time): %.2fx\n" \
  "$(echo "$(cat "$work/gdal_translate.seconds") / $(cat "$work/pixwerk.seconds")" | bc -l)"
