#!/usr/bin/env bash
# Builds the library with its tests (optimised, assertions on) and runs every test.
# One line per step before the test run; the build's own output goes to
# build/test.log (shown if the build fails).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build test
mkdir -p build
log=build/test.log
echo "zoutils: configuring and building the test preset (output in $log)"
if ! { cmake --preset test && cmake --build --preset test -j "$(nproc)"; } >"$log" 2>&1; then
  echo "zoutils: the build failed; the end of $log:" >&2
  tail -n 30 "$log" >&2
  exit 1
fi
echo "zoutils: running the tests (ctest --preset test)"
ctest --preset test
