#!/usr/bin/env bash
# Builds the library (release) and runs its tour. One line per step; the build's
# own output goes to build/release.log (shown if the build fails).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build
mkdir -p build
log=build/release.log
echo "zoutils: configuring and building the release preset (output in $log)"
if ! { cmake --preset release && cmake --build --preset release -j "$(nproc)"; } >"$log" 2>&1; then
  echo "zoutils: the build failed; the end of $log:" >&2
  tail -n 30 "$log" >&2
  exit 1
fi
echo "zoutils: running build/release/examples/zoutils_tour"
./build/release/examples/zoutils_tour
