#!/bin/bash
# Starts the real application in a real X server (Xvfb) with the demo cards,
# lets it run a Quick Check on the fake one by its settings, and saves a
# screenshot of the result screen.
# Usage: EndToEnd.sh GUI SCREENSHOT
set -euo pipefail
gui=$1
shot=$2
for tool in xvfb-run xwd xwdtopnm pnmtopng xdotool; do
  command -v "$tool" >/dev/null || { echo "skipped: needs $tool"; exit 77; }
done
config=$(mktemp -d)
trap 'rm -rf "$config"' EXIT
mkdir -p "$config/Vellum"
printf '[General]\nVLAutoCard=fake\nVLAutoRun=quick\n' >"$config/Vellum/Vellum Check.conf"

export XDG_CONFIG_HOME=$config GUI=$gui SHOT=$shot
xvfb-run -a -s "-screen 0 1024x900x24" bash -c '
  "$GUI" --demo &
  app=$!
  xdotool search --sync --onlyvisible --name "^Vellum Check$" >/dev/null
  # The demo Quick Check takes about a second.
  sleep 4
  xwd -root -silent | xwdtopnm 2>/dev/null | pnmtopng >"$SHOT"
  kill $app
  wait $app || true
'
test -s "$shot"
echo "screenshot: $shot"
