#!/usr/bin/env bash
# The library's arena against glibc malloc, mimalloc, jemalloc and tcmalloc, side by
# side. The same benchmark source (bench/bench_alloc.cpp) is built twice: linked with
# libzoutils (operator new is the arena) and without it (operator new is libstdc++'s,
# on malloc: glibc's, or a peer's through LD_PRELOAD).
#
#   bench/run_alloc.sh            # build if needed, run everything (a few minutes)
#   MIN_TIME=0.2 bench/run_alloc.sh
#
# Prints two Markdown tables: time per operation and peak resident memory, each peer
# as a ratio to the arena (above 1: the peer is slower or bigger). Raw results stay
# in build/bench/alloc_results/.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD=build/bench
if [[ ! -x $BUILD/bench/bench_alloc || ! -x $BUILD/bench/bench_alloc_plain ]]; then
  cmake --preset bench >/dev/null
  cmake --build --preset bench -j2 --target bench_alloc bench_alloc_plain
fi

LIBDIR=/usr/lib/x86_64-linux-gnu
ALLOCATORS=(zoutils glibc mimalloc jemalloc tcmalloc)
preload() {
  case $1 in
    mimalloc) echo $LIBDIR/libmimalloc.so.2 ;;
    jemalloc) echo $LIBDIR/libjemalloc.so.2 ;;
    tcmalloc) echo $LIBDIR/libtcmalloc_minimal.so.4 ;;
    *) echo "" ;;
  esac
}
run() {  # allocator, arguments...
  local who=$1
  shift
  if [[ $who == zoutils ]]; then
    "$BUILD/bench/bench_alloc" "$@"
  else
    LD_PRELOAD=$(preload "$who") "$BUILD/bench/bench_alloc_plain" "$@"
  fi
}

OUT=$BUILD/alloc_results
mkdir -p "$OUT"
MIN_TIME=${MIN_TIME:-0.05}

for who in "${ALLOCATORS[@]}"; do
  echo "timing: $who" >&2
  run "$who" --benchmark_min_time="$MIN_TIME" --benchmark_format=json >"$OUT/$who.json" 2>/dev/null
done

RSS_CASES=(pairs:16:100000 pairs:48:100000 pairs:64:100000 pairs:256:100000 pairs:4096:10000 pairs:65536:1000 map)
: >"$OUT/rss.csv"
for c in "${RSS_CASES[@]}"; do
  for who in "${ALLOCATORS[@]}"; do
    echo "$c,$who,$(run "$who" --rss "$c")" >>"$OUT/rss.csv"
  done
done

python3 - "$OUT" "${ALLOCATORS[@]}" <<'PY'
import json, math, sys, collections
out, names = sys.argv[1], sys.argv[2:]
peers = names[1:]
times = {}
for n in names:
    with open(f"{out}/{n}.json") as f:
        for b in json.load(f)["benchmarks"]:
            if b.get("run_type", "iteration") != "iteration":
                continue
            # nanoseconds per item (new/delete pair, or map entry), all threads together
            per_item = 1e9 / b["items_per_second"]
            times.setdefault(b["name"], {})[n] = per_item
def gmean(xs):
    return math.exp(sum(math.log(x) for x in xs) / len(xs)) if xs else float("nan")
def group(name):
    if name.startswith("BM_Map"):
        return "map of strings to vectors" + (" (2 threads)" if "threads:2" in name else "")
    parts = dict(p.split(":") for p in name.split("/")[1:] if ":" in p)
    order = ["LIFO", "FIFO", "random"][int(parts["order"])]
    thr = parts.get("threads", "1")
    return f"{parts['size']:>5} B, {order}, {thr} thread" + ("s" if thr != "1" else "")
groups = collections.OrderedDict()
for name, row in times.items():
    if all(n in row for n in names):
        groups.setdefault(group(name), []).append(row)
print("### Time per new/delete pair (map: per entry), geometric mean over 1e3..1e5 live objects\n")
print("| case | zoutils ns | " + " | ".join(f"{p} / zoutils" for p in peers) + " |")
print("|---|---:|" + "---:|" * len(peers))
overall = {p: [] for p in peers}
for g, rows in groups.items():
    z = gmean([r["zoutils"] for r in rows])
    cells = []
    for p in peers:
        ratio = gmean([r[p] / r["zoutils"] for r in rows])
        overall[p].extend(r[p] / r["zoutils"] for r in rows)
        cells.append(f"{ratio:.2f}")
    print(f"| {g} | {z:.1f} | " + " | ".join(cells) + " |")
print("| **all cases (geometric mean)** | | " + " | ".join(f"**{gmean(overall[p]):.2f}**" for p in peers) + " |")
print("\n### Peak resident memory (KiB) of one process running one case\n")
rss = collections.OrderedDict()
with open(f"{out}/rss.csv") as f:
    for line in f:
        c, who, kib = line.strip().split(",")
        rss.setdefault(c, {})[who] = int(kib)
print("| case | zoutils KiB | " + " | ".join(f"{p} / zoutils" for p in peers) + " |")
print("|---|---:|" + "---:|" * len(peers))
for c, row in rss.items():
    print(f"| {c} | {row['zoutils']} | " + " | ".join(f"{row[p] / row['zoutils']:.2f}" for p in peers) + " |")
PY
