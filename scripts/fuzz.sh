#!/usr/bin/env bash
# Builds the libFuzzer targets (preset `fuzz`: clang 14, ASan+UBSan) and runs each
# one for SECONDS (default 60), printing the executions and findings per target.
#
#   scripts/fuzz.sh [SECONDS]     fuzz every target
#   scripts/fuzz.sh --replay      run every seed corpus once (what CI does)
#
# Environment: JOBS=N runs N targets at a time (default 1); TARGETS="uid string"
# picks targets by name (without the fuzz_ prefix). Seeds live in
# fuzz/corpus/<name> (checked in); inputs found meanwhile collect in
# build/fuzz/corpus/<name>, crashes in build/fuzz/findings/<name>, logs in
# build/fuzz/logs. Exits non-zero when any target found something.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh clang-14 libclang-rt-14-dev

mode=fuzz
seconds=60
case "${1:-}" in
  --replay) mode=replay ;;
  "") ;;
  *) seconds=$1 ;;
esac
jobs=${JOBS:-1}

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "${BUILD_JOBS:-$(nproc)}"

bin=build/fuzz/fuzz
out=build/fuzz
mkdir -p "$out/logs"
if [ -n "${TARGETS:-}" ]; then
  names=($TARGETS)
else
  names=()
  for t in "$bin"/fuzz_*; do [ -x "$t" ] && names+=("$(basename "$t" | sed 's/^fuzz_//')"); done
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

run_one() {
  local name=$1 log="$out/logs/$1.log"
  local seeds="fuzz/corpus/$name" work="$out/corpus/$name" findings="$out/findings/$name/"
  mkdir -p "$work" "$findings" "$seeds"
  if [ "$mode" = replay ]; then
    "$bin/fuzz_$name" -runs=0 "$seeds" >"$log" 2>&1
  else
    "$bin/fuzz_$name" -max_total_time="$seconds" -timeout=30 -print_final_stats=1 \
      -artifact_prefix="$findings" "$work" "$seeds" >"$log" 2>&1
  fi
}

status=0
pids=()
declare -A pid_of
for name in "${names[@]}"; do
  run_one "$name" &
  pid_of[$name]=$!
  pids+=($!)
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
done
for name in "${names[@]}"; do
  rc=0
  wait "${pid_of[$name]}" || rc=$?
  log="$out/logs/$name.log"
  if [ "$mode" = replay ]; then
    inputs=$(find "fuzz/corpus/$name" -type f | wc -l)
    printf '%-14s replayed %4d inputs: %s\n' "$name" "$inputs" "$([ $rc -eq 0 ] && echo ok || echo FAILED)"
  else
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    found=$(find "$out/findings/$name" -type f | wc -l)
    printf '%-14s %12s execs in %ss, %d findings%s\n' "$name" "${execs:-?}" "$seconds" "$found" \
      "$([ $rc -eq 0 ] || echo ", exit $rc (see $log)")"
    [ "$found" -eq 0 ] || rc=1
  fi
  [ $rc -eq 0 ] || { status=1; tail -30 "$log" >&2; }
done
exit $status
