// Finding keys and values by name, data, type and last write time.
//
//   auto pattern = hivekit::Pattern::compile("^Run(Once)?$");
//   hivekit::SearchCriteria criteria;
//   criteria.key_name = *pattern;
//   if (criteria.key_matches(key)) ...
//
// Patterns are regular expressions in the ECMAScript syntax, without the
// parts that need backtracking, matched by a machine that runs in time
// linear in the text (a pathological pattern cannot make it run away):
//   literals; "." (any character but a line break); [abc], [^abc], [a-z]
//   with escapes inside; \d \D \w \W \s \S; \t \n \r \f \v \0 \xHH \uHHHH,
//   and "\" before any other punctuation for itself; ^ and $ (the start
//   and end of the text); \b \B; (...) and (?:...); |; the quantifiers
//   * + ? {n} {n,} {n,m} and their lazy forms (the same matches here).
// Not supported (compile fails with invalid_argument): back-references,
// lookaround, named groups, flags. A pattern matches when it matches
// anywhere in the text (anchor it with ^ and $ for the whole text). Text is
// matched by Unicode character; letter case is ignored, when asked, the way
// Windows compares key names (each character upper-cased through the
// registry's table).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hivekit/export.h"
#include "hivekit/key.h"
#include "hivekit/status.h"
#include "hivekit/types.h"
#include "hivekit/value.h"

namespace hivekit {

namespace detail {
struct PatternProgram;
}

class HIVEKIT_EXPORT Pattern {
 public:
  // Compiles `expression` (UTF-8, at most 4096 bytes). Fails with
  // invalid_argument naming the place of a syntax error or an unsupported
  // construct, and with too_large for a pattern whose repetitions expand
  // beyond what the matcher takes.
  static Result<Pattern> compile(std::string_view expression, bool ignore_case = true);

  // A pattern that matches every text.
  Pattern();

  // Whether the pattern matches somewhere in `text` (UTF-8; invalid bytes
  // count as U+FFFD, WTF-8 surrogates as themselves). Fails with too_large
  // when the text would make it do more work than a fixed bound (about
  // 2^22 steps plus 32 a character), which only patterns with many
  // alternatives alive at once on long texts reach.
  Result<bool> search(std::string_view text) const;

  const std::string& expression() const noexcept;

 private:
  std::shared_ptr<const detail::PatternProgram> program_;
};

// What a search looks for. A key matches when its name matches key_name
// and its last write time lies within [since, until]. A value matches
// when its key matches and its name, type and data match the value
// criteria; without value criteria a search finds keys.
struct SearchCriteria {
  std::optional<Pattern> key_name;
  std::optional<Pattern> value_name;
  // Matched against the data as text: REG_SZ, REG_EXPAND_SZ and REG_LINK
  // as their string, REG_MULTI_SZ string by string, REG_DWORD,
  // REG_DWORD_BIG_ENDIAN and REG_QWORD as the number in decimal and as
  // "0x" and lowercase hex (either may match), anything else (or data that
  // does not read as its type) as the lowercase hex of its bytes without
  // separators. Only the first MAX_DATA_BYTES bytes of data are looked at.
  std::optional<Pattern> data;
  std::vector<ValueType> types;  // any of these; empty for any type
  std::optional<FileTime> since, until;

  static constexpr std::uint32_t MAX_DATA_BYTES = 1u << 20;

  bool has_value_criteria() const noexcept { return value_name || data || !types.empty(); }
  // The key's name and last write time against key_name, since and until.
  HIVEKIT_EXPORT Result<bool> key_matches(const Key& key) const;
  // The value's name, type and data against the value criteria (its key is
  // not looked at). Fails with corrupt when the data cannot be read, and
  // too_large as Pattern::search does.
  HIVEKIT_EXPORT Result<bool> value_matches(const Value& value) const;
};

}  // namespace hivekit
