#!/usr/bin/env bash
# Requests/s and p99 latency of GET /api/GetLANEWRIGHTVersion on loopback,
# first alone, then while a number of idle connections (default 1,000) are
# held open against the same service, as a crowd of idle browsers or a slow
# attacker would.
# Usage: bench/connection_flood.sh [seconds] [idle connections] [port]
set -euo pipefail
cd "$(dirname "$0")/.."
duration="${1:-10}"
idle="${2:-1000}"
port="${3:-9985}"
threads=2
connections=32

command -v wrk >/dev/null || {
  sudo_cmd=(); [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get install -y -qq wrk
}
[ -d build ] || scripts/setup build
cmake --build build -j2 --target lanewright-sim >/dev/null

# This shell holds the idle sockets itself.
ulimit -n "$(ulimit -Hn)"
results="$(mktemp -d)"
service_pid=""
cleanup() {
  [ -n "$service_pid" ] && kill "$service_pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$results"
}
trap cleanup EXIT

build/bin/lanewright-sim --port "$port" --results "$results" >/dev/null &
service_pid=$!
for _ in $(seq 100); do
  curl -s -o /dev/null "http://127.0.0.1:$port/api/GetLANEWRIGHTVersion" && break
  sleep 0.1
done
kill -0 "$service_pid" 2>/dev/null || { echo "the service did not start (port $port taken?)" >&2; exit 1; }

measure() {  # label
  local out
  out="$(wrk -t"$threads" -c"$connections" -d"${duration}s" --latency \
         "http://127.0.0.1:$port/api/GetLANEWRIGHTVersion")"
  printf '%-28s %12s req/s   p99 %s\n' "$1" \
    "$(awk '/^Requests\/sec:/ {print $2}' <<<"$out")" "$(awk '$1 == "99%" {print $2}' <<<"$out")"
}

echo "wrk: $threads threads, $connections connections, ${duration}s each, loopback"
measure "no idle connections"
fds=()
for _ in $(seq "$idle"); do
  exec {fd}<>"/dev/tcp/127.0.0.1/$port"
  fds+=("$fd")
done
echo "holding ${#fds[@]} idle connections; service RSS $(awk '/VmRSS/ {print $2, $3}' "/proc/$service_pid/status")"
measure "with $idle idle connections"
for fd in "${fds[@]}"; do exec {fd}>&-; done
kill -0 "$service_pid" && echo "service still running"
