// hivekit get: one value, shown by its type.
#include <cstdio>

#include "cli/commands.h"
#include "cli/open_hive.h"
#include "cli/text.h"
#include "cli/walk.h"

namespace hivekit::cli {
namespace {

using namespace Interfaces::Config::Hive;

constexpr u32 MAX_STRING_UNITS = 1u << 24;

// The typed form of the value; false when its data does not fit its type.
bool typed(const ValueRef& v, u32 type, size_t size, std::string& out) {
  switch (type) {
    case ValueTypes::String:
    case ValueTypes::ExpandString: {
      Ref<String> s = v->string(MAX_STRING_UNITS);
      if (!s) return false;
      appendUtf8(out, s->units());
      out += '\n';
      return true;
    }
    case ValueTypes::MultiString: {
      auto list = v->strings(MAX_STRING_UNITS);
      if (!list) return false;
      for (const Ref<String>& s : list->items()) {
        appendUtf8(out, s->units());
        out += '\n';
      }
      return true;
    }
    case ValueTypes::Dword:
    case ValueTypes::DwordBigEndian:
    case ValueTypes::Qword: {
      u64 n = v->number();
      if (n == ~0ull && size != (type == ValueTypes::Qword ? 8u : 4u)) return false;
      char b[64];
      std::snprintf(b, sizeof(b), "%llu (0x%llx)\n", static_cast<unsigned long long>(n),
                    static_cast<unsigned long long>(n));
      out += b;
      return true;
    }
    default:
      return false;
  }
}

bool hasTypedForm(u32 type) {
  return type == ValueTypes::String || type == ValueTypes::ExpandString || type == ValueTypes::MultiString ||
         type == ValueTypes::Dword || type == ValueTypes::DwordBigEndian || type == ValueTypes::Qword;
}

int runGet(Context& ctx) {
  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  ctx.beginOperation();
  KeyRef root = h.file->root();
  if (!root) return fail(ctx, "cannot read the root key");
  KeyRef key = openKeyPath(ctx, root, ctx.operand(1));
  if (!key) return EXIT_FAILED;
  std::string name = ctx.operandCount() > 2 ? ctx.operand(2) : "";
  ctx.beginOperation();
  ValueRef v = key->value(String::create(name));
  if (!v) return fail(ctx, name.empty() ? "the key has no default value" : "value not found: " + name);

  u32 type = v->type();
  std::vector<u8> data;
  if (!readValueData(v, data)) return fail(ctx, "cannot read the data of the value");
  std::string out;
  if (!typed(v, type, data.size(), out)) {
    if (hasTypedForm(type)) warn("the data does not read as " + typeName(type) + "; showing its bytes");
    out = hexDump(data.data(), data.size());
  }
  Output o;
  o.put(out);
  return o.flush() ? EXIT_OK : failWithCode(ctx, "cannot write to standard output", 0);
}

}  // namespace

const Command GET_COMMAND = {
    "get",
    "get [options] HIVE KEYPATH [VALUE]",
    "show one value",
    "Shows the value VALUE of KEYPATH (the default value when VALUE is omitted or\n"
    "\"\"): REG_SZ and REG_EXPAND_SZ as text, REG_MULTI_SZ one string per line,\n"
    "REG_DWORD, REG_DWORD_BIG_ENDIAN and REG_QWORD in decimal and hex, anything\n"
    "else (or data that does not fit its type) as a hex dump: offset, 16 bytes,\n"
    "and the printable ASCII characters.\n",
    {},
    2,
    3,
    false,
    runGet,
};

}  // namespace hivekit::cli
