#!/usr/bin/env bash
# The exported ABI of both shared libraries, kept in abi/ as libabigail XML.
#
#   scripts/abi.sh [BUILD_DIR]            compare the built libraries with the baseline
#   scripts/abi.sh --update [BUILD_DIR]   record the built libraries as the new baseline
#
# BUILD_DIR defaults to build/test (optimised, with debug information, which abidw
# needs to see types); the libraries are built there first if needed. An
# incompatible change (a removed or changed symbol or type) fails with abidiff's
# report; a compatible one (an addition) is reported and passes. Only types of the
# public headers are recorded.
set -euo pipefail
cd "$(dirname "$0")/.."
update=0
if [ "${1:-}" = "--update" ]; then
  update=1
  shift
fi
build=${1:-build/test}
scripts/deps.sh build abi

if [ "$build" = build/test ] && [ ! -f build/test/build.ninja ]; then
  echo "zoutils: configuring the test preset"
  cmake --preset test >/dev/null
fi
echo "zoutils: building libzoutils and libzosys in $build"
cmake --build "$build" --target zoutils zosys >/dev/null

status=0
for pair in "libzoutils.so.1:include/utils" "libzosys.so.1:syslayer"; do
  lib=${pair%%:*}
  headers=${pair#*:}
  baseline=abi/$lib.abi
  if [ $update -eq 1 ]; then
    mkdir -p abi
    abidw --no-corpus-path --no-comp-dir-path --short-locs --drop-undefined-syms \
      --headers-dir "$headers" "$build/$lib" --out-file "$baseline"
    echo "zoutils: recorded $baseline"
    continue
  fi
  if [ ! -f "$baseline" ]; then
    echo "zoutils: no baseline $baseline; record one with scripts/abi.sh --update" >&2
    status=1
    continue
  fi
  rc=0
  report=$(abidiff --headers-dir2 "$headers" "$baseline" "$build/$lib") || rc=$?
  # abidiff's exit status is a bit set: 1 error, 2 usage error, 4 ABI change,
  # 8 incompatible ABI change.
  if [ $((rc & 3)) -ne 0 ]; then
    echo "zoutils: abidiff failed on $lib ($rc):" >&2
    echo "$report" >&2
    status=1
  elif [ $((rc & 8)) -ne 0 ]; then
    echo "zoutils: $lib: INCOMPATIBLE with the ABI baseline $baseline:" >&2
    echo "$report" | sed 's/^/  /' >&2
    status=1
  elif [ $((rc & 4)) -ne 0 ]; then
    echo "zoutils: $lib: compatible changes against $baseline (update it on purpose with scripts/abi.sh --update):"
    echo "$report" | sed 's/^/  /'
  else
    echo "zoutils: $lib: same ABI as $baseline"
  fi
done
exit $status
