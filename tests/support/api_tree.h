// A hive's tree as the public API reads it: a line per key (its path and
// last write time) and per value (name, type, size and a hash of the
// data). What tests compare before and after a change, or between readers.
#pragma once

#include <hivekit/hivekit.h>

#include <cstdint>
#include <string>

namespace hivekit::test {

inline void apiTree(const hivekit::Key& key, const std::string& path, std::string& out) {
  out += path + " @" + std::to_string(key.last_write()) + "\n";
  for (const hivekit::Value& v : key.values()) {
    out += path + ":" + v.name() + " " + std::to_string(static_cast<int>(v.type())) + " ";
    hivekit::Result<hivekit::Bytes> data = v.data();
    if (!data) {
      out += "<" + data.status().message() + ">\n";
      continue;
    }
    std::uint64_t hash = 14695981039346656037ull;  // FNV-1a
    for (std::byte b : *data) hash = (hash ^ std::to_integer<std::uint64_t>(b)) * 1099511628211ull;
    out += std::to_string(data->size()) + " " + std::to_string(hash) + "\n";
  }
  for (const hivekit::Key& sub : key.subkeys()) apiTree(sub, path + "\\" + sub.name(), out);
}

inline std::string apiTree(const hivekit::Key& root) {
  std::string out;
  apiTree(root, "", out);
  return out;
}
inline std::string apiTree(const hivekit::Hive& hive) {
  return apiTree(hive.root());
}

}  // namespace hivekit::test
