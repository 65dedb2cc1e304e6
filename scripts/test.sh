#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test in a normal build,
# and all but the desktop parts again with AddressSanitizer and
# UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

# run_suite DIR "CTEST ARGUMENTS" CMAKE ARGUMENTS...
run_suite() {
  local dir=$1 selection=$2
  shift 2
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j2
  # shellcheck disable=SC2086
  ctest --test-dir "$dir" --output-on-failure -j2 --timeout 600 $selection
}

run_suite build/test "" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr
# The sanitizers watch the code below the widgets; the screens, the package
# and the fifty killed Quick Checks (the same code paths, many times) run once.
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build/sanitize "-E KilledQuickChecks" -DCMAKE_BUILD_TYPE=Debug -DVELLUM_SANITIZE=ON \
  -DVELLUM_DESKTOP=OFF
