#!/usr/bin/env bash
# Executions per CPU second of each fuzz target, and its coverage after a
# fixed number of runs: a rate by wall time says little on a shared machine.
#
#   bench/fuzz_rate.sh [RUNS]      default 20000 runs per target
#
# Each target starts from the kept corpus and the seeds (as fuzz/run.sh
# does), with the same seed for its random choices and the same flags, and
# writes the inputs it finds to a temporary directory only. Prints per
# target: runs, CPU seconds (user + system), runs per CPU second, cov, ft.
#
# Environment: HIVEKIT_FUZZ_BUILD (default build/fuzz, built beforehand
# with the fuzz preset), HIVEKIT_FUZZ_TARGETS (default all five), and
# FUZZ_SEEDS, a seed directory to reuse (so that two builds are measured
# on the same inputs; by default make-fuzz-seeds writes a fresh one).
set -euo pipefail
cd "$(dirname "$0")/.."
. fuzz/common.sh
runs=${1:-20000}
build=${HIVEKIT_FUZZ_BUILD:-build/fuzz}
read -r -a targets <<<"${HIVEKIT_FUZZ_TARGETS:-open log regfile path pattern}"

work=$(mktemp -d /tmp/hivekit-fuzz-rate.XXXXXX)
trap 'rm -rf "$work"' EXIT
seeds=${FUZZ_SEEDS:-$work/seeds}
[ -d "$seeds" ] || "$build/make-fuzz-seeds" "$seeds" >/dev/null
printf '%-8s %8s %8s %10s %6s %7s\n' target runs cpu-s runs/cpu-s cov ft
for t in "${targets[@]}"; do
  mkdir -p "$work/new/$t"
  unpack_corpus "$t" "$work/kept/$t"
  dirs=("$work/new/$t")
  for d in "$work/kept/$t" "fuzz/regressions/$t" "$seeds/$t"; do
    [ -d "$d" ] && dirs+=("$d")
  done
  /usr/bin/time -f '%U %S' -o "$work/time" "$build/${t}_fuzz" -runs="$runs" -seed=1 -timeout=10 -rss_limit_mb=2048 \
    -max_len="${maxLen[$t]}" -entropic="${entropic[$t]:-0}" -dict=fuzz/hive.dict -print_final_stats=1 \
    -artifact_prefix="$work/" "${dirs[@]}" >"$work/$t.log" 2>&1 || { echo "$t: failed, log:"; tail -20 "$work/$t.log"; exit 1; }
  read -r user sys <"$work/time"
  cov=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$work/$t.log" | tail -1 | awk '{print $2, $4}')
  executed=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$t.log")
  awk -v t="$t" -v n="$executed" -v u="$user" -v s="$sys" -v c="$cov" \
    'BEGIN { split(c, a, " "); printf "%-8s %8d %8.2f %10.0f %6s %7s\n", t, n, u + s, n / (u + s), a[1], a[2] }'
done
