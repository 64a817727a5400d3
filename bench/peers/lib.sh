# What the peer scripts share; sourced from the repository root after `set -euo pipefail`.
bin=build/release/bin
bench=build/release/bench/pixwerk_bench
python=/usr/bin/python3
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

seconds() {  # command...: wall-clock seconds of one run, its output discarded
  local start end
  start=$(date +%s.%N)
  "$@" > /dev/null 2>&1
  end=$(date +%s.%N)
  echo "$end - $start" | bc -l
}

best() {  # command...: the best of three runs
  local b="" t
  for _ in 1 2 3; do
    t=$(seconds "$@")
    if [ -z "$b" ] || [ "$(echo "$t < $b" | bc -l)" = 1 ]; then b=$t; fi
  done
  echo "$b"
}
