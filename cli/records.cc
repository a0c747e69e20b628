#include "records.h"

#include <algorithm>
#include <cstdio>

#include "text.h"

namespace hivekit::cli {

std::string rawPath(const std::vector<std::string>& names) {
  std::string path;
  for (const std::string& n : names) path += "\\" + n;
  return path.empty() ? "\\" : path;
}

std::string childPath(const std::string& parent, const std::string& name) {
  return (parent == "\\" ? parent : parent + "\\") + name;
}

void keyMembers(JsonWriter& j, const Key& key, std::string_view path) {
  const FileTime t = key.last_write();
  j.key("path").string(path);
  j.key("name").string(key.name());
  j.key("last_write").string(to_iso8601(t));
  j.key("last_write_filetime").number(t);
  j.key("class_name").string(key.class_name());
  j.key("subkeys").number(key.subkey_count());
  j.key("values").number(key.value_count());
  j.key("offset").number(key.offset());
}

namespace {

// The data by its type: REG_SZ, REG_EXPAND_SZ and REG_LINK as a string,
// REG_MULTI_SZ as a list of strings (empty ones included), the dword types
// and REG_QWORD as a number; null for other types and for data that does
// not read as its type.
void valueData(JsonWriter& j, const Value& v, ValueType type) {
  switch (type) {
    case ValueType::sz:
    case ValueType::expand_sz:
      if (Result<std::string> s = v.string()) {
        j.string(*s);
        return;
      }
      break;
    case ValueType::link:
      if (Result<std::string> s = v.link()) {
        j.string(*s);
        return;
      }
      break;
    case ValueType::multi_sz:
      if (Result<std::vector<std::string>> list = v.multi_string()) {
        j.beginArray();
        for (const std::string& s : *list) j.string(s);
        j.endArray();
        return;
      }
      break;
    case ValueType::dword:
    case ValueType::dword_big_endian:
      if (Result<uint32_t> n = v.dword()) {
        j.number(*n);
        return;
      }
      break;
    case ValueType::qword:
      if (Result<uint64_t> n = v.qword()) {
        j.number(*n);
        return;
      }
      break;
    default:
      break;
  }
  j.null();
}

}  // namespace

void valueMembers(JsonWriter& j, const Value& value, const Result<Bytes>& data) {
  const ValueType type = value.type();
  j.key("name").string(value.name());
  j.key("type").number(static_cast<uint32_t>(type));
  j.key("type_name");
  if (type_name(type).empty())
    j.null();
  else
    j.string(type_name(type));
  j.key("size").number(value.size());
  j.key("data");
  if (data.ok())
    valueData(j, value, type);
  else
    j.null();
  j.key("raw").hex(data->data(), data->size());
  if (!data.ok()) j.key("error").string(data.status().message());
}

void valueObject(JsonWriter& j, const Value& value, const Result<Bytes>& data) {
  j.beginObject();
  valueMembers(j, value, data);
  j.endObject();
}

namespace {

constexpr size_t PREVIEW_CHARS = 60;

// Cuts UTF-8 text after `chars` code points, marking the cut.
std::string shorten(const std::string& s, size_t chars) {
  size_t i = 0, n = 0;
  while (i < s.size() && n < chars) {
    ++i;
    while (i < s.size() && (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80) ++i;
    ++n;
  }
  return i < s.size() ? s.substr(0, i) + "..." : s;
}

std::string quoted(const std::string& text) {
  std::string s;
  // Line breaks and other controls would break the table.
  appendEscaped(s, text, Escape::printable);
  return "\"" + s + "\"";
}

// `more`: the data goes on past `data`.
std::string hexPreview(const Bytes& data, bool more = false) {
  std::string s;
  size_t n = std::min<size_t>(data.size(), 16);
  for (size_t i = 0; i < n; ++i) {
    if (i) s += ' ';
    appendHexBytes(s, data.data() + i, 1);
  }
  if (data.size() > n || more) s += " ...";
  return s;
}

std::string number(uint64_t n) {
  char b[64];
  std::snprintf(b, sizeof(b), "%llu (0x%llx)", static_cast<unsigned long long>(n),
                static_cast<unsigned long long>(n));
  return b;
}

}  // namespace

std::string preview(const Value& v, const Bytes& data) {
  if (data.size() < v.size()) return hexPreview(data, true);
  switch (v.type()) {
    case ValueType::sz:
    case ValueType::expand_sz:
      if (Result<std::string> s = v.string()) return shorten(quoted(*s), PREVIEW_CHARS);
      break;
    case ValueType::multi_sz:
      if (Result<std::vector<std::string>> list = v.multi_string()) {
        std::string s;
        for (size_t i = 0; i < list->size(); ++i) {
          if (i) s += ", ";
          s += quoted((*list)[i]);
          if (s.size() > 4 * PREVIEW_CHARS) break;
        }
        return shorten(s.empty() ? "(empty list)" : s, PREVIEW_CHARS);
      }
      break;
    case ValueType::dword:
    case ValueType::dword_big_endian:
      if (Result<uint32_t> n = v.dword()) return number(*n);
      break;
    case ValueType::qword:
      if (Result<uint64_t> n = v.qword()) return number(*n);
      break;
    default:
      break;
  }
  return hexPreview(data);
}

bool writeKeyLine(TreeWalk& walk, const TreeWalk::Visit& v, std::string& out) {
  JsonWriter j(out);
  j.beginObject();
  keyMembers(j, v.key, v.path);
  j.key("values").beginArray();
  for (const Value& value : v.values) {
    const Result<Bytes> data = value.data();
    if (!walk.chargeData(data->size())) return false;
    valueObject(j, value, data);
  }
  j.endArray().endObject();
  out += '\n';
  return true;
}

}  // namespace hivekit::cli
