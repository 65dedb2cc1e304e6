#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test in a normal build,
# and the tests of the core layers again with AddressSanitizer and
# UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

# run_suite DIR "BUILD TARGETS" CMAKE ARGUMENTS...: builds the targets (all
# when empty) and runs the tests of what was built.
run_suite() {
  local dir=$1 targets=$2
  shift 2
  cmake -S . -B "$dir" "$@" >/dev/null
  # shellcheck disable=SC2086
  cmake --build "$dir" -j2 ${targets:+--target $targets}
  # Test programs left unbuilt register a placeholder test; skip those.
  ctest --test-dir "$dir" --output-on-failure -j2 --timeout 600 -E '_NOT_BUILT$'
}

run_suite build/test "" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr
# The sanitizers watch the layers where memory and threads are handled: the
# byte sources, devices, platform rules, carving, checks, summaries, session
# and model, on their own tests and the Quick Check on FUSE disks. The command
# line, the screens and the package add nothing there that the build above
# does not run.
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build/sanitize "vellum_bytes_tests vellum_devices_tests vellum_platform_rules_tests \
carve_core_tests carve_format_tests carve_engine_tests carve_exporter_tests vellum_checks_tests \
vellum_checks_disk_tests vellum_summary_tests vellum_session_tests vellum_app_tests" \
  -DCMAKE_BUILD_TYPE=Debug -DVELLUM_SANITIZE=ON -DVELLUM_DESKTOP=OFF
