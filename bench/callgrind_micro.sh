#!/usr/bin/env bash
# Instructions per operation of the hot paths, library against std, under callgrind
# (bench_counts): each case runs its operation N times inside measure_<case>(), and
# callgrind's inclusive count of that function divided by N is one operation's cost.
# Deterministic, so it compares builds and peers on a busy machine.
#
#   bench/callgrind_micro.sh                       # every case, N = 100000
#   N=20000 CASES="vector_add vector_push_back" bench/callgrind_micro.sh
#   BUILD=/other/build bench/callgrind_micro.sh    # another build of the same source
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD=${BUILD:-build/bench}
N=${N:-100000}

if ! command -v valgrind >/dev/null; then
  echo "valgrind is not installed (apt-get install -y valgrind)" >&2
  exit 1
fi
if [[ ! -f $BUILD/CMakeCache.txt ]]; then cmake --preset bench >/dev/null; fi
cmake --build "$BUILD" -j2 --target bench_counts >/dev/null
prog=$BUILD/bench/bench_counts
read -r -a cases <<<"${CASES:-$("$prog" list | tr '\n' ' ')}"

out=$BUILD/micro_results
mkdir -p "$out"
printf '%-22s %12s\n' case "instr/op"
for c in "${cases[@]}"; do
  file=$out/callgrind.$c.$N
  # Symbols bound at load, so that lazy binding does not count against the first calls.
  LD_BIND_NOW=1 valgrind --tool=callgrind --callgrind-out-file="$file" "$prog" "$c" "$N" >/dev/null 2>&1
  ir=$(callgrind_annotate --inclusive=yes --threshold=100 "$file" 2>/dev/null | grep -E "measure_${c}\(" | head -1 |
    awk '{gsub(",", "", $1); print $1}' || true)
  awk -v c="$c" -v ir="${ir:-0}" -v n="$N" 'BEGIN { printf "%-22s %12.1f\n", c, ir / n }'
done
