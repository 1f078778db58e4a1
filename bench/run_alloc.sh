#!/usr/bin/env bash
# The library's arena against glibc malloc, mimalloc, jemalloc and tcmalloc, side by
# side. The same benchmark source (bench/bench_alloc.cpp) is built twice: linked with
# libzoutils (operator new is the arena) and without it (operator new is libstdc++'s,
# on malloc: glibc's, or a peer's through LD_PRELOAD). A real program, clang-format,
# is then timed with its operator new on the library (LD_PRELOAD) and on glibc.
#
#   bench/run_alloc.sh                               # build if needed, run everything
#   ROUNDS=1 MIN_TIME=0.01 FILTER='size:64/live:1000/|Map' PARTS=time bench/run_alloc.sh   # smoke run
#
# Knobs (environment):
#   ROUNDS=3       timing rounds; the allocators' order rotates from round to round
#                  and every row reports the median over the rounds
#   MIN_TIME=0.3   --benchmark_min_time per row, in seconds (long enough for several
#                  iterations of the slowest rows)
#   FILTER=.       regular expression on the benchmark names (e.g. 'size:64/|Map')
#   PARTS="time rss program"   which parts to run
#   RSS_CASES="pairs:16:100000 ... map"   the peak-memory cases (bench_alloc --rss)
#   PROGRAM_RUNS=5 alternating runs of each side in the real-program comparison
#   BUILD=build/bench          the build tree (configured with the bench preset)
#
# Prints Markdown: the headline ratio glibc time / zoutils time, time per operation
# with each peer as a ratio to the arena (above 1: the peer is slower), the 2-thread
# to 1-thread throughput of every allocator, peak resident memory, and the real
# program's times. The machine's load is printed before every set of 2-thread rows.
# Raw results stay in $BUILD/alloc_results/.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD=${BUILD:-build/bench}
ROUNDS=${ROUNDS:-3}
MIN_TIME=${MIN_TIME:-0.3}
FILTER=${FILTER:-.}
PARTS=${PARTS:-time rss program}
PROGRAM_RUNS=${PROGRAM_RUNS:-5}

# Configure once with the bench preset; build every time (a no-op when up to date).
if [[ ! -f $BUILD/CMakeCache.txt ]]; then
  if [[ $BUILD == build/bench ]]; then cmake --preset bench >/dev/null; else cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZOUTILS_BUILD_BENCH=ON >/dev/null; fi
fi
cmake --build "$BUILD" -j2 --target bench_alloc bench_alloc_plain zoutils >/dev/null

# ---------------------------------------------------------------------------
# Allocators: the arena, glibc, and every peer whose Debian library is installed.
# ---------------------------------------------------------------------------
peer_library() {  # peer -> shared object name
  case $1 in
    mimalloc) echo libmimalloc.so.2 ;;
    jemalloc) echo libjemalloc.so.2 ;;
    tcmalloc) echo libtcmalloc_minimal.so.4 ;;
  esac
}
peer_package() {
  case $1 in
    mimalloc) echo libmimalloc2.0 ;;
    jemalloc) echo libjemalloc2 ;;
    tcmalloc) echo libgoogle-perftools4 ;;
  esac
}
find_library() {  # soname -> absolute path, or nothing
  local name=$1 dir
  for dir in /usr/lib/"$(gcc -print-multiarch 2>/dev/null || echo x86_64-linux-gnu)" /usr/lib64 /usr/lib /usr/local/lib; do
    if [[ -e $dir/$name ]]; then
      echo "$dir/$name"
      return
    fi
  done
  ldconfig -p 2>/dev/null | awk -v n="$name" '$1 == n { print $NF; exit }'
}

ALLOCATORS=(zoutils glibc)
declare -A PRELOAD=([zoutils]="" [glibc]="")
for peer in mimalloc jemalloc tcmalloc; do
  lib=$(find_library "$(peer_library $peer)")
  if [[ -n $lib ]]; then
    ALLOCATORS+=("$peer")
    PRELOAD[$peer]=$lib
  else
    echo "note: $peer is not installed, skipped (apt-get install -y $(peer_package $peer))" >&2
  fi
done

run() {  # allocator, arguments...
  local who=$1
  shift
  if [[ $who == zoutils ]]; then
    "$BUILD/bench/bench_alloc" "$@"
  else
    LD_PRELOAD=${PRELOAD[$who]} "$BUILD/bench/bench_alloc_plain" "$@"
  fi
}

OUT=$BUILD/alloc_results
mkdir -p "$OUT"
rm -f "$OUT"/time.*.json "$OUT"/load.txt "$OUT"/rss.csv "$OUT"/program.csv

