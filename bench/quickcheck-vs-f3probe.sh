#!/usr/bin/env bash
# The Quick Check against f3probe on the same counterfeit geometries: a FUSE
# disk (tools/fusedisk) throttled to 100 MB/s writing and 200 MB/s reading,
# attached as a loop device, fresh for each tool. Prints the verdicts, the
# real sizes found and the wall times side by side. Needs root, f3 (apt-get
# install f3) and a build with the tests.
# Usage: bench/quickcheck-vs-f3probe.sh BUILD_DIR [RUNS]
set -euo pipefail
build=${1:?build directory}
runs=${2:-3}
cli="$build/apps/cli/vellum-check"
fusedisk="$build/tools/fusedisk/vellum-fusedisk"
command -v f3probe >/dev/null || { echo "f3probe not found: apt-get install f3" >&2; exit 2; }
dir=$(mktemp -d /tmp/vellum-f3-XXXXXX)
# shellcheck source=bench/fuse-disk.sh
source "$(dirname "$0")/fuse-disk.sh"
trap 'stop_disk; rm -rf "$dir"' EXIT

now() { date +%s.%N; }
median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

printf '%-8s %-10s %-9s | %-12s %14s %8s | %-12s %14s %8s\n' claimed real mode \
  "vellum" "real size" "s" "f3probe" "usable size" "s"
while read -r claimed real mode; do
  : >"$dir/vt" >"$dir/ft"
  for _ in $(seq "$runs"); do
    start_disk "$claimed" --real "$real" --overflow "$mode" --write-mbps 100 --read-mbps 200
    t0=$(now)
    out=$(VL_ALLOW_DISK_IMAGES=1 "$cli" quick "${loop#/dev/}" --json || true)
    echo "$(now) - $t0" | bc >>"$dir/vt"
    stop_disk
    vverdict=$(python3 -c 'import json,sys; d=json.loads(sys.argv[1]); print(d["verdict"], d["verifiedBytes"])' "$out")
    start_disk "$claimed" --real "$real" --overflow "$mode" --write-mbps 100 --read-mbps 200
    t0=$(now)
    f3=$(f3probe --destructive --time-ops "$loop" 2>&1 || true)
    echo "$(now) - $t0" | bc >>"$dir/ft"
    stop_disk
    if grep -q "Good news" <<<"$f3"; then fverdict=genuine; else fverdict=counterfeit; fi
    fsize=$(grep -oP '\*Usable\* size:.*\(\K[0-9]+(?= blocks)' <<<"$f3" || echo 0)
    fsize=$((fsize * 512))
  done
  printf '%-8s %-10s %-9s | %-12s %14s %8.1f | %-12s %14s %8.1f\n' \
    "$(numfmt --to=si "$claimed")" "$(numfmt --to=iec "$real")" "$mode" \
    ${vverdict%% *} "${vverdict##* }" "$(median <"$dir/vt")" \
    "$fverdict" "$fsize" "$(median <"$dir/ft")"
done <<'TABLE'
3221225472 1073741824 wrap
64000000000 4294967296 wrap
1000000000000 8589934592 wrap
2000000000000 34359738368 wrap
1610612736000 1073741824 wrap
12884901888 1073741824 wrap
2000000000000 16777216 wrap
32000000000 7500000000 discard
2000000000000 104857600 discard
16000000000 3221225472 combined
256000000000 51539607552 combined
2000000000000 6291456000 combined
8000000000 8000000000 wrap
TABLE
