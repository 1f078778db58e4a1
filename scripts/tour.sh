#!/usr/bin/env bash
# Builds the library (release) and runs its tour.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"
./build/release/examples/zoutils_tour
