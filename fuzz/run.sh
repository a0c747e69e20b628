#!/usr/bin/env bash
# Builds the fuzz preset, writes the seeds and runs every fuzz target for a
# share of a fixed time. Exits non-zero when any target reports a finding
# (crash, sanitizer report, leak, timeout, out of memory).
#
#   fuzz/run.sh                 100 seconds of fuzzing in all
#   HIVEKIT_FUZZ_SECONDS=600 HIVEKIT_FUZZ_CORPUS=/tmp/hivekit-corpus fuzz/run.sh
#
# Environment:
#   HIVEKIT_FUZZ_SECONDS  total fuzzing time, shared by the targets (100)
#   HIVEKIT_FUZZ_CORPUS   directory keeping each target's corpus between runs
#                         (<dir>/<target>); by default a temporary one
#   HIVEKIT_FUZZ_TARGETS  which targets, by name without "_fuzz"
#                         (default: open log regfile path pattern)
#   HIVEKIT_FUZZ_BUILD    build directory (default build/fuzz)
# After a finding the work directory stays (/tmp/hivekit-fuzz.*), with each
# target's log and its inputs in artifacts/<target>/: replay one with
# `build/fuzz/<target>_fuzz FILE`.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${HIVEKIT_FUZZ_SECONDS:-100}
build=${HIVEKIT_FUZZ_BUILD:-build/fuzz}
read -r -a targets <<<"${HIVEKIT_FUZZ_TARGETS:-open log regfile path pattern}"

cmake --preset fuzz -B "$build" >/dev/null
cmake --build "$build" -j2

work=$(mktemp -d /tmp/hivekit-fuzz.XXXXXX)
corpus=${HIVEKIT_FUZZ_CORPUS:-$work/corpus}
"$build/make-fuzz-seeds" "$work/seeds"

# Input size limits: a hive of a few hbins, logs beside one, texts and paths.
declare -A maxLen=([open]=49152 [log]=65536 [regfile]=16384 [path]=320 [pattern]=4096)

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
share=$((seconds / ${#targets[@]}))
[ "$share" -ge 1 ] || share=1
failed=()
for t in "${targets[@]}"; do
  mkdir -p "$corpus/$t" "$work/artifacts/$t"
  log="$work/$t.log"
  rc=0
  "$build/${t}_fuzz" -max_total_time="$share" -timeout=10 -rss_limit_mb=2048 -max_len="${maxLen[$t]:-65536}" \
    -dict=fuzz/hive.dict -print_final_stats=1 -artifact_prefix="$work/artifacts/$t/" \
    "$corpus/$t" "$work/seeds/$t" >"$log" 2>&1 || rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  cov=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -1 || true)
  if [ "$rc" -ne 0 ] || [ -n "$(ls -A "$work/artifacts/$t")" ]; then
    failed+=("$t")
    echo "FAIL ${t}_fuzz (exit $rc) after ${execs:-?} runs; log $log:"
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written|^    #[0-9]' "$log" | head -40 || true
    ls "$work/artifacts/$t"
  else
    echo "ok   ${t}_fuzz: ${execs:-?} runs, ${rate:-?}/s, $cov"
  fi
done
echo "fuzz targets: $((${#targets[@]} - ${#failed[@]})) clean, ${#failed[@]} with findings"
[ "${#failed[@]}" -eq 0 ] || exit 1
rm -rf "$work"
