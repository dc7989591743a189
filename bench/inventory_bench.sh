#!/usr/bin/env bash
# Start-up inventory cost side by side with lspci on the same machine:
# detection + die detection + inventory lines over the platform model and
# over this machine's sysfs (inventory_bench), and the mean wall time of
# `lspci -D` and `lspci -Dvv` (which reads link status as the inventory
# does). lspci times include starting the process; ours are in-process.
# Usage: bench/inventory_bench.sh [build-dir] [lspci-repetitions]
# JOBS sets the build's parallelism (default 2).
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir="${1:-build}"
reps="${2:-20}"

scripts/setup "$build_dir"
cmake --build "$build_dir" -j"${JOBS:-2}" --target inventory_bench
[ "$(id -u)" -eq 0 ] || echo "note: not root; sysfs gives only the first 64 bytes of configuration space" >&2

printf 'load average before the runs: %s\n' "$(cut -d' ' -f1-3 /proc/loadavg)"
csv="$("$build_dir/bin/inventory_bench" --benchmark_format=csv 2>/dev/null)"
bench_time() {  # name -> "real_time unit" of the row
  awk -F, -v n="\"$1" 'index($1, n) == 1 { print $3, $5; exit }' <<<"$csv"
}

mean_ms() {  # command... -> mean wall milliseconds over $reps runs
  local start end
  "$@" >/dev/null 2>&1  # warm the caches as the benchmark's own warm-up does
  start=$(date +%s%N)
  for ((i = 0; i < reps; i++)); do "$@" >/dev/null 2>&1; done
  end=$(date +%s%N)
  awk -v s="$start" -v e="$end" -v n="$reps" 'BEGIN { printf "%.2f", (e - s) / 1e6 / n }'
}

read -r model_ms _ <<<"$(bench_time BM_InventoryModel)"
read -r real_ms _ <<<"$(bench_time BM_InventoryRealSysfs)"
read -r direct_ns _ <<<"$(bench_time BM_CrnRead32ModelDirect)"
read -r pair_ns _ <<<"$(bench_time BM_CrnRead32ThroughRootFunction)"
lspci_ms="$(mean_ms lspci -D)"
lspci_vv_ms="$(mean_ms lspci -Dvv)"

verdict() { awk -v ok="$1" 'BEGIN { print (ok ? "met" : "NOT met") }'; }
printf '%-44s %12s\n' "start-up inventory (mean per run)" "wall time"
printf '  %-42s %9.2f ms   goal under 200 ms: %s\n' "model, default machine" "$model_ms" \
  "$(verdict "$(awk -v m="$model_ms" 'BEGIN { print (m < 200) }')")"
printf '  %-42s %9.2f ms\n' "real sysfs (ReadPCIStd)" "$real_ms"
printf '  %-42s %9.2f ms   (%d runs)\n' "lspci -D" "$lspci_ms" "$reps"
printf '  %-42s %9.2f ms   (%d runs)\n' "lspci -Dvv" "$lspci_vv_ms" "$reps"
for pair in "lspci -D:$lspci_ms" "lspci -Dvv:$lspci_vv_ms"; do
  ratio="$(awk -v r="$real_ms" -v l="${pair#*:}" 'BEGIN { printf "%.2f", r / l }')"
  printf '  %-42s %9sx     goal within 2x: %s\n' "real sysfs / ${pair%%:*}" "$ratio" \
    "$(verdict "$(awk -v x="$ratio" 'BEGIN { print (x <= 2) }')")"
done
printf '%-44s\n' "CRN read32 of the die identity register, model"
printf '  %-42s %9.1f ns\n' "straight into die 0 of socket 0" "$direct_ns"
printf '  %-42s %9.1f ns\n' "through 0:0:0.0's index/data pair" "$pair_ns"
