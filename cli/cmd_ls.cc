// hivekit ls: the subkeys and values of one key.
#include <algorithm>

#include "cli/commands.h"
#include "cli/open_hive.h"
#include "cli/text.h"
#include "cli/walk.h"
#include "hive/util/util.h"

namespace hivekit::cli {
namespace {

using namespace Interfaces::Config::Hive;

constexpr size_t PREVIEW_CHARS = 60;

std::string displayName(const Ref<String>& name, bool isValue) {
  if (isValue && (!name || name->isEmpty())) return "(default)";
  std::string s;
  if (name) appendPrintable(s, name->units());
  return s;
}

// Cuts UTF-8 text after `chars` code points, marking the cut.
std::string shorten(const std::string& s, size_t chars) {
  size_t i = 0, n = 0;
  while (i < s.size() && n < chars) {
    ++i;
    while (i < s.size() && (static_cast<u8>(s[i]) & 0xC0) == 0x80) ++i;
    ++n;
  }
  return i < s.size() ? s.substr(0, i) + "..." : s;
}

std::string quoted(const Ref<String>& text) {
  std::string s;
  // Line breaks and other controls would break the table.
  appendPrintable(s, text->units());
  return "\"" + s + "\"";
}

std::string hexPreview(const std::vector<u8>& data) {
  std::string s;
  size_t n = std::min<size_t>(data.size(), 16);
  for (size_t i = 0; i < n; ++i) {
    if (i) s += ' ';
    appendHexBytes(s, &data[i], 1);
  }
  if (data.size() > n) s += " ...";
  return s;
}

std::string preview(const ValueRef& v, u32 type, const std::vector<u8>& data) {
  switch (type) {
    case ValueTypes::String:
    case ValueTypes::ExpandString:
      if (Ref<String> s = v->string(1u << 24)) return shorten(quoted(s), PREVIEW_CHARS);
      break;
    case ValueTypes::MultiString:
      if (auto list = v->strings(1u << 24)) {
        std::string s;
        for (size_t i = 0; i < list->size(); ++i) {
          if (i) s += ", ";
          s += quoted((*list)[i]);
          if (s.size() > 4 * PREVIEW_CHARS) break;
        }
        return shorten(s.empty() ? "(empty list)" : s, PREVIEW_CHARS);
      }
      break;
    case ValueTypes::Dword:
    case ValueTypes::DwordBigEndian:
    case ValueTypes::Qword: {
      u64 n = v->number();
      bool sizeFits = data.size() == (type == ValueTypes::Qword ? 8u : 4u);
      if (n != ~0ull || sizeFits) {
        char b[64];
        std::snprintf(b, sizeof(b), "%llu (0x%llx)", static_cast<unsigned long long>(n),
                      static_cast<unsigned long long>(n));
        return b;
      }
      break;
    }
    default:
      break;
  }
  return hexPreview(data);
}

int runLs(Context& ctx) {
  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  ctx.beginOperation();
  KeyRef root = h.file->root();
  if (!root) return fail(ctx, "cannot read the root key");
  KeyRef key = openKeyPath(ctx, root, ctx.operandCount() > 1 ? ctx.operand(1) : "");
  if (!key) return EXIT_FAILED;

  ctx.beginOperation();
  std::vector<KeyRef> keys;
  std::vector<ValueRef> values;
  size_t badKeys = 0, badValues = 0;
  listSubkeys(key, keys, badKeys);
  listValues(key, values, badValues);

  std::string out;
  std::vector<std::string> names;
  size_t width = 0;
  for (const KeyRef& k : keys) {
    names.push_back(displayName(k->name(), false));
    width = std::max(width, names.back().size());
  }
  width = std::min<size_t>(width, 40);
  out += "Keys (" + std::to_string(keys.size()) + "):\n";
  for (size_t i = 0; i < keys.size(); ++i) {
    auto ki = keys[i]->keyIterator();
    auto vi = keys[i]->valueIterator();
    std::string name = names[i];
    // A long name gets a line of its own, so the columns stay aligned.
    if (name.size() > width) {
      out += "  " + name + "\n";
      name.clear();
    }
    char b[160];
    std::snprintf(b, sizeof(b), "  %-*s  %s  %6u subkeys  %6u values\n", static_cast<int>(width),
                  name.c_str(), fileTimeToIso(keys[i]->lastWriteTime()).c_str(), ki ? ki->count() : 0,
                  vi ? vi->count() : 0);
    out += b;
  }

  names.clear();
  width = 0;
  for (const ValueRef& v : values) {
    names.push_back(displayName(v->name(), true));
    width = std::max(width, names.back().size());
  }
  width = std::min<size_t>(width, 40);
  out += "Values (" + std::to_string(values.size()) + "):\n";
  size_t typeWidth = 0;
  for (const ValueRef& v : values) typeWidth = std::max(typeWidth, typeName(v->type()).size());
  std::vector<u8> data;
  // A value list may name one large value thousands of times.
  Libraries::Files::Hive::Util::WalkBudget budget;
  budget.limitBy(*h.hive);
  size_t shown = 0;
  for (size_t i = 0; i < values.size(); ++i, ++shown) {
    const ValueRef& v = values[i];
    u32 type = v->type();
    bool complete = readValueData(v, data);
    if (!budget.charge(1, data.size())) break;
    std::string name = names[i];
    if (name.size() > width) {
      out += "  " + name + "\n";
      name.clear();
    }
    char b[160];
    std::snprintf(b, sizeof(b), "  %-*s  %-*s %8zu  ", static_cast<int>(width), name.c_str(),
                  static_cast<int>(typeWidth), typeName(type).c_str(), data.size());
    out += b;
    out += complete ? preview(v, type, data) : "(data unreadable)";
    out += '\n';
  }
  Output o;
  o.put(out);
  if (!o.flush()) return failWithCode(ctx, "cannot write to standard output", 0);
  if (shown < values.size()) {
    warn("the value list names more data than a hive of its size can hold; " +
         std::to_string(values.size() - shown) + " values not shown");
    return fail(ctx, "the key's value list is damaged");
  }
  if (badKeys || badValues) {
    warn(std::to_string(badKeys) + " subkeys and " + std::to_string(badValues) + " values could not be read");
    return fail(ctx, "the key's lists are damaged");
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
    "Control characters, \\ and % in names are shown as %XXXX.\n",
    {},
    1,
    2,
    false,
    runLs,
};

}  // namespace hivekit::cli
