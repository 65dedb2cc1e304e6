#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test in a normal build
# (GCC). A second build with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer runs the tests of the layers that handle raw
# bytes (byte sources, devices, carving, checks, summaries) again, and each
# fuzzer for a fixed time from its seed corpus. That build compiles while the
# normal tests run: those mostly wait on loop devices and child processes.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

sanitized_tests="vellum_bytes_tests vellum_devices_tests carve_core_tests carve_format_tests
  carve_engine_tests carve_exporter_tests vellum_checks_tests vellum_summary_tests"
fuzzers="CarverFuzzer CarveEngineFuzzer CarveReportFuzzer PlatformTextFuzzer HelperArgumentsFuzzer"

# -O2 without debug information: writing it is a good part of the build time,
# and a failing test is debugged in a build of one's own.
cmake -S . -B build/test -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" \
  -DCMAKE_INSTALL_PREFIX=/usr -DVELLUM_BENCH=OFF >/dev/null
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
