#!/usr/bin/env bash
# Installs what is missing, then proves what users run:
# 1. the Release build (-O3, the demo's and the package's build type) of
#    every default target, warnings as errors, and every test in it, each
#    benchmark run once for a moment among them;
# 2. a clang build with AddressSanitizer and UndefinedBehaviorSanitizer that
#    runs the suites of the layers that handle raw bytes or decide what is
#    written to whose disk (byte sources, devices, carving, checks, summaries,
#    the session, the check model, the command line) and each fuzzer for a
#    fixed time from its seed corpus; it compiles while the first build's
#    tests run, which mostly wait on loop devices and child processes;
# 3. the README's own commands on a fresh clone of this commit: the demo, and
#    the Install section, whose package must pass lintian, install, run and
#    come off again (as root: it installs the package).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
# Every build below, the demo's and the package's included, fails on a warning.
export VELLUM_WERROR=ON

sanitized_tests="vellum_bytes_tests vellum_devices_tests carve_core_tests carve_format_tests
  carve_engine_tests carve_exporter_tests vellum_checks_tests vellum_summary_tests
  vellum_session_tests vellum_app_tests vellum_cli_tests"
fuzzers="CarverFuzzer CarveEngineFuzzer CarveReportFuzzer PlatformTextFuzzer HelperArgumentsFuzzer"

cmake -S . -B build/test -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/test -j2

CXX=clang++ CC=clang cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DVELLUM_SANITIZE=ON \
  -DVELLUM_FUZZ=ON -DVELLUM_FUZZ_SECONDS=15 -DVELLUM_DESKTOP=OFF -DVELLUM_BENCH=OFF >/dev/null
# shellcheck disable=SC2086
cmake --build build/sanitize -j2 --target $sanitized_tests $fuzzers >build/sanitize-build.log 2>&1 &
builder=$!

if ! ctest --test-dir build/test --output-on-failure -j2 --timeout 600; then
  kill "$builder" 2>/dev/null || true
  exit 1
fi
if ! wait "$builder"; then
  cat build/sanitize-build.log
  exit 1
fi
# Test programs left unbuilt register a placeholder test; skip those. The
# fuzzers run here too (label fuzz): a crash, a sanitizer report, a leak or
# an input slower than 10 s fails.
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build/sanitize --output-on-failure -j2 --timeout 600 -E '_NOT_BUILT$'

if [ "$(id -u)" -eq 0 ]; then
  bash tests/packaging/NewcomerTest.sh
else
  echo "Not root: the README's demo and Install section on a fresh clone were not tried." >&2
fi
