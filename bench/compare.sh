#!/bin/sh
# Side by side with the peers, on the same hives, in one run.
#
#   bench/compare.sh [-n ROUNDS] [-b BUILD_DIR] [HIVE...]
#
# For each hive (default: SYSTEM of the shared test data beside the tree)
# it times, ROUNDS times (default 15), alternating the order every round:
#   walk    open, every key, every value, every value's full data, close:
#           bench/compare/hivekit_walk.cc against hivex's C library
#           (bench/compare/hivex_walk.c)
#   deep    open and read one value about 10 levels down, found by name
#   export  the whole hive as a .reg file: 'hivekit export' against
#           'reged -x' from chntpw
#   dump    'hivekit dump' (the canonical listing), against our own walk
# and prints the median CPU time (user + system), wall time and peak RSS of
# each, and the ratios ours / peer by median CPU time. Both walkers also
# walk an empty hive, which measures what their programs cost before any
# hive is read (start-up, run-time libraries): the peak RSS ratio is given
# as measured and net of that. A peer that is not installed (Debian:
# libhivex-dev, chntpw) is skipped.
#
# The library comes from BUILD_DIR (default build/release, configured and
# built with the release preset when missing). Dirty hives without logs
# (amcache.hve) are opened as stored by every program here.
set -eu

ROUNDS=15
SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$SRC/build/release
while getopts n:b: opt; do
  case $opt in
    n) ROUNDS=$OPTARG ;;
    b) BUILD=$(cd "$OPTARG" && pwd) ;;
    *) echo "usage: $0 [-n ROUNDS] [-b BUILD_DIR] [HIVE...]" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ $# -gt 0 ] || set -- "$SRC/../shared/testdata/hives/SYSTEM"

if [ ! -f "$BUILD/libhivekit.so" ] || [ ! -x "$BUILD/hivekit" ]; then
  (cd "$SRC" && cmake --preset release >/dev/null && cmake --build --preset release -j2 >/dev/null)
fi

