#!/usr/bin/env bash
# Installs what the project needs, builds the command-line tool and answers the example queries.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
# Build progress goes to stderr: stdout carries only the answers.
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >&2
cmake --build build -j "$(nproc)" --target rulenlu_cli >&2
./build/rulenlu parse --config examples/collab.json --quiet < examples/queries.txt
