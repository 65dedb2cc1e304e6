#!/usr/bin/env bash
# Full Test and Health Scan of a 1 GiB image file against dd with direct I/O
# on the same file, and the peak memory of each run.
# Usage: bench/fulltest-vs-dd.sh BUILD_DIR [RUNS] [IMAGE_DIR]
set -euo pipefail
build=${1:?build directory (a Release build)}
runs=${2:-5}
dir=$(mktemp -d "${3:-/var/tmp}/vellum-bench-XXXXXX")
trap 'rm -rf "$dir"' EXIT
cli="$build/apps/cli/vellum-check"
image="$dir/card.img"

# Prints wall seconds and peak RSS (KiB) of a command; its stdout goes to
# $dir/last.out.
measure() {
  python3 - "$dir/last.out" "$@" <<'PY'
import resource, subprocess, sys, time
start = time.monotonic()
with open(sys.argv[1], "wb") as out:
    subprocess.run(sys.argv[2:], stdout=out, stderr=subprocess.DEVNULL)
elapsed = time.monotonic() - start
rss = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
sys.stdout.write(f"{elapsed:.3f} {rss}\n")
PY
}

# Throughput of one pass of a Full Test from its JSON: every chunk is 8 MiB,
# so the harmonic mean of the chunk speeds is bytes over time spent in I/O.
pass_mbps() {
  python3 -c 'import json,sys; c=json.load(open(sys.argv[1]))[sys.argv[2]]["curve"]; print(len(c)/sum(1/x for x in c))' "$1" "$2"
}

median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

dd if=/dev/zero of="$image" bs=8M count=128 status=none
: >"$dir/dd-write" >"$dir/dd-read" >"$dir/full" >"$dir/full-rss" >"$dir/health" >"$dir/health-rss"
: >"$dir/full-write" >"$dir/full-read"
for _ in $(seq "$runs"); do
  measure dd if=/dev/zero of="$image" bs=8M count=128 oflag=direct conv=notrunc | cut -d' ' -f1 >>"$dir/dd-write"
  measure dd if="$image" of=/dev/null bs=8M iflag=direct | cut -d' ' -f1 >>"$dir/dd-read"
  read -r seconds rss < <(measure "$cli" full "$image" --confirm erase --json)
  echo "$seconds" >>"$dir/full"
  pass_mbps "$dir/last.out" write >>"$dir/full-write"
  pass_mbps "$dir/last.out" read >>"$dir/full-read"
  echo "$rss" >>"$dir/full-rss"
  read -r seconds rss < <(measure "$cli" health "$image" --json)
  echo "$seconds" >>"$dir/health"
  echo "$rss" >>"$dir/health-rss"
done

ddw=$(median <"$dir/dd-write")
ddr=$(median <"$dir/dd-read")
full=$(median <"$dir/full")
health=$(median <"$dir/health")
mib=1024
printf 'median of %d runs on a 1 GiB image in %s\n' "$runs" "$(dirname "$dir")"
printf 'dd write (oflag=direct):   %6.3f s  %7.1f MiB/s\n' "$ddw" "$(echo "$mib / $ddw" | bc -l)"
printf 'dd read  (iflag=direct):   %6.3f s  %7.1f MiB/s\n' "$ddr" "$(echo "$mib / $ddr" | bc -l)"
printf 'Full Test (write + read):  %6.3f s  ratio to dd write+read: %.2f\n' "$full" \
  "$(echo "($ddw + $ddr) / $full" | bc -l)"
printf 'Full Test write pass:              %7.1f MB/s  ratio to dd write: %.2f\n' \
  "$(median <"$dir/full-write")" "$(echo "$(median <"$dir/full-write") / (1073.741824 / $ddw)" | bc -l)"
printf 'Full Test read pass:               %7.1f MB/s  ratio to dd read: %.2f\n' \
  "$(median <"$dir/full-read")" "$(echo "$(median <"$dir/full-read") / (1073.741824 / $ddr)" | bc -l)"
printf 'Health Scan (cached read): %6.3f s\n' "$health"
printf 'peak memory: Full Test %d KiB, Health Scan %d KiB\n' "$(median <"$dir/full-rss")" \
  "$(median <"$dir/health-rss")"
