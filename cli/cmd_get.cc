// hivekit get: one value, shown by its type.
#include <hivekit/hivekit.h>

#include <cstdio>

#include "commands.h"
#include "open_hive.h"
#include "records.h"
#include "text.h"

namespace hivekit::cli {
namespace {

std::string number(uint64_t n) {
  char b[64];
  std::snprintf(b, sizeof(b), "%llu (0x%llx)\n", static_cast<unsigned long long>(n),
                static_cast<unsigned long long>(n));
  return b;
}

// The typed form of the value, or why there is none: wrong_type for a type
// without one, the library's reason when the data does not fit its type.
Result<std::string> typed(const Value& v, ValueType type) {
  std::string out;
  switch (type) {
    case ValueType::sz:
    case ValueType::expand_sz: {
      Result<std::string> s = v.string();
      if (!s) return s.status();
      appendEscaped(out, *s, Escape::text);
      return out + '\n';
    }
    case ValueType::multi_sz: {
      Result<std::vector<std::string>> list = v.multi_string();
      if (!list) return list.status();
      for (const std::string& s : *list) {
        appendEscaped(out, s, Escape::text);
        out += '\n';
      }
      return out;
    }
    case ValueType::dword:
    case ValueType::dword_big_endian: {
      Result<uint32_t> n = v.dword();
      if (!n) return n.status();
      return number(*n);
    }
    case ValueType::qword: {
      Result<uint64_t> n = v.qword();
      if (!n) return n.status();
      return number(*n);
    }
    default:
      return Status(Code::wrong_type, "no typed form");
  }
}

// The value's bytes, as they are or as a hex dump, read and written a piece
// at a time: a value of hundreds of megabytes is never held whole (nor its
// dump, four times its size).
int writeData(const Value& v, bool dump) {
  static constexpr uint32_t PIECE = 16u << 20;  // a multiple of a dump line
  Output o;
  for (uint32_t at = 0;;) {
    Result<Bytes> piece = v.read(at, PIECE);
    if (!piece) {
      o.flush();
      return fail("cannot read the data of the value", piece.status());
    }
    if (piece->size() == 0) break;
    if (dump)
      o.put(hexDump(piece->data(), piece->size(), at));
    else
      o.put(std::string_view(reinterpret_cast<const char*>(piece->data()), piece->size()));
    if (!o.flush()) return o.reportFailure();
    at += static_cast<uint32_t>(piece->size());
    if (piece->size() < PIECE) break;
  }
  return EXIT_OK;
}

int runGet(Context& ctx) {
  const bool json = ctx.args.has("--json"), raw = ctx.args.has("--raw"), cls = ctx.args.has("--class");
  if (raw && (json || cls)) return usageError(ctx.command, "--raw goes alone");
  if (cls && ctx.operandCount() > 2)
    return usageError(ctx.command, "--class shows a key's class name: no VALUE");
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  Key key;
  std::vector<std::string> names;
  if (!findKey(hive, ctx.operand(1), key, names)) return EXIT_FAILED;
  if (cls) {
    const std::string name = key.class_name();
    if (!json) {
      std::string text;
      appendEscaped(text, name, Escape::text);
      return print(text + "\n");
    }
    std::string out;
    JsonWriter j(out);
    j.beginObject().key("path").string(rawPath(names)).key("class_name").string(name).endObject();
    return print(out + "\n");
  }
  const std::string name = ctx.operandCount() > 2 ? ctx.operand(2) : "";
  Result<Value> v = key.value(name);
  if (!v) {
    if (v.status().code() == Code::value_not_found && name.empty())
      return fail("value not found: the key has no default value");
    return fail(v.status());
  }
  const ValueType type = v->type();
  if (raw) return writeData(*v, false);
  if (json) {
    Result<Bytes> data = v->data();
    if (!data) return fail("cannot read the data of the value", data.status());
    std::string out;
    JsonWriter j(out);
    j.beginObject().key("path").string(rawPath(names));
    valueMembers(j, *v, data);
    j.endObject();
    return print(out + "\n");
  }
  Result<std::string> text = typed(*v, type);
  if (!text && text.status().code() == Code::corrupt)
    return fail("cannot read the data of the value", text.status());
  if (!text) {
    if (type == ValueType::sz || type == ValueType::expand_sz || type == ValueType::multi_sz ||
        type == ValueType::dword || type == ValueType::dword_big_endian || type == ValueType::qword)
      warn("the data does not read as " + typeName(type) + " (" + text.status().message() +
           "); showing its bytes");
    return writeData(*v, true);
  }
  return print(*text);
}

}  // namespace

const Command GET_COMMAND = {"get",
                             "get [options] HIVE KEYPATH [VALUE] [--json | --raw | --class]",
                             "show one value",
                             "Shows the value VALUE of KEYPATH (the default value when VALUE is omitted or\n"
                             "\"\"): REG_SZ and REG_EXPAND_SZ as text, REG_MULTI_SZ one string per line,\n"
                             "REG_DWORD, REG_DWORD_BIG_ENDIAN and REG_QWORD in decimal and hex, anything\n"
                             "else (or data that does not fit its type) as a hex dump: offset, 16 bytes,\n"
                             "and the printable ASCII characters.\n"
                             "  --raw    write the value's bytes to standard output exactly as stored\n"
                             "  --json   the value as a JSON object (with its key's \"path\")\n"
                             "  --class  show the class name of KEYPATH instead (no VALUE); with --json as\n"
                             "           {\"path\", \"class_name\"}\n",
                             "--json --raw --class",
                             {2, 3},
                             Access::read,
                             runGet};

}  // namespace hivekit::cli
