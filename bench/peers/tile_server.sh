#!/usr/bin/env bash
# The tile server under load: `pixwerk serve` of a hillshade of a SIZE x SIZE DEM, asked for
# tiles over loopback by our own client (Python threads, one connection each). Prints the
# latency (p50, p99) and tiles per second at the native level, with one client and with
# CLIENTS at once, and the whole-raster tile (the coarsest level) with and without the DEM's
# overviews. Tiles are computed on every request: the server keeps none.
# Usage: bench/peers/tile_server.sh [SIZE] [CLIENTS]   (default 8192 and 4; build the release
# preset first)
set -euo pipefail
cd "$(dirname "$0")/../.."
size="${1:-8192}"
clients="${2:-4}"
source bench/peers/lib.sh

"$bin/pixwerk-sample" "$work" 1024 > /dev/null
gdal_translate -q -outsize "$size" "$size" -r bilinear -co TILED=YES "$work/dem.tif" "$work/plain.tif"
cp "$work/plain.tif" "$work/overviews.tif"
gdaladdo -q -r average "$work/overviews.tif" 2 4 8 16 32 64 128 256
for dem in plain overviews; do
  cat > "$work/$dem.json" <<JSON
{ "function": "HillshadeFunction", "arguments": { "DEM": "$dem.tif", "ZFactor": 2 } }
JSON
done

cat > "$work/load.py" <<'PY'
import http.client, json, random, sys, threading, time

port, clients = int(sys.argv[1]), int(sys.argv[2])

def connection():
    return http.client.HTTPConnection("127.0.0.1", port, timeout=120)

def get(conn, path):
    conn.request("GET", path)
    response = conn.getresponse()
    body = response.read()
    if response.status != 200:
        raise SystemExit(f"{path}: {response.status} {body[:200]!r}")
    return body

conn = connection()
info = json.loads(get(conn, "/api/info"))
top = info["maxZoom"]
across = -(-info["width"] // info["tileSize"])
down = -(-info["height"] // info["tileSize"])
tiles = [f"/api/tiles/{top}/{x}/{y}.png" for x in range(across) for y in range(down)]
random.Random(7).shuffle(tiles)

def percentile(times, p):
    times = sorted(times)
    return times[min(len(times) - 1, int(p / 100 * len(times)))]

def run(paths, threads):
    latencies, lock = [], threading.Lock()
    chunks = [paths[k::threads] for k in range(threads)]
    def client(chunk):
        c = connection()
        mine = []
        for path in chunk:
            start = time.perf_counter()
            get(c, path)
            mine.append(time.perf_counter() - start)
        with lock:
            latencies.extend(mine)
    start = time.perf_counter()
    workers = [threading.Thread(target=client, args=(chunk,)) for chunk in chunks]
    for w in workers: w.start()
    for w in workers: w.join()
    wall = time.perf_counter() - start
    return percentile(latencies, 50) * 1e3, percentile(latencies, 99) * 1e3, len(paths) / wall

get(conn, tiles[0])  # the chain's first read (statistics, handles) out of the figures
sequential = tiles[: min(len(tiles), 400)]
p50, p99, rate = run(sequential, 1)
print(f"native level {top}, 1 client, {len(sequential)} tiles: p50 {p50:.2f} ms, "
      f"p99 {p99:.2f} ms, {rate:.0f} tiles/s")
p50, p99, rate = run(tiles, clients)
print(f"native level {top}, {clients} clients, {len(tiles)} tiles: p50 {p50:.2f} ms, "
      f"p99 {p99:.2f} ms, {rate:.0f} tiles/s")
start = time.perf_counter()
get(connection(), "/api/tiles/0/0/0.png")
first = (time.perf_counter() - start) * 1e3
p50, p99, rate = run(["/api/tiles/0/0/0.png"] * 20, 1)
print(f"whole raster (level 0): first {first:.0f} ms (binds the chain at that cell size), "
      f"then p50 {p50:.1f} ms, p99 {p99:.1f} ms")
PY

for dem in plain overviews; do
  log="$work/$dem.log"
  (cd "$work" && exec "$OLDPWD/$bin/pixwerk" serve "$dem.json" --port 0) > "$log" 2>&1 &
  server=$!
  port=""
  for _ in $(seq 1 100); do
    port=$(sed -n 's/.*http:\/\/[^:]*:\([0-9]*\)\/.*/\1/p' "$log")
    [ -n "$port" ] && break
    sleep 0.1
  done
  [ -n "$port" ] || { cat "$log"; kill "$server"; exit 1; }
  if [ "$dem" = plain ]; then
    echo "hillshade of a $size x $size DEM without overviews, $(nproc) cores:"
  else
    echo "the same DEM with overviews (gdaladdo 2 to 256):"
  fi
  "$python" "$work/load.py" "$port" "$clients" | sed 's/^/  /'
  kill "$server"
  wait "$server" 2> /dev/null || true
done
