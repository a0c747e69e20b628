// JSON text for the --json forms of the commands.
//
// Strings from the library are UTF-8, except that an unpaired surrogate of
// a UTF-16 name travels in its three-byte form (WTF-8): JSON carries it
// losslessly as a \uXXXX escape, which JSON parsers accept and return as
// the same unit. Control characters, '"' and '\' are escaped; any byte that
// is not part of valid UTF-8 (none come from the library) becomes U+FFFD.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace hivekit::cli {

void appendJsonString(std::string& out, std::string_view text);

// Writes one JSON value into a string, compact (no blanks), inserting the
// commas between members and elements itself.
//
//   JsonWriter j(out);
//   j.beginObject().key("name").string("x").key("n").number(1).endObject();
class JsonWriter {
 public:
  explicit JsonWriter(std::string& out) : _out(out) {}

  JsonWriter& beginObject() { return open('{'); }
  JsonWriter& endObject() { return close('}'); }
  JsonWriter& beginArray() { return open('['); }
  JsonWriter& endArray() { return close(']'); }
  // The name of the next member of an object; a value must follow.
  JsonWriter& key(std::string_view name);
  JsonWriter& string(std::string_view text);
  JsonWriter& number(std::uint64_t n);
  JsonWriter& boolean(bool b);
  JsonWriter& null();
  // Lowercase hex digits of the bytes, as a string.
  JsonWriter& hex(const std::byte* data, size_t length);

 private:
  JsonWriter& open(char c);
  JsonWriter& close(char c);
  void separate();

  std::string& _out;
  std::vector<bool> _empty;  // per open container: nothing in it yet
  bool _afterKey = false;
};

}  // namespace hivekit::cli
