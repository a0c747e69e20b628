// Shared helpers of the registry text file tests: text in and out of
// UTF-16, and a diagnostics sink that keeps what it is told.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "hive/hive_file.h"
#include "hive/regfile/reg_file_util.h"
#include "hive/util/util.h"
#include "platform/memory_stripe.h"
#include "platform/string.h"
#include "tests/support/hives.h"

namespace hivekit::test {

namespace Hive = Libraries::Files::Hive;
using Hive::RegFileUtil;
using Interfaces::Config::Hive::Key;
using Interfaces::Config::Hive::Value;
using Platform::MemoryStripe;
using Platform::Ref;
using Platform::String;

// UTF-8 text as UTF-16LE bytes, with a byte order mark when asked.
inline std::vector<u8> utf16(std::string_view utf8, bool bom = true) {
  std::vector<u8> out;
  if (bom) out = {0xFF, 0xFE};
  for (char16_t c : Platform::utf8ToUtf16(utf8)) {
    out.push_back(static_cast<u8>(c));
    out.push_back(static_cast<u8>(c >> 8));
  }
  return out;
}

// UTF-16LE bytes (a leading byte order mark dropped) as UTF-8 text.
inline std::string text(const std::vector<u8>& bytes) {
  size_t i = bytes.size() >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE ? 2 : 0;
  std::u16string units;
  for (; i + 1 < bytes.size(); i += 2) units.push_back(static_cast<char16_t>(bytes[i] | bytes[i + 1] << 8));
  return Platform::utf16ToUtf8(units);
}

struct Diagnostics {
  std::vector<std::string> lines;
  Hive::RegFileDiagnostics sink() {
    return [this](const std::string& line) { lines.push_back(line); };
  }
  std::string all() const {
    std::string s;
    for (const std::string& l : lines) s += l + "\n";
    return s;
  }
  bool contains(std::string_view s) const { return all().find(s) != std::string::npos; }
};

// The export of `key`; a failure fails the test unless `ok` takes it.
inline std::vector<u8> exportKey(const Ref<Key>& key, const char* path, Diagnostics* diagnostics = nullptr,
                                 bool* ok = nullptr) {
  Ref<MemoryStripe> out = MemoryStripe::create();
  Diagnostics own;
  Diagnostics& d = diagnostics ? *diagnostics : own;
  bool result = RegFileUtil::exportRegFile(key, out, str(path), 0, d.sink());
  if (ok) *ok = result;
  if (!ok) {
    EXPECT_TRUE(result) << d.all();
  }
  return out->bytes();
}

inline bool importText(const Ref<Hive::HiveFile>& hive, std::vector<u8> bytes, const char* prefix,
                       Diagnostics* diagnostics = nullptr) {
  return RegFileUtil::importRegFile(hive, Ref<Interfaces::Stripe>(MemoryStripe::create(std::move(bytes))),
                                    str(prefix), diagnostics ? diagnostics->sink() : nullptr);
}

}  // namespace hivekit::test
