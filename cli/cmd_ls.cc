// hivekit ls: the subkeys and values of one key.
#include <hivekit/hivekit.h>

#include <algorithm>
#include <cstdio>

#include "commands.h"
#include "open_hive.h"
#include "text.h"
#include "walk.h"

namespace hivekit::cli {
namespace {

constexpr size_t PREVIEW_CHARS = 60;

std::string displayName(const std::string& name, bool isValue) {
  if (isValue && name.empty()) return "(default)";
  std::string s;
  appendEscaped(s, name, Escape::printable);
  return s;
}

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

std::string hexPreview(const Bytes& data) {
  std::string s;
  size_t n = std::min<size_t>(data.size(), 16);
  for (size_t i = 0; i < n; ++i) {
    if (i) s += ' ';
    appendHexBytes(s, data.data() + i, 1);
  }
  if (data.size() > n) s += " ...";
  return s;
}

std::string number(uint64_t n) {
  char b[64];
  std::snprintf(b, sizeof(b), "%llu (0x%llx)", static_cast<unsigned long long>(n),
                static_cast<unsigned long long>(n));
  return b;
}

std::string preview(const Value& v, ValueType type, const Bytes& data) {
  switch (type) {
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

int runLs(Context& ctx) {
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  Key key;
  if (!findKey(hive, ctx.operandCount() > 1 ? ctx.operand(1) : "", key)) return EXIT_FAILED;

  std::vector<Key> keys;
  Subkeys subkeys = key.subkeys();
  for (const Key& k : subkeys) keys.push_back(k);
  const uint64_t badKeys = subkeys.status().ok() ? subkeys.skipped() : key.subkey_count();
  std::vector<Value> values;
  Values valueList = key.values();
  for (const Value& v : valueList) values.push_back(v);
  const uint64_t badValues = valueList.status().ok() ? valueList.skipped() : key.value_count();

  std::string out;
  std::vector<std::string> names;
  size_t width = 0;
  for (const Key& k : keys) {
    names.push_back(displayName(k.name(), false));
    width = std::max(width, names.back().size());
  }
  width = std::min<size_t>(width, 40);
  out += "Keys (" + std::to_string(keys.size()) + "):\n";
  for (size_t i = 0; i < keys.size(); ++i) {
    std::string name = names[i];
    // A long name gets a line of its own, so the columns stay aligned.
    if (name.size() > width) {
      out += "  " + name + "\n";
      name.clear();
    }
    char b[160];
    std::snprintf(b, sizeof(b), "  %-*s  %s  %6u subkeys  %6u values\n", static_cast<int>(width),
                  name.c_str(), fileTimeToIso(keys[i].last_write()).c_str(), keys[i].subkey_count(),
                  keys[i].value_count());
    out += b;
  }

  names.clear();
  width = 0;
  for (const Value& v : values) {
    names.push_back(displayName(v.name(), true));
    width = std::max(width, names.back().size());
  }
  width = std::min<size_t>(width, 40);
  out += "Values (" + std::to_string(values.size()) + "):\n";
  size_t typeWidth = 0;
  for (const Value& v : values) typeWidth = std::max(typeWidth, typeName(v.type()).size());
  // A value list may name one large value thousands of times.
  WalkBudget budget(hive, ctx.operand(0));
  size_t shown = 0;
  for (size_t i = 0; i < values.size(); ++i, ++shown) {
    const Value& v = values[i];
    const ValueType type = v.type();
    Result<Bytes> data = v.data();
    if (!budget.charge(1, data->size())) break;
    std::string name = names[i];
    if (name.size() > width) {
      out += "  " + name + "\n";
      name.clear();
    }
    char b[160];
    std::snprintf(b, sizeof(b), "  %-*s  %-*s %8zu  ", static_cast<int>(width), name.c_str(),
                  static_cast<int>(typeWidth), typeName(type).c_str(), data->size());
    out += b;
    out += data.ok() ? preview(v, type, *data) : "(data unreadable)";
    out += '\n';
  }
  if (const int status = print(out)) return status;
  if (shown < values.size()) {
    warn("the value list names more data than a hive of its size can hold; " +
         std::to_string(values.size() - shown) + " values not shown");
    return fail("the key's value list is damaged");
  }
  if (badKeys || badValues) {
    warn(std::to_string(badKeys) + " subkeys and " + std::to_string(badValues) + " values could not be read");
    const Status& why = subkeys.status().ok() ? valueList.status() : subkeys.status();
    return fail("the key's lists are damaged: " +
                (why.ok() ? std::string("they name records that cannot be read") : why.message()));
  }
  return EXIT_OK;
}

}  // namespace

const Command LS_COMMAND = {
    "ls",
    "ls [options] HIVE [KEYPATH]",
    "list the subkeys and values of a key",
    "Lists the subkeys of KEYPATH (the root key when omitted), in the order of its\n"
    "subkey list: name, last write time (UTC), numbers of subkeys and values; then\n"
    "its values in the order of its value list: name ((default) for the unnamed\n"
    "value), type, data size in bytes, and a short preview of the data.\n"
    "Control characters and unpaired surrogates in names are shown as %XXXX.\n",
    {},
    1,
    2,
    false,
    runLs,
};

}  // namespace hivekit::cli
