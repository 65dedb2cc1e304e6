#!/usr/bin/env bash
# Installs what is missing, builds Vellum Check and runs a Quick Check of the
# fake demo card.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build build/release -j2 --target vellum-check >/dev/null
set +e
build/release/apps/cli/vellum-check quick demo:fake
status=$?
set -e
# The fake card's verdict is "not good" (exit 1); anything else is a failure.
[ "$status" -eq 1 ]
