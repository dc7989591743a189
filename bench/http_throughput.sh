#!/usr/bin/env bash
# Throughput and p99 latency of GET /api/GetLANEWRIGHTVersion on loopback:
# the service (on the simulated machine) side by side with a bare
# hello-world server on the same HTTP library, router and worker count.
# Usage: bench/http_throughput.sh [seconds] [connections]
set -euo pipefail
cd "$(dirname "$0")/.."
duration="${1:-10}"
connections="${2:-32}"
threads=2

command -v wrk >/dev/null || {
  sudo_cmd=(); [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get install -y -qq wrk
}
scripts/setup build
cmake --build build -j2 --target lanewright-sim bare_http_server lanewright_ui

service_port=9981
bare_port=9982
results="$(mktemp -d)"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$results"
}
trap cleanup EXIT

build/bin/lanewright-sim --port "$service_port" --results "$results" >/dev/null &
pids+=($!)
build/bin/bare_http_server "$bare_port" >/dev/null &
pids+=($!)

wait_for() {
  for _ in $(seq 100); do
    curl -s -o /dev/null "http://127.0.0.1:$1/api/GetLANEWRIGHTVersion" && return 0
    sleep 0.1
  done
  echo "server on port $1 did not come up" >&2
  exit 1
}
wait_for "$service_port"
wait_for "$bare_port"

measure() {  # name port
  local out rps p99
  out="$(wrk -t"$threads" -c"$connections" -d"${duration}s" --latency \
         "http://127.0.0.1:$2/api/GetLANEWRIGHTVersion")"
  rps="$(awk '/^Requests\/sec:/ {print $2}' <<<"$out")"
  p99="$(awk '$1 == "99%" {print $2}' <<<"$out")"
  printf '%-12s %12s req/s   p99 %s\n' "$1" "$rps" "$p99" >&2
  echo "$rps"
}

echo "wrk: $threads threads, $connections connections, ${duration}s each, loopback" >&2
bare_rps="$(measure bare "$bare_port")"
service_rps="$(measure lanewright "$service_port")"
awk -v s="$service_rps" -v b="$bare_rps" \
  'BEGIN { printf "lanewright / bare = %.1f%% (goal: at least 80%%)\n", 100 * s / b }'
