#!/usr/bin/env bash
# Instruction counts of the application benchmark (bench_app against bench_app_std),
# per phase, under callgrind: deterministic, so they compare on a busy machine where
# times do not. Each phase is a function of its own in bench_app.cpp; the counts are
# callgrind's inclusive ones (a phase with everything it calls).
#
#   bench/callgrind_app.sh                 # 200000 lines, 1 thread, about a minute
#   LINES=20000 bench/callgrind_app.sh     # a quick smoke run
#   BUILD=/some/other/build bench/callgrind_app.sh   # another build of the same source
#
# Rows: run (the whole program after the input is made: ingest, merge, report and
# tear-down), ingest (every line: its string, fields, numbers, map update, log),
# split (tokenising into six fields), record (map lookup or insert and the latency
# add), log (info and error lines), report (sorting, percentiles and the report text).
# Raw callgrind files stay in $BUILD/app_results/.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD=${BUILD:-build/bench}
LINES=${LINES:-200000}
THREADS=${THREADS:-1}

if ! command -v valgrind >/dev/null; then
  echo "valgrind is not installed (apt-get install -y valgrind)" >&2
  exit 1
fi
if [[ ! -f $BUILD/CMakeCache.txt ]]; then cmake --preset bench >/dev/null; fi
cmake --build "$BUILD" -j2 --target bench_app bench_app_std >/dev/null

out=$BUILD/app_results
mkdir -p "$out"
declare -A count
for prog in bench_app bench_app_std; do
  ns=zo
  [[ $prog == bench_app_std ]] && ns=stdv
  file=$out/callgrind.$prog.$LINES.$THREADS
  valgrind --tool=callgrind --callgrind-out-file="$file" "$BUILD/bench/$prog" --lines "$LINES" --threads "$THREADS" \
    2>/dev/null | sed 's/ms=[0-9.]* //'
  annotated=$(callgrind_annotate --inclusive=yes --threshold=100 "$file" 2>/dev/null)
  for phase in run ingest splitFields record logRequest merge report; do
    n=$(grep -E "::${ns}::${phase}\(" <<<"$annotated" | head -1 | awk '{gsub(",", "", $1); print $1}' || true)
    count[$prog.$phase]=${n:-0}
  done
done

printf '\n%-11s %14s %14s %8s\n' phase "zoutils (M)" "std (M)" "ratio"
for phase in run ingest splitFields record logRequest merge report; do
  z=${count[bench_app.$phase]}
  s=${count[bench_app_std.$phase]}
  [[ $z == 0 && $s == 0 ]] && continue
  awk -v p="$phase" -v z="$z" -v s="$s" 'BEGIN { r = "-"; if (s > 0) r = sprintf("%.2f", z / s); printf "%-11s %14.1f %14.1f %8s\n", p, z / 1e6, s / 1e6, r }'
done
