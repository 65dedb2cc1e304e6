#!/usr/bin/env bash
# Full Test of a 1 GiB loop device through vellum-check against dd with
# direct I/O on the same loop device. Needs root (losetup).
# Usage: bench/fulltest-loop-vs-dd.sh BUILD_DIR [RUNS] [IMAGE_DIR]
# LOOP_DIRECT_IO=on attaches the loop device with --direct-io=on, so writes
# reach the backing file's disk instead of its page cache.
set -euo pipefail
build=${1:?build directory (a Release build)}
runs=${2:-3}
dir=$(mktemp -d "${3:-/var/tmp}/vellum-bench-XXXXXX")
cli="$build/apps/cli/vellum-check"
image="$dir/card.img"
loop=
cleanup() {
  if [ -n "$loop" ]; then losetup -d "$loop"; fi
  rm -rf "$dir"
}
trap cleanup EXIT

# Prints the wall seconds a command takes, discarding its output.
seconds() {
  python3 - "$@" <<'PY'
import subprocess, sys, time
start = time.monotonic()
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
sys.stdout.write(f"{time.monotonic() - start:.3f}\n")
PY
}

median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

dd if=/dev/zero of="$image" bs=8M count=128 status=none
loop=$(losetup --find --show --direct-io="${LOOP_DIRECT_IO:-off}" "$image")
name=${loop#/dev/}
: >"$dir/dd-write" >"$dir/dd-read" >"$dir/full"
for _ in $(seq "$runs"); do
  seconds dd if=/dev/zero of="$loop" bs=8M count=128 oflag=direct >>"$dir/dd-write"
  seconds dd if="$loop" of=/dev/null bs=8M iflag=direct >>"$dir/dd-read"
  seconds env VL_ALLOW_DISK_IMAGES=1 "$cli" full "$name" --confirm "$name" --json >>"$dir/full"
done

ddw=$(median <"$dir/dd-write")
ddr=$(median <"$dir/dd-read")
full=$(median <"$dir/full")
mib=1024
printf 'median of %d runs on a 1 GiB loop device (direct-io=%s) over a file in %s\n' "$runs" \
  "${LOOP_DIRECT_IO:-off}" "$(dirname "$dir")"
printf 'dd write (oflag=direct):  %6.3f s  %7.1f MiB/s\n' "$ddw" "$(echo "$mib / $ddw" | bc -l)"
printf 'dd read  (iflag=direct):  %6.3f s  %7.1f MiB/s\n' "$ddr" "$(echo "$mib / $ddr" | bc -l)"
printf 'Full Test (write + read): %6.3f s  %7.1f MiB/s moved, ratio to dd write+read: %.2f\n' \
  "$full" "$(echo "2 * $mib / $full" | bc -l)" "$(echo "($ddw + $ddr) / $full" | bc -l)"
