#!/usr/bin/env bash
# Builds the `coverage` preset (gcc --coverage -fprofile-update=atomic, debug),
# runs the whole suite and prints line and branch coverage of src/ and syslayer/,
# per directory and in total, with gcovr. The HTML report goes to
# build/coverage/coverage.html, the per-file figures to build/coverage/summary.json.
#
#   scripts/coverage.sh            build, clear old counters, test, report
#   scripts/coverage.sh --report   report the counters already there
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh gcovr

dir=build/coverage
if [ "${1:-}" != --report ]; then
  cmake --preset coverage >/dev/null
  cmake --build --preset coverage -j "${BUILD_JOBS:-$(nproc)}"
  find "$dir" -name '*.gcda' -delete
  ctest --preset coverage </dev/null || echo "coverage: some tests failed; the figures below still count what ran" >&2
fi

# The same sources are built twice: the internal copy the tests link, and the
# production copy the tour and the helper programs run. gcov marks an exception
# edge "(throw)" only on lines its own copy ran, so reporting both copies side by
# side would count the production copy's unrun exception edges as missed
# decisions. Its counters are summed into the internal copy's instead (gcov-tool
# merge: same sources, same flow graphs) and then removed, so a second --report
# does not count them twice; the report reads the internal copy only.
for lib in zoutils zosys; do
  prod="$dir/CMakeFiles/$lib.dir" internal="$dir/CMakeFiles/${lib}_internal.dir"
  [ -n "$(find "$prod" -name '*.gcda' -print -quit 2>/dev/null)" ] || continue
  merged="$(mktemp -d)"
  gcov-tool merge -o "$merged" "$internal" "$prod"
  cp -r "$merged"/. "$internal"/
  rm -rf "$merged"
  find "$prod" -name '*.gcda' -delete
done

# Branches the compiler adds for exceptions and those it proves unreachable are
# not the library's decisions: left out.
gcovr --root . --object-directory "$dir" --filter 'src/' --filter 'syslayer/' \
  --exclude-directories '.*/CMakeFiles/(zoutils|zosys)\.dir' \
  --exclude-throw-branches --exclude-unreachable-branches \
  --json-summary "$dir/summary.json" --html-details "$dir/coverage.html" --print-summary >/dev/null

python3 - "$dir/summary.json" <<'PY'
import json, os, sys
data = json.load(open(sys.argv[1]))
dirs = {}
for f in data["files"]:
    d = os.path.dirname(f["filename"])
    a = dirs.setdefault(d, [0, 0, 0, 0])
    a[0] += f["line_covered"]; a[1] += f["line_total"]; a[2] += f["branch_covered"]; a[3] += f["branch_total"]
pct = lambda c, t: 100.0 * c / t if t else 100.0
print(f"{'directory':<18} {'lines':>16} {'branches':>18}")
tot = [0, 0, 0, 0]
for d in sorted(dirs):
    a = dirs[d]
    tot = [x + y for x, y in zip(tot, a)]
    print(f"{d:<18} {pct(a[0], a[1]):6.1f}% {a[0]:>4}/{a[1]:<5} {pct(a[2], a[3]):6.1f}% {a[2]:>5}/{a[3]:<5}")
print(f"{'total':<18} {pct(tot[0], tot[1]):6.1f}% {tot[0]:>4}/{tot[1]:<5} {pct(tot[2], tot[3]):6.1f}% {tot[2]:>5}/{tot[3]:<5}")
PY
