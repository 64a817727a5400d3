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

in_turn() {  # "command A" "command B": the best of three runs of each, run in turn so that the
  # machine's drift between runs falls on both alike; prints "A B"
  local a="" b="" t
  for _ in 1 2 3; do
    t=$(seconds bash -c "$1")
    if [ -z "$a" ] || [ "$(echo "$t < $a" | bc -l)" = 1 ]; then a=$t; fi
    t=$(seconds bash -c "$2")
    if [ -z "$b" ] || [ "$(echo "$t < $b" | bc -l)" = 1 ]; then b=$t; fi
  done
  echo "$a $b"
}
