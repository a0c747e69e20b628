#!/usr/bin/env bash
# Builds hivekit as a user would, without the test frameworks, installs it
# into a temporary prefix, and builds the example programs from a separate
# project against the installed package twice: with find_package(hivekit)
# and with pkg-config. Each walks the sample hive (and, when the shared test
# data is beside the project, SYSTEM) and must count what `hivekit dump`
# and the independent reader's listing count. Also checks the SONAME and
# that the library exports nothing but the public API.
set -euo pipefail
src="$(cd "$(dirname "$0")/.." && pwd)"
work="$(mktemp -d "${TMPDIR:-/tmp}/hivekit-package.XXXXXX")"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake -S "$src" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
  -DHIVEKIT_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$work/build" -j2 >/dev/null
cmake --install "$work/build" --prefix "$prefix" >/dev/null

lib="$prefix/lib/libhivekit.so.0"
[ -e "$prefix/lib/libhivekit.so" ] || { echo "no libhivekit.so installed"; exit 1; }
readelf -d "$lib" | grep -q 'SONAME.*\[libhivekit.so.0\]' || { echo "SONAME is not libhivekit.so.0"; exit 1; }
exported=$(nm -DC --defined-only "$lib" | awk '{$1=$2=""; print}')
foreign=$(grep -v '^  hivekit::' <<<"$exported" || true)
[ -z "$foreign" ] || { echo "exported beyond the public API:"; echo "$foreign" | head; exit 1; }
echo "exported symbols: $(wc -l <<<"$exported") (all hivekit::)"
for f in hivekit/hivekit.h hivekit/version.h; do [ -e "$prefix/include/$f" ] || { echo "missing $f"; exit 1; }; done
[ -x "$prefix/bin/hivekit" ] || { echo "no hivekit tool installed"; exit 1; }
"$prefix/bin/hivekit" --version

# The consumer project: the examples, nothing else of the source tree.
mkdir -p "$work/consumer"
cp "$src"/examples/*.cc "$work/consumer/"
cat >"$work/consumer/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.22)
project(consumer LANGUAGES CXX)
find_package(hivekit 0.1 REQUIRED)
foreach(example walk read_value set_value)
  add_executable(${example} ${example}.cc)
  target_link_libraries(${example} PRIVATE hivekit::hivekit)
endforeach()
EOF
cmake -S "$work/consumer" -B "$work/consumer/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer/build" >/dev/null
mkdir -p "$work/pc"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
for example in walk read_value set_value; do
  # shellcheck disable=SC2046
  g++ -std=c++20 -o "$work/pc/$example" "$work/consumer/$example.cc" $(pkg-config --cflags --libs hivekit) \
    -Wl,-rpath,"$prefix/lib"
done

# Counts of a listing: keys and values.
counts() { awk -F'\t' '$1=="K"{k++} $1=="V"{v++} END{print k+0, v+0}' "$1"; }
check() {
  local hive="$1" listing="$2"
  local expected
  expected=$(counts "$listing")
  for walk in "$work/consumer/build/walk" "$work/pc/walk"; do
    local got
    got=$("$walk" "$hive" | awk '{print $1, $2}')
    [ "$got" = "$expected" ] || { echo "$walk $hive: $got, expected $expected"; exit 1; }
  done
  echo "walk $(basename "$hive"): $expected keys and values, as listed"
}
cp "$work/build/sample.hive" "$work/sample.hive"
"$prefix/bin/hivekit" dump "$work/sample.hive" >"$work/sample.lst"
check "$work/sample.hive" "$work/sample.lst"
shared="$src/../shared/testdata"
if [ -d "$shared" ]; then
  check "$shared/hives/SYSTEM" "$shared/expected/SYSTEM.lst"
  check "$shared/hives/NTUSER.DAT" "$shared/expected/NTUSER.DAT.lst"
fi

# A change through the installed library, read back through it.
"$work/pc/set_value" "$work/sample.hive" 'Software\Example' Greeting hello
[ "$("$work/consumer/build/read_value" "$work/sample.hive" 'Software\Example' Greeting)" = hello ] ||
  { echo "set_value/read_value round trip failed"; exit 1; }
echo "package: ok"
