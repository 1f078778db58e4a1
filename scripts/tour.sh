#!/usr/bin/env bash
# Builds the library (release) and runs its tour. One line per step; the build's
# own output goes to build/release.log (shown if the build fails).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build
scripts/build_preset.sh release
echo "zoutils: running build/release/examples/zoutils_tour"
./build/release/examples/zoutils_tour
