#!/usr/bin/env bash
# The application benchmark, wall clock: bench_app (the library's types) and
# bench_app_std (std types on glibc malloc) run alternately, ROUNDS times each at 1
# and at 2 threads; prints the median milliseconds, the ratio, and checks that both
# programs printed the same report checksum and log line counts. The machine's load
# average is printed first: times on a busy machine are noisy, see callgrind_app.sh
# for instruction counts.
#
#   bench/run_app.sh                  # 200000 lines, 5 rounds
#   LINES=50000 ROUNDS=3 bench/run_app.sh
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD=${BUILD:-build/bench}
LINES=${LINES:-200000}
ROUNDS=${ROUNDS:-5}
if [[ ! -f $BUILD/CMakeCache.txt ]]; then cmake --preset bench >/dev/null; fi
cmake --build "$BUILD" -j2 --target bench_app bench_app_std >/dev/null

echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
median() { sort -n | awk '{ a[NR] = $1 } END { print (NR % 2) ? a[(NR + 1) / 2] : (a[NR / 2] + a[NR / 2 + 1]) / 2 }'; }
status=0
for threads in 1 2; do
  zo=() st=()
  for ((r = 0; r < ROUNDS; ++r)); do
    a=$("$BUILD/bench/bench_app" --lines "$LINES" --threads "$threads")
    b=$("$BUILD/bench/bench_app_std" --lines "$LINES" --threads "$threads")
    if [[ ${a#* ms=* } != "${b#* ms=* }" ]]; then
      echo "outputs differ:"$'\n'"  $a"$'\n'"  $b" >&2
      status=1
    fi
    zo+=("$(sed 's/.* ms=\([0-9.]*\) .*/\1/' <<<"$a")")
    st+=("$(sed 's/.* ms=\([0-9.]*\) .*/\1/' <<<"$b")")
  done
  z=$(printf '%s\n' "${zo[@]}" | median)
  s=$(printf '%s\n' "${st[@]}" | median)
  awk -v t="$threads" -v z="$z" -v s="$s" 'BEGIN { printf "threads %s: zoutils %.1f ms, std %.1f ms, zoutils/std %.2f\n", t, z, s, z / s }'
  echo "  ${a#* ms=* }"
done
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
exit $status
