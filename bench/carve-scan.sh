#!/usr/bin/env bash
# Scanning speed of `vellum-check carve` over a 1 GiB image that holds no
# files (random bytes), read from the page cache.
# Usage: bench/carve-scan.sh BUILD_DIR [RUNS] [IMAGE_DIR]
set -euo pipefail
build=${1:?build directory (a Release build)}
runs=${2:-5}
dir=$(mktemp -d "${3:-/var/tmp}/vellum-scan-XXXXXX")
trap 'rm -rf "$dir"' EXIT
image="$dir/scan.img"
head -c 1073741824 /dev/urandom >"$image"
cat "$image" >/dev/null  # into the page cache
for _ in $(seq "$runs"); do
  rm -rf "$dir/out"
  python3 "$(dirname "$0")/wall-seconds.py" "$build/apps/cli/vellum-check" carve "$image" \
    --out "$dir/out" --catalog
done | sort -g | awk -v runs="$runs" '{a[NR]=$1} END {
  m = a[int((NR + 1) / 2)]
  printf "median of %d scans of 1 GiB (page cache): %.3f s, %.2f GB/s\n", runs, m, 1.073741824 / m }'
