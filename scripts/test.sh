#!/usr/bin/env bash
# Builds the library with its tests (optimised, assertions on) and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset test >/dev/null
cmake --build --preset test -j "$(nproc)"
ctest --preset test
