// Fuzz target: search patterns and security descriptors, the analyst's
// parsers of bytes a user or a hive hands over.
//
// Input: one selector byte, then the bytes. Selector bit 0: the bytes are a
// security descriptor (parsed, and rendered in SDDL when it parses); else
// they are a pattern, up to the first zero byte, and a text after it
// (compiled with letter case ignored or not by bit 1, then searched).
//
// Beyond "no crash": a pattern matches its own text when it is a plain
// word (letters and digits only), and a search ends by a result or
// too_large, never by running on (the target's timeout).
#include <hivekit/hivekit.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint8_t selector = data[0];
  const std::span<const std::byte> bytes = std::as_bytes(std::span<const std::uint8_t>(data + 1, size - 1));
  if (selector & 1) {
    hivekit::Result<hivekit::ParsedSecurityDescriptor> sd = hivekit::parse_security_descriptor(bytes);
    if (sd) {
      (void)hivekit::to_sddl(*sd);
      if (sd->owner) (void)hivekit::sid_name(*sd->owner);
    }
    return 0;
  }
  const std::string_view all(reinterpret_cast<const char*>(data + 1), size - 1);
  const size_t zero = all.find('\0');
  const std::string_view pattern = all.substr(0, zero);
  const std::string_view text = zero == std::string_view::npos ? std::string_view() : all.substr(zero + 1);
  hivekit::Result<hivekit::Pattern> p = hivekit::Pattern::compile(pattern, selector & 2);
  if (!p) return 0;
  (void)p->search(text);
  bool word = !pattern.empty();
  for (char c : pattern) word = word && std::isalnum(static_cast<unsigned char>(c));
  if (word) {
    hivekit::Result<bool> self = p->search(pattern);
    if (!self || !*self) __builtin_trap();
  }
  return 0;
}
