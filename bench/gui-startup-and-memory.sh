#!/bin/bash
# Start-up time of the application (launch to its window mapped on an Xvfb
# screen), median of RUNS; then the peak resident memory of the application
# during a Full Test of the demo card CARD, started by its settings.
# Usage: bench/gui-startup-and-memory.sh BUILD_DIR [RUNS] [CARD]
set -euo pipefail
gui=$(realpath "$1")/apps/gui/vellum-check-gui
runs=${2:-5}
card=${3:-fake}
config=$(mktemp -d)
trap 'rm -rf "$config"' EXIT
mkdir -p "$config/Vellum"
export XDG_CONFIG_HOME=$config GUI=$gui RUNS=$runs CARD=$card

xvfb-run -a -s "-screen 0 1024x900x24" bash -c '
  conf="$XDG_CONFIG_HOME/Vellum/Vellum Check.conf"
  : >"$conf"
  times=()
  for _ in $(seq "$RUNS"); do
    start=$(date +%s.%N)
    "$GUI" --demo 2>/dev/null &
    app=$!
    # Polled every 10 ms (xdotool --sync waits half a second between looks).
    until xdotool search --onlyvisible --name "^Vellum Check$" >/dev/null 2>&1; do sleep 0.01; done
    end=$(date +%s.%N)
    times+=("$(echo "$end - $start" | bc)")
    kill $app; wait $app || true
  done
  printf "%s\n" "${times[@]}" | sort -n | awk "{a[NR]=\$1} END {printf \"start-up to window: median %.3f s of %d runs (min %.3f, max %.3f)\n\", a[int((NR+1)/2)], NR, a[1], a[NR]}"

  printf "[General]\nVLAutoCard=%s\nVLAutoRun=full\n" "$CARD" >"$conf"
  "$GUI" --demo 2>/dev/null &
  app=$!
  xdotool search --sync --onlyvisible --name "^Vellum Check$" >/dev/null
  peak=0
  # Until the result screen: the window title stays, so watch the CPU go idle.
  for _ in $(seq 600); do
    rss=$(awk "/VmRSS/ {print \$2}" /proc/$app/status)
    [ "$rss" -gt "$peak" ] && peak=$rss
    sleep 0.1
    state=$(awk "{print \$14+\$15}" /proc/$app/stat)
    sleep 0.2
    [ "$(awk "{print \$14+\$15}" /proc/$app/stat)" = "$state" ] && break
  done
  hwm=$(awk "/VmHWM/ {print \$2}" /proc/$app/status)
  kill $app; wait $app || true
  echo "Full Test of demo card $CARD: peak resident $((hwm / 1024)) MiB"
'
