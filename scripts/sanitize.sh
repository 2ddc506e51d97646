#!/usr/bin/env bash
# The test suite under AddressSanitizer and UndefinedBehaviorSanitizer (build-asan), then the
# multi-threaded stress test under ThreadSanitizer (build-tsan). Both with g++, like the
# ordinary build. Fails on any test failure or sanitizer report.
#
# Usage: scripts/sanitize.sh
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/sanitizer_env.sh
jobs="$(nproc)"
# Optimised a little and with line tables only: quicker to build, reports still name lines.
common=(-DCMAKE_BUILD_TYPE=None -DRULENLU_BUILD_BENCHMARKS=OFF)

echo "== AddressSanitizer + UndefinedBehaviorSanitizer: every test"
cmake -S . -B build-asan "${common[@]}" \
  -DCMAKE_CXX_FLAGS="-O1 -g1 -fsanitize=address,undefined -fno-omit-frame-pointer" >/dev/null
cmake --build build-asan -j "$jobs"
# Left out here:
#  - packaging builds a host project without the sanitizers against the installed library,
#    which cannot link an instrumented library; it checks files and names, not memory.
excluded='^(packaging)$'
ctest --test-dir build-asan --output-on-failure --timeout 600 -j "$jobs" -E "$excluded"

echo "== ThreadSanitizer: queries on eight threads while the engine is rebuilt"
cmake -S . -B build-tsan "${common[@]}" -DCMAKE_CXX_FLAGS="-O1 -g1 -fsanitize=thread" >/dev/null
cmake --build build-tsan -j "$jobs" --target engine_stress_test
build-tsan/tests/engine_stress_test
