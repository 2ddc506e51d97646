#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer in build-fuzz, then runs each for SECONDS seconds (default 60) on
# its seed corpus and dictionary. Inputs it finds go to build-fuzz/corpus/TARGET, failing
# inputs to build-fuzz/artifacts/. Fails on the first target that finds a crash, a leak, a
# sanitizer report or a hang.
#
# Usage: [FUZZ_SEED=N] scripts/fuzz.sh [SECONDS]
# FUZZ_SEED fixes libFuzzer's random seed (CI uses one, so that a short run takes the same path
# each time); unset, each run draws its own.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
seed="${FUZZ_SEED:-0}"
targets=(config_fuzzer query_fuzzer config_query_fuzzer)

cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DRULENLU_BUILD_FUZZERS=ON -DRULENLU_BUILD_TESTS=OFF -DRULENLU_BUILD_BENCHMARKS=OFF \
  -DCMAKE_CXX_FLAGS="-fsanitize=address,undefined,fuzzer-no-link -fno-omit-frame-pointer" >/dev/null
cmake --build build-fuzz -j2 --target "${targets[@]}"

source scripts/sanitizer_env.sh
mkdir -p build-fuzz/artifacts
for target in "${targets[@]}"; do
  corpus="${target%_fuzzer}"
  mkdir -p "build-fuzz/corpus/$target"
  echo "== $target: ${seconds}s"
  # An input still running after ten seconds counts as a hang; 2.5 GB of memory as a leak.
  "build-fuzz/fuzz/$target" "build-fuzz/corpus/$target" "fuzz/corpus/$corpus" \
    -dict=fuzz/rulenlu.dict -seed="$seed" -max_total_time="$seconds" -max_len=8192 -timeout=10 \
    -rss_limit_mb=2560 -print_final_stats=1 -artifact_prefix="build-fuzz/artifacts/$target-" \
    2>&1 | grep -v '^#[0-9]*.*\(NEW\|REDUCE\|pulse\)'
done
