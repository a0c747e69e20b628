// Upper case of UTF-16 units, as the hive compares names: a table of the
// whole BMP built once from the runs tools/gen_upcase.py writes.
#include "platform/string.h"

namespace Platform {
namespace {

struct UpcaseRun {
  u16 first;
  u16 count;
  u8 stride;
  s32 delta;
};

constexpr UpcaseRun kRuns[] = {
#include "platform/upcase_runs.inc"
};

struct UpcaseTable {
  char16_t map[0x10000];
  UpcaseTable() {
    for (u32 c = 0; c < 0x10000; ++c) map[c] = static_cast<char16_t>(c);
    for (const auto& r : kRuns)
      for (u32 k = 0; k < r.count; ++k) {
        u32 c = r.first + k * r.stride;
        map[c] = static_cast<char16_t>(static_cast<s32>(c) + r.delta);
      }
  }
};

const UpcaseTable& table() {
  static const UpcaseTable t;
  return t;
}

}  // namespace

char16_t String::upcase(char16_t c) { return table().map[c]; }

}  // namespace Platform
