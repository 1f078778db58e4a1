#!/usr/bin/env bash
# Configures and builds one CMake preset quietly: one line on standard output, the
# build's own output in build/<preset>.log, and the end of that log if it fails.
#
#   scripts/build_preset.sh PRESET
set -euo pipefail
cd "$(dirname "$0")/.."
preset=$1
mkdir -p build
log=build/$preset.log
echo "zoutils: configuring and building the $preset preset (output in $log)"
if ! { cmake --preset "$preset" && cmake --build --preset "$preset" -j "$(nproc)"; } >"$log" 2>&1; then
  echo "zoutils: the build failed; the end of $log:" >&2
  tail -n 30 "$log" >&2
  exit 1
fi
