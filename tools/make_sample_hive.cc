// make-sample-hive OUT: writes a small hive that shows every storage form.
//
// The tree has keys three levels deep, values of the common types (strings,
// expandable strings, binary data resident, in one record and in a db list,
// 32-bit numbers of both byte orders, multi-strings, 64-bit numbers), a
// default value, names stored as UTF-16 (a character outside Latin-1) and as
// 8-bit names with characters above 0x7F.
//
// Exit status: 0 written, 1 failure, 2 bad arguments.
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/hive_builder.h"

namespace {

using hivekit::test::HiveBuilder;
using hivekit::test::u32;
using hivekit::test::u64;
using hivekit::test::u8;

std::vector<u8> sz(const std::u16string& s) {
  std::vector<u8> out = HiveBuilder::utf16le(s);
  out.push_back(0);
  out.push_back(0);
  return out;
}

std::vector<u8> multiSz(const std::vector<std::u16string>& items) {
  std::vector<u8> out;
  for (const auto& s : items) {
    std::vector<u8> one = sz(s);
    out.insert(out.end(), one.begin(), one.end());
  }
  out.push_back(0);
  out.push_back(0);
  return out;
}

std::vector<u8> le(u64 v, int bytes) {
  std::vector<u8> out;
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<u8>(v >> (8 * i)));
  return out;
}

std::vector<u8> be32(u32 v) {
  return {u8(v >> 24), u8(v >> 16), u8(v >> 8), u8(v)};
}

std::vector<u8> pattern(size_t n) {
  std::vector<u8> out(n);
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<u8>((i * 7 + i / 251) & 0xff);
  return out;
}

std::vector<u8> makeSample() {
  HiveBuilder b(5);
  b.setFileName(u"\\??\\C:\\hivekit\\sample.hiv");
  const u32 root = b.root(u"ROOT");

  const u32 software = b.key(root, u"Software");
  const u32 vendor = b.key(software, u"Hivekit");
  const u32 settings = b.key(vendor, u"Settings");
  b.value(settings, u"", 1, sz(u"default value"));
  b.value(settings, u"Name", 1, sz(u"hivekit sample"));
  b.value(settings, u"Path", 2, sz(u"%SystemRoot%\\system32"));
  b.value(settings, u"Count", 4, le(42, 4));
  b.value(settings, u"Network Order", 5, be32(0x01020304));
  b.value(settings, u"Flags", 3, {0xde, 0xad});
  b.value(settings, u"Blob", 3, pattern(300));
  b.value(settings, u"Large", 3, pattern(20000));
  b.value(settings, u"Servers", 7, multiSz({u"alpha", u"beta", u"gamma"}));
  b.value(settings, u"Total", 11, le(0x0123456789abcdefull, 8));
  b.value(settings, u"Empty", 1, {});

  const u32 names = b.key(vendor, u"Names");
  b.key(names, u"Caf\u00e9");                            // 8-bit name, byte 0xE9
  const u32 wide = b.key(names, u"\u65e5\u672c\u8a9e");  // UTF-16 name
  b.value(wide, u"\u00c4rger", 1, sz(u"8-bit value name"));
  b.value(wide, u"\u03a9mega", 4, le(1, 4));  // UTF-16 value name
  b.key(names, u"zebra");
  b.key(names, u"Apple");

  const u32 system = b.key(root, u"System");
  const u32 control = b.key(b.key(system, u"CurrentControlSet"), u"Control");
  b.value(control, u"Version", 4, le(10, 4));
  b.key(root, u"Empty");
  return b.build();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make-sample-hive OUT\n");
    return 2;
  }
  try {
    const std::vector<u8> image = makeSample();
    std::ofstream out(argv[1], std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    out.close();
    if (!out) {
      std::fprintf(stderr, "make-sample-hive: cannot write %s\n", argv[1]);
      return 1;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "make-sample-hive: %s\n", e.what());
    return 1;
  }
  return 0;
}
