// RegTextWriter: registry text piece by piece, value lines by the
// exporter's own function.
#include <algorithm>
#include <cstring>

#include "api/core.h"
#include "hive/regfile/reg_value_text.h"

namespace hivekit {

using namespace detail;

void RegTextWriter::put(std::u16string_view units) {
  const size_t at = text_.size();
  text_.resize(at + 2 * units.size());
  for (size_t i = 0; i < units.size(); ++i) {
    text_[at + 2 * i] = static_cast<char>(units[i] & 0xFF);
    text_[at + 2 * i + 1] = static_cast<char>(units[i] >> 8);
  }
}

void RegTextWriter::endSection() {
  if (open_) put(u"\r\n");
  open_ = false;
}

void RegTextWriter::header() {
  put(u"\xFEFF" u"Windows Registry Editor Version 5.00\r\n\r\n");
}

void RegTextWriter::key(std::string_view path) {
  endSection();
  put(u"[");
  put(toUtf16(path));
  put(u"]\r\n");
  open_ = true;
}

void RegTextWriter::deleted_key(std::string_view path) {
  endSection();
  put(u"[-");
  put(toUtf16(path));
  put(u"]\r\n\r\n");
}

void RegTextWriter::value(std::string_view name, ValueType type, std::span<const std::byte> data,
                          bool binary_only) {
  Libraries::Files::Hive::writeRegValue(
      toUtf16(name), static_cast<u32>(type), data.size(),
      [&](u64 offset, u8* out, u64 count) {
        if (offset >= data.size()) return u64{0};
        const u64 n = std::min<u64>(count, data.size() - offset);
        std::memcpy(out, data.data() + offset, n);
        return n;
      },
      binary_only, [&](std::u16string_view units) { put(units); });
  put(u"\r\n");
}

void RegTextWriter::deleted_value(std::string_view name) {
  std::u16string line;
  Libraries::Files::Hive::appendRegValueName(line, toUtf16(name),
                                             Libraries::Files::Hive::RegTextStyle::escaped);
  line += u"=-\r\n";
  put(line);
}

void RegTextWriter::finish() {
  endSection();
}

}  // namespace hivekit
