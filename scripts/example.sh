#!/usr/bin/env bash
# Installs what the project needs, builds the command-line tool and answers the example queries.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target rulenlu_cli
./build/rulenlu parse --config examples/collab.json --quiet < examples/queries.txt
