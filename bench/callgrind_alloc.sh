#!/usr/bin/env bash
# Instruction counts of the process allocator against glibc (and, on request, the
# peers), under callgrind: deterministic, so they compare on a busy machine where
# times do not. Each workload runs outside Google Benchmark (bench_alloc --pairs or
# --map), once with ROUNDS rounds and once with 0 rounds; the difference divided by
# the items of the rounds is the cost per item without the set-up (process start,
# the slot and permutation arrays, the arena's first region).
#
#   bench/callgrind_alloc.sh                          # zoutils and glibc, under a minute
#   ALLOCATORS="zoutils glibc mimalloc jemalloc tcmalloc" bench/callgrind_alloc.sh
#   PAIR_ROUNDS=2 MAP_ROUNDS=1 bench/callgrind_alloc.sh        # a quick smoke run
#
# Workloads: new/delete pairs of 64 B and 256 B in random order with 1e4 live blocks
# (instructions per pair), and the map of strings to vectors (instructions per entry,
# of which the map's own work, keys and vectors, is a large part on every allocator).
# Raw callgrind files stay in $BUILD/alloc_results/callgrind/.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD=${BUILD:-build/bench}
read -r -a WHO <<<"${ALLOCATORS:-zoutils glibc}"
PAIR_ROUNDS=${PAIR_ROUNDS:-20}
MAP_ROUNDS=${MAP_ROUNDS:-2}

if ! command -v valgrind >/dev/null; then
  echo "valgrind is not installed (apt-get install -y valgrind)" >&2
  exit 1
fi
if [[ ! -f $BUILD/CMakeCache.txt ]]; then
  if [[ $BUILD == build/bench ]]; then cmake --preset bench >/dev/null; else cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOUTILS_BUILD_BENCH=ON >/dev/null; fi
fi
cmake --build "$BUILD" -j2 --target bench_alloc bench_alloc_plain >/dev/null

multiarch=/usr/lib/$(gcc -print-multiarch 2>/dev/null || echo x86_64-linux-gnu)
preload() {
  case $1 in
    zoutils | glibc) echo "" ;;
    mimalloc) echo "$multiarch/libmimalloc.so.2" ;;
    jemalloc) echo "$multiarch/libjemalloc.so.2" ;;
    tcmalloc) echo "$multiarch/libtcmalloc_minimal.so.4" ;;
    *) echo "unknown" ;;
  esac
}
for who in "${WHO[@]}"; do
  lib=$(preload "$who")
  if [[ $lib == unknown ]]; then
    echo "unknown allocator $who (zoutils, glibc, mimalloc, jemalloc, tcmalloc)" >&2
    exit 2
  fi
  if [[ -n $lib && ! -e $lib ]]; then
    echo "$who is not installed ($lib missing): apt-get install -y libmimalloc2.0 libjemalloc2 libgoogle-perftools4" >&2
    exit 1
  fi
done

OUT=$BUILD/alloc_results/callgrind
mkdir -p "$OUT"

# Instructions of one run: allocator, mode, workload arguments.
count() {
  local who=$1 mode=$2 work=$3 file binary
  file=$OUT/$who.${mode#--}.${work//:/_}.out
  binary=$BUILD/bench/bench_alloc_plain
  [[ $who == zoutils ]] && binary=$BUILD/bench/bench_alloc
  # Symbols bound at start-up, so that no lazy binding falls into the rounds.
  LD_BIND_NOW=1 LD_PRELOAD=$(preload "$who") valgrind --tool=callgrind --callgrind-out-file="$file" \
    "$binary" "$mode" "$work" 2>"$file.log" || {
    echo "callgrind run failed: $who $mode $work (see $file.log)" >&2
    exit 1
  }
  awk '/^(summary|totals):/ { print $2; exit }' "$file"
}

# name|mode|arguments with the rounds|arguments with 0 rounds|items of the rounds
WORKLOADS=(
  "64 B pairs, random, 1e4 live (per pair)|--pairs|64:10000:2:$PAIR_ROUNDS|64:10000:2:0|$((10000 * PAIR_ROUNDS))"
  "256 B pairs, random, 1e4 live (per pair)|--pairs|256:10000:2:$PAIR_ROUNDS|256:10000:2:0|$((10000 * PAIR_ROUNDS))"
  "map of strings to vectors (per entry)|--map|$MAP_ROUNDS|0|$((20000 * MAP_ROUNDS))"
)

: >"$OUT/counts.csv"
for w in "${WORKLOADS[@]}"; do
  IFS='|' read -r name mode work base items <<<"$w"
  for who in "${WHO[@]}"; do
    echo "callgrind: $who, $name" >&2
    full=$(count "$who" "$mode" "$work")
    setup=$(count "$who" "$mode" "$base")
    echo "$name|$who|$full|$setup|$items" >>"$OUT/counts.csv"
  done
done

python3 - "$OUT/counts.csv" "$PAIR_ROUNDS" "$MAP_ROUNDS" "${WHO[@]}" <<'PY'
import collections, sys
path, pair_rounds, map_rounds, names = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
per = collections.OrderedDict()
for line in open(path):
    name, who, full, setup, items = line.rstrip("\n").split("|")
    per.setdefault(name, {})[who] = (int(full) - int(setup)) / int(items)
print(f"### Instructions per item under callgrind (rounds of pairs: {pair_rounds}, maps: {map_rounds}; "
      "a run with 0 rounds subtracted)\n")
others = [n for n in names if n != "zoutils"]
head = "| workload | " + " | ".join(names)
if "zoutils" in names and others:
    head += " | " + " | ".join(f"zoutils / {n}" for n in others)
print(head + " |")
print("|---|" + "---:|" * (len(names) + (len(others) if "zoutils" in names else 0)))
for name, row in per.items():
    cells = [f"{row[n]:.0f}" for n in names]
    if "zoutils" in names:
        cells += [f"{row['zoutils'] / row[n]:.2f}" for n in others]
    print(f"| {name} | " + " | ".join(cells) + " |")
PY