WORK=$(mktemp -d "${TMPDIR:-/tmp}/hivekit-compare.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
CXX=${CXX:-c++}
CC=${CC:-cc}
$CC -O2 -o "$WORK/measure" "$SRC/bench/compare/measure.c"
$CXX -std=c++20 -O2 -o "$WORK/hivekit_walk" "$SRC/bench/compare/hivekit_walk.cc" -I"$SRC/include" \
  -I"$BUILD/include" -L"$BUILD" -Wl,-rpath,"$BUILD" -lhivekit
HIVEX=
if [ -f /usr/include/hivex.h ] && $CC -O2 -o "$WORK/hivex_walk" "$SRC/bench/compare/hivex_walk.c" -lhivex 2>/dev/null; then
  HIVEX=$WORK/hivex_walk
else
  echo "hivex not installed (libhivex-dev): walk and deep run without the peer"
fi
REGED=$(command -v reged || true)
[ -x /usr/sbin/reged ] && REGED=/usr/sbin/reged
[ -n "$REGED" ] || echo "reged not installed (chntpw): export runs without the peer"
HIVEKIT=$BUILD/hivekit
EMPTY=$WORK/empty.hive
"$HIVEKIT" new "$EMPTY" >/dev/null

# run NAME COMMAND...: one measured run, appended to $WORK/NAME.
run() {
  name=$1
  shift
  "$WORK/measure" "$@" >>"$WORK/$name"
}

# stats NAME: "cpu_ms wall_ms rss_kb" medians; "-" when nothing ran.
stats() {
  [ -s "$WORK/$1" ] || { echo "- - -"; return; }
  for col in 1 2 3; do
    cut -d' ' -f$col "$WORK/$1" | sort -n | awk '{v[NR]=$1} END {printf "%s ", (NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2)}'
  done
  echo
}

# failures NAME: runs that exited with a status other than 0.
failures() {
  [ -s "$WORK/$1" ] && awk '$4 != 0 {n++} END {print n+0}' "$WORK/$1" || echo 0
}

ratio() {
  awk -v a="$1" -v b="$2" 'BEGIN { if (a == "-" || b == "-" || b == 0) print "-"; else printf "%.2f", a / b }'
}

line() {
  printf '%-22s %10s %10s %10s %8s\n' "$@"
}

for HIVE in "$@"; do
  HIVE=$(cd "$(dirname "$HIVE")" && pwd)/$(basename "$HIVE")
  rm -f "$WORK"/ours_* "$WORK"/peer_*
  DIRTY=--dirty
  PICK=$("$WORK/hivekit_walk" pick "$HIVE" 10 || true)
  DEEP_PATH=$(printf '%s' "$PICK" | cut -f1)
  DEEP_NAME=$(printf '%s' "$PICK" | cut -f2)
  i=0
  while [ $i -lt "$ROUNDS" ]; do
    # Odd rounds run the peer first.
    if [ $((i % 2)) -eq 0 ]; then order="ours peer"; else order="peer ours"; fi
    for who in $order; do
      if [ $who = ours ]; then
        run ours_empty "$WORK/hivekit_walk" walk "$EMPTY"
        run ours_walk "$WORK/hivekit_walk" walk "$HIVE"
        [ -z "$PICK" ] || run ours_deep "$WORK/hivekit_walk" deep "$HIVE" "$DEEP_PATH" "$DEEP_NAME"
        run ours_export "$HIVEKIT" export $DIRTY "$HIVE" -o "$WORK/ours.reg"
        run ours_dump "$HIVEKIT" dump $DIRTY "$HIVE"
      else
        [ -z "$HIVEX" ] || run peer_empty "$HIVEX" walk "$EMPTY"
        [ -z "$HIVEX" ] || run peer_walk "$HIVEX" walk "$HIVE"
        [ -z "$HIVEX" ] || [ -z "$PICK" ] || run peer_deep "$HIVEX" deep "$HIVE" "$DEEP_PATH" "$DEEP_NAME"
        [ -z "$REGED" ] || run peer_export "$REGED" -x "$HIVE" 'HKEY_LOCAL_MACHINE\SYSTEM' '\' "$WORK/peer.reg"
      fi
    done
    i=$((i + 1))
  done

  echo
  printf '%s (%s rounds; medians; CPU = user + system)\n' "$HIVE" "$ROUNDS"
  [ -z "$PICK" ] || printf 'deep value: %s : %s\n' "$DEEP_PATH" "$DEEP_NAME"
  line "" "CPU ms" "wall ms" "RSS KiB" "failed"
  for task in empty walk deep export dump; do
    for who in ours peer; do
      [ -s "$WORK/${who}_$task" ] || continue
      set -- $(stats "${who}_$task")
      case $who$task in
        peerempty) label="hivex empty hive" ;;
        oursempty) label="hivekit empty hive" ;;
        peerwalk | peerdeep) label="hivex $task" ;;
        peerexport) label="reged export" ;;
        *) label="hivekit $task" ;;
      esac
      line "$label" "$1" "$2" "$3" "$(failures "${who}_$task")"
    done
  done
  ours_walk=$(stats ours_walk | cut -d' ' -f1)
  net() {  # peak RSS of the walk above that of the empty hive's
    awk -v a="$(stats "$1_walk" | cut -d' ' -f3)" -v b="$(stats "$1_empty" | cut -d' ' -f3)" \
      'BEGIN { if (a == "-" || b == "-") print "-"; else print a - b }'
  }
  echo "ratios by CPU time:"
  echo "  walk   hivekit / hivex  $(ratio "$ours_walk" "$(stats peer_walk | cut -d' ' -f1)")" \
    "  (peak RSS $(ratio "$(stats ours_walk | cut -d' ' -f3)" "$(stats peer_walk | cut -d' ' -f3)");" \
    "net of start-up $(net ours) / $(net peer) KiB = $(ratio "$(net ours)" "$(net peer)"))"
  echo "  deep   hivekit / hivex  $(ratio "$(stats ours_deep | cut -d' ' -f1)" "$(stats peer_deep | cut -d' ' -f1)")"
  echo "  export hivekit / reged  $(ratio "$(stats ours_export | cut -d' ' -f1)" "$(stats peer_export | cut -d' ' -f1)")"
  echo "  dump   dump / walk      $(ratio "$(stats ours_dump | cut -d' ' -f1)" "$ours_walk")"
done
