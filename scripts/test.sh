#!/usr/bin/env bash
# Installs what the project needs, builds everything and runs every test; then the tests under
# the sanitizers and a short run of each fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
./scripts/check_format.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$(nproc)"
ctest --test-dir build --output-on-failure --timeout 300 -j "$(nproc)"
./scripts/sanitize.sh
FUZZ_SEED=1 ./scripts/fuzz.sh 20
