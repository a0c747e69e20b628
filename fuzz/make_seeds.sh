#!/bin/sh
# Builds make_seeds against the fuzz build of the library and writes the
# seed corpora into DIR (default /tmp/hivekit-seeds): DIR/open, DIR/log,
# DIR/regfile. Run from the source tree after `cmake --build --preset fuzz`.
#
#   fuzz/make_seeds.sh /tmp/seeds
#   build/fuzz/open_fuzz -max_total_time=180 -rss_limit_mb=2048 -timeout=10 \
#       /tmp/corpus-open /tmp/seeds/open
set -e
out=${1:-/tmp/hivekit-seeds}
build=build/fuzz
clang++ -std=c++20 -O1 -g -I. -fsanitize=address,undefined \
  fuzz/make_seeds.cc tests/support/hive_builder.cc \
  -L"$build" -lhivekit -Wl,-rpath,"$PWD/$build" -o "$build/make_seeds"
"$build/make_seeds" "$out"
for d in "$out"/*; do echo "$d: $(ls "$d" | wc -l) seeds"; done
