#!/usr/bin/env bash
# What the Quick Check's cache flush costs and what it catches: a FUSE disk
# (tools/fusedisk) throttled like a slow card, 20 MB/s writing and 90 MB/s
# reading, attached as a loop device. For a genuine 32 GB card and a 32 GB
# fake holding 4 GiB with a 64 MiB write cache, runs the Quick Check with the
# flush (80 MiB, as shipped) and without it (0), RUNS times each, and prints
# the verdicts, the sizes found and the median wall times. Needs root and a
# build with the tests and benchmarks.
# Usage: bench/quickcheck-write-cache.sh BUILD_DIR [RUNS]
set -euo pipefail
build=${1:?build directory}
runs=${2:-3}
run="$build/bench/vellum-quick-run"
fusedisk="$build/tools/fusedisk/vellum-fusedisk"
dir=$(mktemp -d /tmp/vellum-cache-XXXXXX)
# shellcheck source=bench/fuse-disk.sh
source "$(dirname "$0")/fuse-disk.sh"
trap 'stop_disk; rm -rf "$dir"' EXIT

median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
GB=1000000000
GiB=1073741824
MiB=1048576

printf '%-22s %-6s %-12s %14s %9s\n' card flush verdict "verified" "median s"
for card in "genuine $((32 * GB)) $((32 * GB)) $((64 * MiB))" \
            "fake-cached $((32 * GB)) $((4 * GiB)) $((64 * MiB))"; do
  read -r name claimed real cache <<<"$card"
  for flush in $((80 * MiB)) 0; do
    times=()
    for _ in $(seq "$runs"); do
      start_disk "$claimed" --real "$real" --cache "$cache" --write-mbps 20 --read-mbps 90
      start=$(date +%s.%N)
      result=$("$run" "$loop" "$flush")
      end=$(date +%s.%N)
      stop_disk
      times+=("$(echo "$end - $start" | bc)")
    done
    verdict=$(sed 's/.*"verdict":"\([a-z]*\)".*/\1/' <<<"$result")
    verified=$(sed 's/.*"verifiedBytes":\([0-9]*\).*/\1/' <<<"$result")
    printf '%-22s %-6s %-12s %14s %9.1f\n' "$name" "$((flush / MiB))M" "$verdict" "$verified" \
      "$(printf '%s\n' "${times[@]}" | median)"
  done
done
