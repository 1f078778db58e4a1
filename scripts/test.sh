#!/usr/bin/env bash
# Builds the library with its tests (optimised, assertions on) and runs every test.
# One line per step before the test run; the build's own output goes to
# build/test.log (shown if the build fails).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build test
scripts/build_preset.sh test
echo "zoutils: running the tests (ctest --preset test)"
ctest --preset test
