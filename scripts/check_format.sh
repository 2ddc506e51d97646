#!/usr/bin/env bash
# Fails when a C++ file of the repository is not formatted as .clang-format says.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z -- '*.h' '*.cc' | xargs -0 clang-format --dry-run -Werror