# What the rest of the machine is doing: the load average, and the share of the CPUs
# that other processes used over one second while this script waited.
machine_load() {
  local a b
  a=$(head -1 /proc/stat)
  sleep 1
  b=$(head -1 /proc/stat)
  python3 - "$a" "$b" "$(cat /proc/loadavg)" "$(nproc)" <<'PY'
import sys
a, b = ([int(x) for x in s.split()[1:]] for s in sys.argv[1:3])
d = [y - x for x, y in zip(a, b)]
total = sum(d[:8])  # user nice system idle iowait irq softirq steal
idle = d[3] + d[4]
busy = (total - idle) / total if total else 0.0
cores = int(sys.argv[4])
load = " ".join(sys.argv[3].split()[:3])
print(f"loadavg {load}; other processes used {busy * cores:.2f} of {cores} cores over 1 s")
PY
}

# ---------------------------------------------------------------------------
# Timing: 1-thread rows, then (after a look at the load) 2-thread rows, for every
# allocator in a rotated order per round.
# ---------------------------------------------------------------------------
if [[ " $PARTS " == *" time "* ]]; then
  n=${#ALLOCATORS[@]}
  for ((round = 1; round <= ROUNDS; ++round)); do
    order=()
    for ((i = 0; i < n; ++i)); do order+=("${ALLOCATORS[$(((i + round - 1) % n))]}"); done
    for threads in 1 2; do
      for who in "${order[@]}"; do
        if [[ $threads == 2 ]]; then
          load=$(machine_load)
          echo "round $round, $who, before the 2-thread rows: $load" >>"$OUT/load.txt"
          echo "round $round: $who, 2 threads ($load)" >&2
        else
          echo "round $round: $who, 1 thread" >&2
        fi
        run "$who" --benchmark_min_time="$MIN_TIME" --benchmark_format=json \
          --benchmark_filter="($FILTER).*/threads:$threads\$" >"$OUT/time.$who.$round.$threads.json" 2>/dev/null
      done
    done
  done
fi

# ---------------------------------------------------------------------------
# Peak resident memory: one fresh process per case and allocator.
# ---------------------------------------------------------------------------
if [[ " $PARTS " == *" rss "* ]]; then
  read -r -a RSS_CASES <<<"${RSS_CASES:-pairs:16:100000 pairs:48:100000 pairs:64:100000 pairs:256:100000 pairs:4096:10000 pairs:65536:1000 map}"
  for c in "${RSS_CASES[@]}"; do
    for who in "${ALLOCATORS[@]}"; do
      echo "$c,$who,$(run "$who" --rss "$c")" >>"$OUT/rss.csv"
    done
  done
fi

# ---------------------------------------------------------------------------
# A real program: clang-format over the concatenated stl_*.h headers, its operator
# new on the library (LD_PRELOAD) and on glibc, in alternating runs; the outputs
# must be byte-identical.
# ---------------------------------------------------------------------------
if [[ " $PARTS " == *" program "* ]]; then
  CLANG_FORMAT=$(command -v clang-format || true)
  LIBZOUTILS=$(find "$BUILD" -name 'libzoutils.so.1' -print -quit 2>/dev/null || true)
  HEADERS=(/usr/include/c++/12/bits/stl_*.h)
  if [[ -z $CLANG_FORMAT ]]; then
    echo "note: clang-format is not installed, the real-program comparison is skipped (apt-get install -y clang-format)" >&2
  elif [[ -z $LIBZOUTILS ]]; then
    echo "note: no libzoutils.so.1 under $BUILD, the real-program comparison is skipped" >&2
  elif [[ ! -e ${HEADERS[0]} ]]; then
    echo "note: /usr/include/c++/12/bits/stl_*.h not found, the real-program comparison is skipped (apt-get install -y libstdc++-12-dev)" >&2
  else
    LIBZOUTILS=$(realpath "$LIBZOUTILS")
    cat "${HEADERS[@]}" >"$OUT/program_input.h"
    # Proof that the preloaded library serves the program's operator new.
    binding=$(LD_PRELOAD=$LIBZOUTILS LD_DEBUG=bindings "$CLANG_FORMAT" --version 2>&1 >/dev/null |
      grep -m1 "normal symbol \`_Znwm'" | sed -n 's/.* to \([^ ]*\) \[.*/\1/p' || true)
    echo "${binding:-unknown}" >"$OUT/program_binding.txt"
    python3 - "$OUT" "$CLANG_FORMAT" "$LIBZOUTILS" "$PROGRAM_RUNS" <<'PY'
import hashlib, os, resource, subprocess, sys, time
out, program, lib, runs = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
source = f"{out}/program_input.h"
sides = {"zoutils": dict(os.environ, LD_PRELOAD=lib), "glibc": {k: v for k, v in os.environ.items() if k != "LD_PRELOAD"}}
digests = {}
with open(f"{out}/program.csv", "w") as csv:
    for i in range(runs):
        order = ["zoutils", "glibc"] if i % 2 == 0 else ["glibc", "zoutils"]
        for side in order:
            before = resource.getrusage(resource.RUSAGE_CHILDREN)
            start = time.perf_counter()
            done = subprocess.run([program, "--style=LLVM", source], env=sides[side], stdout=subprocess.PIPE, check=True)
            wall = time.perf_counter() - start
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
            digests.setdefault(side, set()).add(hashlib.sha256(done.stdout).hexdigest())
            csv.write(f"{side},{wall:.4f},{cpu:.4f}\n")
same = len(digests["zoutils"] | digests["glibc"]) == 1
with open(f"{out}/program_identical.txt", "w") as f:
    f.write("yes\n" if same else "NO\n")
PY
  fi
fi

# ---------------------------------------------------------------------------
# The report.
# ---------------------------------------------------------------------------
python3 - "$OUT" "$ROUNDS" "$MIN_TIME" "$PARTS" "${ALLOCATORS[@]}" <<'PY'
import collections, glob, json, math, os, re, statistics, sys
out, rounds, min_time, parts, names = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4].split(), sys.argv[5:]
peers = names[1:]

