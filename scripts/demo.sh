#!/usr/bin/env bash
# Installs what is missing, builds Vellum Check and runs a Quick Check of the
# fake demo card. Exits 0 once the fake card's verdict is shown.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
# The same settings as the README's Install section, so that installing
# afterwards reuses this build.
echo "Building vellum-check in build/release (about a minute on two cores)..." >&2
mkdir -p build
log=build/demo-build.log
if ! { cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DBUILD_TESTING=OFF -DVELLUM_BENCH=OFF && cmake --build build/release -j2 --target vellum-check; } \
  >"$log" 2>&1; then
  tail -n 40 "$log" >&2
  echo "The build failed; the whole log is in $log." >&2
  exit 1
fi
echo "\$ build/release/apps/cli/vellum-check quick demo:fake" >&2
set +e
build/release/apps/cli/vellum-check quick demo:fake
status=$?
set -e
# The fake card's verdict is "not good" (exit 1); anything else is a failure.
if [ "$status" -ne 1 ]; then
  echo "The Quick Check of demo:fake exited with status $status instead of 1." >&2
  exit 1
fi
cat >&2 <<'MORE'

Try the other demo cards (demo:genuine, demo:failing) and actions with
build/release/apps/cli/vellum-check, or the desktop application:
    cmake --build build/release -j2 --target vellum-check-gui
    build/release/apps/gui/vellum-check-gui --demo
MORE
