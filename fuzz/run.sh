#!/usr/bin/env bash
# Builds the fuzz preset, writes the seeds and runs every fuzz target for a
# fixed time each. Exits non-zero when any target reports a finding (crash,
# sanitizer report, leak, timeout, out of memory).
#
#   fuzz/run.sh                 20 seconds per target
#   fuzz/run.sh 300             300 seconds per target
#   HIVEKIT_FUZZ_MERGE=1 fuzz/run.sh 600
#                               ... and fold what the runs found into the
#                               kept corpus (fuzz/corpus), minimized
#
# Each target starts from the kept corpus (fuzz/corpus/<target>.tar.gz:
# inputs that reach new code, minimized with libFuzzer's -merge=1), the
# regression inputs of past findings (fuzz/regressions/<target>) and the
# seeds make-fuzz-seeds writes (built hives and slices of the shared test
# hives).
#
# Environment:
#   HIVEKIT_FUZZ_SECONDS  total time shared by the targets, when no
#                         per-target time is given (the older form)
#   HIVEKIT_FUZZ_CORPUS   directory keeping each target's new inputs between
#                         runs (<dir>/<target>); by default a temporary one
#   HIVEKIT_FUZZ_TARGETS  which targets, by name without "_fuzz"
#                         (default: open log regfile path pattern)
#   HIVEKIT_FUZZ_BUILD    build directory (default build/fuzz)
#   HIVEKIT_FUZZ_MERGE    1: after clean runs, replace fuzz/corpus/<target>.tar.gz
#                         with the minimized union of it and the new inputs
# After a finding the work directory stays (/tmp/hivekit-fuzz.*), with each
# target's log and its inputs in artifacts/<target>/, each beside the report
# of its replay with allocation stacks (FILE.replay.log): replay one again
# with `build/fuzz/<target>_fuzz FILE`, and once fixed keep it in
# fuzz/regressions/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
. fuzz/common.sh

read -r -a targets <<<"${HIVEKIT_FUZZ_TARGETS:-open log regfile path pattern}"
if [ $# -ge 1 ]; then
  share=$1
elif [ -n "${HIVEKIT_FUZZ_SECONDS:-}" ]; then
  share=$((HIVEKIT_FUZZ_SECONDS / ${#targets[@]}))
else
  share=20
fi
[ "$share" -ge 1 ] || share=1
build=${HIVEKIT_FUZZ_BUILD:-build/fuzz}

cmake --preset fuzz -B "$build" >/dev/null
cmake --build "$build" -j2

work=$(mktemp -d /tmp/hivekit-fuzz.XXXXXX)
corpus=${HIVEKIT_FUZZ_CORPUS:-$work/corpus}
"$build/make-fuzz-seeds" "$work/seeds"

failed=()
for t in "${targets[@]}"; do
  mkdir -p "$corpus/$t" "$work/artifacts/$t"
  unpack_corpus "$t" "$work/kept/$t"
  dirs=("$corpus/$t")
  for d in "$work/kept/$t" "fuzz/regressions/$t" "$work/seeds/$t"; do
    [ -d "$d" ] && dirs+=("$d")
  done
  log="$work/$t.log"
  rc=0
  "$build/${t}_fuzz" -max_total_time="$share" -timeout=10 -rss_limit_mb=2048 -max_len="${maxLen[$t]:-65536}" \
    -entropic="${entropic[$t]:-0}" -dict=fuzz/hive.dict -print_final_stats=1 -artifact_prefix="$work/artifacts/$t/" \
    "${dirs[@]}" >"$log" 2>&1 || rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  cov=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -1 || true)
  if [ "$rc" -ne 0 ] || [ -n "$(ls -A "$work/artifacts/$t")" ]; then
    failed+=("$t")
    echo "FAIL ${t}_fuzz (exit $rc) after ${execs:-?} runs; log $log:"
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written|^    #[0-9]' "$log" | head -40 || true
    # The run recorded no allocation stacks: each finding again, with them.
    for f in "$work/artifacts/$t"/*; do
      case $f in *.replay.log) continue ;; esac
      ASAN_OPTIONS=$FINDING_ASAN_OPTIONS "$build/${t}_fuzz" -timeout=10 -rss_limit_mb=2048 "$f" >"$f.replay.log" 2>&1 || true
      echo "replayed $(basename "$f") with allocation stacks: $f.replay.log"
    done
    ls "$work/artifacts/$t"
    continue
  fi
  echo "ok   ${t}_fuzz: ${share} s, ${execs:-?} runs, ${rate:-?}/s, $cov"
  if [ "${HIVEKIT_FUZZ_MERGE:-0}" = 1 ]; then
    # The kept corpus holds only what the seeds and regression inputs (made
    # or kept anyway) do not reach: merge into a directory that starts with
    # them, then drop them again. It keeps inputs that reach new edges, not
    # new hit counts (-use_counters=0): a tenth of the size, and each run
    # grows counts again from it.
    merged="$work/merged/$t"
    mkdir -p "$merged"
    base=()
    for d in "$work/seeds/$t" "fuzz/regressions/$t"; do
      [ -d "$d" ] && cp "$d"/* "$merged/" && base+=("$d")
    done
    "$build/${t}_fuzz" -merge=1 -use_counters=0 -timeout=10 -rss_limit_mb=2048 -max_len="${maxLen[$t]:-65536}" "$merged" \
      "$corpus/$t" "$work/kept/$t" >"$work/$t.merge.log" 2>&1 ||
      { echo "merge of ${t} failed; log $work/$t.merge.log"; exit 1; }
    for d in "${base[@]}"; do
      for f in "$d"/*; do rm -f "$merged/$(basename "$f")"; done
    done
    pack_corpus "$t" "$merged"
    echo "     kept corpus: $(ls "$merged" | wc -l) inputs, $(cat "$merged"/* 2>/dev/null | wc -c) bytes," \
      "$(wc -c <"fuzz/corpus/$t.tar.gz") packed"
  fi
done
echo "fuzz targets: $((${#targets[@]} - ${#failed[@]})) clean, ${#failed[@]} with findings"
[ "${#failed[@]}" -eq 0 ] || exit 1
rm -rf "$work"