def gmean(xs):
    xs = list(xs)
    return math.exp(sum(math.log(x) for x in xs) / len(xs)) if xs else float("nan")

def fmt(x):
    return "n/a" if x != x else f"{x:.2f}"

# ns per item (new/delete pair, or map entry), all threads together; median over rounds.
samples = collections.defaultdict(lambda: collections.defaultdict(list))
for path in glob.glob(f"{out}/time.*.json"):
    who = os.path.basename(path).split(".")[1]
    try:
        with open(path) as f:
            data = json.load(f)
    except (OSError, ValueError):
        continue
    for b in data.get("benchmarks", []):
        if b.get("run_type", "iteration") != "iteration" or not b.get("items_per_second"):
            continue
        samples[b["name"]][who].append(1e9 / b["items_per_second"])
times = {name: {who: statistics.median(v) for who, v in row.items()} for name, row in samples.items()}

def parse(name):
    """(case without threads, threads)"""
    thr = int(re.search(r"threads:(\d+)", name).group(1))
    if name.startswith("BM_Map"):
        return "map of strings to vectors", thr
    parts_ = dict(p.split(":") for p in name.split("/")[1:] if ":" in p)
    order = ["LIFO", "FIFO", "random"][int(parts_["order"])]
    return f"{parts_['size']:>5} B, {order}", thr

def label(case, thr):
    return f"{case}, {thr} thread" + ("s" if thr != 1 else "")

rows = collections.OrderedDict()  # (case, threads) -> list of per-benchmark {who: ns}
def sort_key(name):
    fields = dict(p.split(":") for p in name.split("/")[1:] if ":" in p)
    return (name.startswith("BM_Map"), int(fields.get("size", 0)), int(fields.get("order", 0)),
            int(fields.get("threads", 1)), int(fields.get("live", 0)))

for name in sorted(times, key=sort_key):
    row = times[name]
    if all(n in row for n in names):
        rows.setdefault(parse(name), []).append((name, row))

