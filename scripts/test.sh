#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test twice: a normal
# build and one with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

run_suite() {
  local dir=$1
  shift
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j2
  ctest --test-dir "$dir" --output-on-failure -j2 --timeout 600
}

run_suite build/test -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build/sanitize -DCMAKE_BUILD_TYPE=Debug -DVELLUM_SANITIZE=ON
