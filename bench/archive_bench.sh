#!/usr/bin/env bash
# The result archive at lab scale: 10,000 PCIe margin results over 100 runs.
# Measures, side by side in one run:
#   - `cat` of every output.json (the floor: reading the same bytes),
#   - a whole-range GetResultsByDate (time and size of the answer),
#   - the service's peak memory (VmHWM),
#   - the version route's latency while 10 whole-range queries run at once,
#   - the summary route (first page), cold (no index yet) and warm.
# Goals: GetResultsByDate <= 2x cat, peak RSS <= 256 MB, version route
# within 100 ms during the queries.
# Usage: [ARCHIVE_BENCH_PARALLEL=n] bench/archive_bench.sh [service binary ...]
#   Each binary given is measured in turn (e.g. an older build to compare);
#   default: build/bin/lanewright-sim. ARCHIVE_BENCH_DIR keeps the generated
#   archive between runs (default: a temporary folder removed at the end).
#   ARCHIVE_BENCH_PARALLEL sets the number of parallel queries (default 10;
#   a build that holds whole answers in memory needs some 3 GB for each).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup build
cmake --build build -j2 --target lanewright-sim archive_bench_gen >/dev/null

binaries=("$@")
[ "${#binaries[@]}" -gt 0 ] || binaries=(build/bin/lanewright-sim)
port=9983
work="$(mktemp -d)"
archive="${ARCHIVE_BENCH_DIR:-$work/archive}"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

if [ ! -d "$archive" ]; then
  build/bin/archive_bench_gen "$archive" 100 100
fi
(cd "$archive" && find . -name output.json | sort) > "$work/files"
(cd "$archive" && xargs cat < "$work/files" > /dev/null)  # page cache warm for everyone

best_of_3() {  # command... ; prints the best wall time in seconds
  local best="" t
  for _ in 1 2 3; do
    /usr/bin/time -f "%e" -o "$work/time" "$@" >/dev/null 2>&1
    t="$(tail -1 "$work/time")"
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$t"; fi
  done
  echo "$best"
}

cat_s="$(cd "$archive" && best_of_3 sh -c "xargs cat < '$work/files'")"
echo "archive: $(wc -l < "$work/files") tests, $(du -sm "$archive" | cut -f1) MB"
printf '%-28s %8s s\n' "cat of all output.json" "$cat_s"

url="http://127.0.0.1:$port"
for binary in "${binaries[@]}"; do
  echo "--- $binary"
  rm -f "$archive"/.archive-index.sqlite3*
  "$binary" --port "$port" --results "$archive" --time-scale 100000 >"$work/service.log" 2>&1 &
  pid=$!
  pids+=("$pid")
  for _ in $(seq 100); do curl -s -o /dev/null "$url/api/GetLANEWRIGHTVersion" && break; sleep 0.1; done

  summary="$(curl -s -o /dev/null -w '%{http_code} %{time_total}' "$url/api/1.0/GetResultsSummary?limit=50")"
  if [ "${summary%% *}" = 200 ]; then
    printf '%-28s %8s s (index built from the files)\n' "summary page, cold" "${summary#* }"
    warm="$(curl -s -o /dev/null -w '%{time_total}' "$url/api/1.0/GetResultsSummary?limit=50")"
    printf '%-28s %8s s\n' "summary page, warm" "$warm"
  else
    echo "summary route: HTTP ${summary%% *} (absent)"
  fi

  range="$(curl -s "$url/api/1.0/GetResultsDateRange" |
           python3 -c 'import json,sys; d=json.load(sys.stdin)["DateList"]; print(json.dumps({"start":d[0],"end":d[-1]}))')"
  echo "$range" > "$work/range"
  query() { curl -s -o /dev/null -w '%{time_total} %{size_download}\n' -X POST --data @"$work/range" \
              "$url/api/1.0/GetResultsByDate"; }
  best=""; size=0
  for _ in 1 2 3; do
    read -r t size < <(query)
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$t"; fi
  done
  printf '%-28s %8s s  %s MB  (%.1fx cat)\n' "GetResultsByDate, all" "$best" "$((size / 1000000))" \
    "$(awk -v a="$best" -v b="$cat_s" 'BEGIN { print a / b }')"

  # Whole-range queries at once; the version route asked every 50 ms.
  parallel="${ARCHIVE_BENCH_PARALLEL:-10}"
  queries=()
  for i in $(seq "$parallel"); do query > "$work/parallel.$i" & queries+=($!); done
  : > "$work/latency"
  start=$(date +%s.%N)
  running() { for q in "${queries[@]}"; do kill -0 "$q" 2>/dev/null && return 0; done; return 1; }
  while running; do
    curl -s -o /dev/null -w '%{time_total}\n' "$url/api/GetLANEWRIGHTVersion" >> "$work/latency"
    sleep 0.05
  done
  wait_s="$(awk -v s="$start" -v e="$(date +%s.%N)" 'BEGIN { printf "%.1f", e - s }')"
  sort -n "$work/latency" | awk -v w="$wait_s" -v p="$parallel" '{ v[NR] = $1 } END {
    printf "%-28s %s s for all; version route: %d answers, median %.1f ms, p99 %.1f ms, max %.1f ms\n",
      p " parallel, all", w, NR, 1000 * v[int((NR + 1) / 2)], 1000 * v[int(NR * 0.99 + 0.999)], 1000 * v[NR] }'
  printf '%-28s %s\n' "answers (s, bytes)" "$(cat "$work"/parallel.* | tr '\n' ' ')"
  printf '%-28s %8s MB\n' "peak RSS of the service" "$(awk '/VmHWM/ { printf "%.0f", $2 / 1024 }' /proc/$pid/status)"
  kill "$pid"; wait "$pid" 2>/dev/null || true
done