if "time" in parts and rows:
    print(f"Rounds: {rounds}, min_time {min_time} s per row, allocators' order rotated between rounds; "
          "every row is the median over the rounds.\n")
    if os.path.exists(f"{out}/load.txt"):
        print("Machine load before the 2-thread rows:\n")
        with open(f"{out}/load.txt") as f:
            for line in f:
                print(f"    {line.rstrip()}")
        print()
    have_glibc = "glibc" in names
    if have_glibc:
        ratio = lambda r: r["glibc"] / r["zoutils"]
        every = [ratio(r) for rs in rows.values() for _, r in rs]
        one = [ratio(r) for (c, t), rs in rows.items() if t == 1 for _, r in rs]
        two = [ratio(r) for (c, t), rs in rows.items() if t == 2 for _, r in rs]
        maps = {t: gmean(ratio(r) for _, r in rs) for (c, t), rs in rows.items() if c.startswith("map")}
        lowest = min(((ratio(r), n) for rs in rows.values() for n, r in rs), default=(float("nan"), ""))
        print("### Headline: glibc time / zoutils time (above 1: the arena is faster)\n")
        print("| rows | glibc / zoutils |")
        print("|---|---:|")
        print(f"| **all rows (geometric mean)** | **{fmt(gmean(every))}** |")
        print(f"| 1-thread rows (geometric mean) | {fmt(gmean(one))} |")
        print(f"| 2-thread rows (geometric mean) | {fmt(gmean(two))} |")
        for t in sorted(maps):
            print(f"| map of strings to vectors, {t} thread{'s' if t != 1 else ''} | {fmt(maps[t])} |")
        print(f"| lowest row: {lowest[1]} | {fmt(lowest[0])} |")
        print()

    print("### Time per new/delete pair (map: per entry), geometric mean over the live counts\n")
    print("| case | zoutils ns | " + " | ".join(f"{p} / zoutils" for p in peers) + " |")
    print("|---|---:|" + "---:|" * len(peers))
    overall = {p: [] for p in peers}
    for (case, thr), rs in rows.items():
        z = gmean(r["zoutils"] for _, r in rs)
        cells = []
        for p in peers:
            xs = [r[p] / r["zoutils"] for _, r in rs]
            overall[p].extend(xs)
            cells.append(fmt(gmean(xs)))
        print(f"| {label(case, thr)} | {z:.1f} | " + " | ".join(cells) + " |")
    print("| **all rows (geometric mean)** | | " + " | ".join(f"**{fmt(gmean(overall[p]))}**" for p in peers) + " |")

    print("\n### Throughput at 2 threads / throughput at 1 thread, per case (geometric mean over the live counts)\n")
    print("| case | " + " | ".join(names) + " |")
    print("|---|" + "---:|" * len(names))
    by_case = collections.OrderedDict()
    for (case, thr), rs in rows.items():
        for name, r in rs:
            key = re.sub(r"/threads:\d+", "", name)
            by_case.setdefault(case, {}).setdefault(key, {})[thr] = r
    scale_all = {n: [] for n in names}
    for case, benches in by_case.items():
        cells = []
        for n in names:
            xs = [b[1][n] / b[2][n] for b in benches.values() if 1 in b and 2 in b]
            scale_all[n].extend(xs)
            cells.append(fmt(gmean(xs)))
        print(f"| {case} | " + " | ".join(cells) + " |")
    print("| **all cases (geometric mean)** | " + " | ".join(f"**{fmt(gmean(scale_all[n]))}**" for n in names) + " |")
    print()

if "rss" in parts and os.path.exists(f"{out}/rss.csv"):
    print("### Peak resident memory (KiB) of one process running one case\n")
    rss = collections.OrderedDict()
    with open(f"{out}/rss.csv") as f:
        for line in f:
            c, who, kib = line.strip().split(",")
            if kib:
                rss.setdefault(c, {})[who] = int(kib)
    print("| case | zoutils KiB | " + " | ".join(f"{p} / zoutils" for p in peers) + " |")
    print("|---|---:|" + "---:|" * len(peers))
    for c, row in rss.items():
        if "zoutils" in row:
            print(f"| {c} | {row['zoutils']} | " + " | ".join(fmt(row[p] / row["zoutils"]) if p in row else "n/a" for p in peers) + " |")
    print()

if "program" in parts and os.path.exists(f"{out}/program.csv"):
    wall, cpu = collections.defaultdict(list), collections.defaultdict(list)
    with open(f"{out}/program.csv") as f:
        for line in f:
            side, w, c = line.strip().split(",")
            wall[side].append(float(w))
            cpu[side].append(float(c))
    with open(f"{out}/program_identical.txt") as f:
        identical = f.read().strip()
    with open(f"{out}/program_binding.txt") as f:
        binding = f.read().strip()
    lines = sum(1 for _ in open(f"{out}/program_input.h", errors="replace"))
    runs = len(wall["zoutils"])
    print(f"### clang-format over /usr/include/c++/12/bits/stl_*.h ({lines} lines), median of {runs} alternating runs\n")
    print("| operator new | wall s | CPU s |")
    print("|---|---:|---:|")
    for side in ("zoutils", "glibc"):
        print(f"| {side} | {statistics.median(wall[side]):.3f} | {statistics.median(cpu[side]):.3f} |")
    zw, gw = statistics.median(wall["zoutils"]), statistics.median(wall["glibc"])
    zc, gc = statistics.median(cpu["zoutils"]), statistics.median(cpu["glibc"])
    print(f"| **zoutils / glibc** | **{zw / gw:.2f}** | **{zc / gc:.2f}** |")
    print(f"\nOutputs byte-identical: {identical}. With the library preloaded, operator new binds to {binding}.")
PY
