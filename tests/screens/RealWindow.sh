#!/bin/bash
# Runs the real-window test in an X server of its own.
# Usage: RealWindow.sh TEST-BINARY
set -euo pipefail
command -v xvfb-run >/dev/null || { echo "skipped: needs xvfb-run"; exit 77; }
export QT_QPA_PLATFORM=xcb
exec xvfb-run -a -s "-screen 0 1280x800x24" "$1" --gtest_brief=1
