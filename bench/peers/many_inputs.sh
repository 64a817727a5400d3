#!/usr/bin/env bash
# A composite of 100, 200 and 1000 copies of a small tiled, compressed GeoTIFF through the
# command line, in one run: wall time, peak memory, the most files the run held open, and
# each time as a multiple of the 100-input time (linear growth is 10x for 1000).
# Usage: bench/peers/many_inputs.sh [SIZE] [COUNTS...]   (default 512, 100 200 1000; build the
# release preset first). With PIXWERK_BASELINE set to another build's pixwerk, that build runs
# the same chains in turn.
set -euo pipefail
cd "$(dirname "$0")/../.."
size="${1:-512}"
shift || true
counts=("$@")
[ ${#counts[@]} -eq 0 ] && counts=(100 200 1000)
bin=build/release/bin
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

"$bin/pixwerk-sample" "$work/sample" 1024 > /dev/null
gdal_translate -q -ot UInt16 -outsize "$size" "$size" -co TILED=YES -co BLOCKXSIZE=256 \
  -co BLOCKYSIZE=256 -co COMPRESS=DEFLATE "$work/sample/dem.tif" "$work/base.tif" 2> /dev/null
most=0
for n in "${counts[@]}"; do [ "$n" -gt "$most" ] && most=$n; done
for i in $(seq 1 "$most"); do cp "$work/base.tif" "$work/in$i.tif"; done
for n in "${counts[@]}"; do
  {
    printf '{"function": "CompositeBandFunction", "arguments": {"Rasters": ['
    for i in $(seq 1 "$n"); do printf '%s"in%d.tif"' "$([ "$i" -gt 1 ] && echo ", ")" "$i"; done
    printf ']}}\n'
  } > "$work/c$n.json"
done

echo "composites of ${size} x ${size} tiled DEFLATE UInt16 copies, $(nproc) cores, ulimit -n $(ulimit -n)"
run() {  # label, pixwerk, inputs
  local label="$1" pixwerk="$2" n="$3"
  rm -f "$work/out.tif"
  sync
  /usr/bin/time -f "%e %M" -o "$work/time" "$pixwerk" run "$work/c$n.json" -o "$work/out.tif" -q &
  local pid=$! most=0 open
  while kill -0 "$pid" 2> /dev/null; do
    local child
    child=$(pgrep -P "$pid" | head -1 || true)
    if [ -n "$child" ]; then
      open=$(ls "/proc/$child/fd" 2> /dev/null | wc -l)
      [ "$open" -gt "$most" ] && most=$open
    fi
    sleep 0.02
  done
  wait "$pid"
  read -r seconds peak < "$work/time"
  [ "$n" = "${counts[0]}" ] && echo "$seconds" > "$work/$label.first"
  printf "%-9s %5d inputs %7.2f s  %6.2fx  peak %7.1f MB  files open %5d\n" "$label" "$n" \
    "$seconds" "$(echo "$seconds / $(cat "$work/$label.first")" | bc -l)" \
    "$(echo "$peak / 1024" | bc -l)" "$most"
}
for n in "${counts[@]}"; do
  run pixwerk "$bin/pixwerk" "$n"
  [ -n "${PIXWERK_BASELINE:-}" ] && run baseline "$PIXWERK_BASELINE" "$n"
done
