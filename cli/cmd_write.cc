// The commands that change hives: new, mkkey, set, rm, mv, import.
//
// Each opens the hive read-write, does its one change and flushes; a
// failed flush is a failed command.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "cli/commands.h"
#include "cli/open_hive.h"
#include "cli/text.h"
#include "hive/errors.h"
#include "hive/regfile/reg_file_util.h"
#include "hive/util/util.h"
#include "platform/error.h"
#include "platform/file_stripe.h"
#include "platform/memory_stripe.h"

namespace hivekit::cli {
namespace {

using namespace Interfaces::Config::Hive;
using Libraries::Files::Hive::RegFileUtil;
using Libraries::Files::Hive::Util;
namespace Errors = Libraries::Files::Hive::Errors;

int flushHive(Context& ctx, OpenedHive& h) {
  ctx.beginOperation();
  if (!h.file->flush()) return fail(ctx, "cannot write the changes to '" + ctx.operand(0) + "'");
  return EXIT_OK;
}

KeyRef rootOf(Context& ctx, OpenedHive& h) {
  ctx.beginOperation();
  KeyRef root = h.file->root();
  if (!root) fail(ctx, "cannot read the root key");
  return root;
}

// ---- new -------------------------------------------------------------------

int runNew(Context& ctx) {
  const std::string& path = ctx.operand(0);
  std::string minorText = ctx.args.value("--minor", "5");
  if (minorText != "3" && minorText != "5") return usageError(ctx.command, "--minor is 3 or 5");
  struct stat st;
  if (!ctx.args.has("--force") && ::stat(path.c_str(), &st) == 0)
    return failWithCode(ctx, "'" + path + "' exists already (--force replaces it)", Errors::INVALID_ARGUMENT);
  ctx.beginOperation();
  Ref<HiveFile> hive = HiveFile::create(String::create(path), minorText == "3" ? 3 : 5, ctx.common.codepage);
  if (!hive) return fail(ctx, "cannot create a hive in '" + path + "'");
  ctx.beginOperation();
  if (!hive->flush()) return fail(ctx, "cannot write '" + path + "'");
  return EXIT_OK;
}

// ---- mkkey -----------------------------------------------------------------

int runMkkey(Context& ctx) {
  std::vector<std::string> parts;
  if (!splitKeyPath(ctx.operand(1), parts) || parts.empty())
    return usageError(ctx.command, "KEYPATH must name a key below the root");
  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  KeyRef root = rootOf(ctx, h);
  if (!root) return EXIT_FAILED;
  ctx.beginOperation();
  KeyRef key = Util::openOrCreatePath(root, Util::regPathFromWindowsStyle(String::create(ctx.operand(1))));
  if (!key) return fail(ctx, "cannot create key " + ctx.operand(1));
  return flushHive(ctx, h);
}

// ---- set -------------------------------------------------------------------

bool parseUnsigned(const std::string& text, u64 max, u64& out) {
  std::string t = text;
  int base = 10;
  if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
    t = t.substr(2);
    base = 16;
  }
  if (t.empty() || t.size() > 20) return false;
  u64 v = 0;
  for (char c : t) {
    int d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (base == 16 && std::isxdigit(static_cast<unsigned char>(c)))
      d = std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
    else
      return false;
    if (v > (max - static_cast<u64>(d)) / static_cast<u64>(base)) return false;
    v = v * static_cast<u64>(base) + static_cast<u64>(d);
  }
  out = v;
  return true;
}

// Hex digits in pairs; blanks, commas and colons between them are ignored.
bool parseHexBytes(const std::string& text, std::vector<u8>& out) {
  std::string digits;
  for (char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c)))
      digits.push_back(c);
    else if (!std::isspace(static_cast<unsigned char>(c)) && c != ',' && c != ':')
      return false;
  }
  if (digits.size() % 2) return false;
  out.clear();
  for (size_t i = 0; i < digits.size(); i += 2)
    out.push_back(static_cast<u8>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return true;
}

enum class Form { Text, TextList, Number32, Number32Be, Number64, Bytes };

bool parseType(const std::string& text, u32& type, Form& form) {
  std::string t = text;
  std::transform(t.begin(), t.end(), t.begin(), [](unsigned char c) { return std::tolower(c); });
  if (t.compare(0, 4, "reg_") == 0) t = t.substr(4);
  struct Known {
    const char* name;
    u32 type;
    Form form;
  };
  static const Known known[] = {
      {"sz", ValueTypes::String, Form::Text},
      {"expand_sz", ValueTypes::ExpandString, Form::Text},
      {"multi_sz", ValueTypes::MultiString, Form::TextList},
      {"dword", ValueTypes::Dword, Form::Number32},
      {"dword_be", ValueTypes::DwordBigEndian, Form::Number32Be},
      {"dword_big_endian", ValueTypes::DwordBigEndian, Form::Number32Be},
      {"qword", ValueTypes::Qword, Form::Number64},
      {"binary", ValueTypes::Binary, Form::Bytes},
  };
  for (const Known& k : known)
    if (t == k.name) {
      type = k.type;
      form = k.form;
      return true;
    }
  u64 n;
  if (!parseUnsigned(text, 0xffffffffull, n)) return false;
  type = static_cast<u32>(n);
  form = Form::Bytes;
  return true;
}

bool readStdin(std::string& out) {
  char buf[65536];
  while (true) {
    ssize_t n = ::read(0, buf, sizeof(buf));
    if (n < 0) return false;
    if (n == 0) return true;
    out.append(buf, static_cast<size_t>(n));
  }
}

void splitLines(const std::string& text, std::vector<std::string>& out) {
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out.push_back(line);
    if (end == std::string::npos) break;
    start = end + 1;
  }
}

// Stores raw bytes under any type: the value passes through the binary
// type, whose data may always be resized.
bool writeBytes(const ValueRef& v, u32 type, const std::vector<u8>& bytes) {
  if (v->type() != ValueTypes::Binary && !v->setType(ValueTypes::Binary)) return false;
  Ref<Interfaces::Stripe> data = v->binary();
  if (!data || data->setElementCount(bytes.size()) != bytes.size()) return false;
  if (!bytes.empty() && data->writeAt(0, bytes.data(), bytes.size()) != bytes.size()) {
    if (!Platform::Error::get()) Platform::Error::set(Errors::SHORT_WRITE);
    return false;
  }
  return type == ValueTypes::Binary || v->setType(type);
}

int runSet(Context& ctx) {
  u32 type;
  Form form;
  if (!parseType(ctx.operand(3), type, form))
    return usageError(ctx.command, "unknown type '" + ctx.operand(3) + "'");
  bool fromStdin = ctx.args.has("--stdin");
  std::vector<std::string> data(ctx.args.operands.begin() + 4, ctx.args.operands.end());
  if (fromStdin) {
    if (!data.empty()) return usageError(ctx.command, "DATA comes from standard input with --stdin");
    std::string text;
    if (!readStdin(text)) return failWithCode(ctx, "cannot read standard input", Platform::Error::IO_ERROR);
    // Text typed or piped in ends with a line break that is not data.
    if (form != Form::Bytes && !text.empty() && text.back() == '\n') {
      text.pop_back();
      if (!text.empty() && text.back() == '\r') text.pop_back();
    }
    data.push_back(text);
  }
  if (data.empty()) return usageError(ctx.command, "missing DATA");
  if (data.size() > 1 && form != Form::TextList) return usageError(ctx.command, "too many arguments");

  // Everything is checked before the hive is opened.
  std::vector<u8> bytes;
  u64 number = 0;
  std::vector<std::string> lines;
  switch (form) {
    case Form::Text:
      break;
    case Form::TextList:
      for (const std::string& d : data) splitLines(d, lines);
      if (data.size() == 1 && data[0].empty()) lines.clear();  // "" is the empty list
      break;
    case Form::Number32:
    case Form::Number32Be:
    case Form::Number64:
      if (!parseUnsigned(data[0], form == Form::Number64 ? ~0ull : 0xffffffffull, number))
        return usageError(ctx.command, "'" + data[0] + "' is not a number that fits the type");
      break;
    case Form::Bytes:
      if (!parseHexBytes(data[0], bytes))
        return usageError(ctx.command, "DATA must be hex bytes for this type");
      break;
  }
  if (form == Form::Number32Be) {
    bytes = {static_cast<u8>(number >> 24), static_cast<u8>(number >> 16), static_cast<u8>(number >> 8),
             static_cast<u8>(number)};
    form = Form::Bytes;
  }

  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  KeyRef root = rootOf(ctx, h);
  if (!root) return EXIT_FAILED;
  KeyRef key = openKeyPath(ctx, root, ctx.operand(1));
  if (!key) return EXIT_FAILED;
  Ref<String> name = String::create(ctx.operand(2));
  ctx.beginOperation();
  ValueRef v = key->value(name);
  if (!v) {
    // A fresh value of a number type starts with data of the right size.
    u32 initial = form == Form::Bytes ? ValueTypes::Binary : type;
    ctx.beginOperation();
    v = key->createValue(name, initial);
    if (!v) return fail(ctx, "cannot create value '" + ctx.operand(2) + "'");
  }
  ctx.beginOperation();
  bool ok = false;
  switch (form) {
    case Form::Text:
      ok = (v->type() == type || v->setType(type)) && v->setString(String::create(data[0]));
      break;
    case Form::TextList: {
      auto list = TVector<Ref<String>>::create();
      for (const std::string& l : lines) list->push_back(String::create(l));
      ok = (v->type() == type || v->setType(type)) && v->setStrings(list);
      break;
    }
    case Form::Number32:
    case Form::Number64: {
      // Through the typed setter when the data has the size already,
      // else as bytes.
      u32 width = form == Form::Number64 ? 8 : 4;
      Ref<Interfaces::Stripe> d = v->binary();
      if (v->type() == type && d && d->elementCount() == width) {
        ok = v->setNumber(number);
      } else {
        for (u32 i = 0; i < width; ++i) bytes.push_back(static_cast<u8>(number >> (8 * i)));
        ok = writeBytes(v, type, bytes);
      }
      break;
    }
    case Form::Bytes:
    case Form::Number32Be:
      ok = writeBytes(v, type, bytes);
      break;
  }
  if (!ok) return fail(ctx, "cannot set value '" + ctx.operand(2) + "'");
  return flushHive(ctx, h);
}

// ---- rm --------------------------------------------------------------------

int runRm(Context& ctx) {
  std::vector<std::string> parts;
  if (!splitKeyPath(ctx.operand(1), parts)) return usageError(ctx.command, "invalid KEYPATH");
  bool value = ctx.operandCount() > 2;
  if (parts.empty() && !value) return usageError(ctx.command, "the root key cannot be removed");
  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  KeyRef root = rootOf(ctx, h);
  if (!root) return EXIT_FAILED;
  if (value) {
    KeyRef key = openKeyPath(ctx, root, ctx.operand(1));
    if (!key) return EXIT_FAILED;
    ctx.beginOperation();
    ValueRef v = key->value(String::create(ctx.operand(2)));
    if (!v) return fail(ctx, "value not found: " + ctx.operand(2));
    ctx.beginOperation();
    if (!key->deleteValue(v)) return fail(ctx, "cannot delete value '" + ctx.operand(2) + "'");
  } else {
    std::string parentPath;
    for (size_t i = 0; i + 1 < parts.size(); ++i) parentPath += "\\" + parts[i];
    KeyRef parent = openKeyPath(ctx, root, parentPath);
    if (!parent) return EXIT_FAILED;
    KeyRef key = openKeyPath(ctx, parent, parts.back());
    if (!key) return EXIT_FAILED;
    ctx.beginOperation();
    if (!Util::recursiveKeyDelete(parent, key)) return fail(ctx, "cannot delete key " + ctx.operand(1));
  }
  return flushHive(ctx, h);
}

// ---- mv --------------------------------------------------------------------

int runMv(Context& ctx) {
  std::vector<std::string> parts;
  if (!splitKeyPath(ctx.operand(1), parts)) return usageError(ctx.command, "invalid KEYPATH");
  if (parts.empty()) return usageError(ctx.command, "the root key cannot be moved");
  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  KeyRef root = rootOf(ctx, h);
  if (!root) return EXIT_FAILED;
  KeyRef key = openKeyPath(ctx, root, ctx.operand(1));
  if (!key) return EXIT_FAILED;
  KeyRef newParent = openKeyPath(ctx, root, ctx.operand(2));
  if (!newParent) return EXIT_FAILED;
  Ref<String> newName = ctx.operandCount() > 3 ? String::create(ctx.operand(3)) : key->name();
  ctx.beginOperation();
  if (!newParent->move(key, newName)) return fail(ctx, "cannot move key " + ctx.operand(1));
  return flushHive(ctx, h);
}

// ---- import ----------------------------------------------------------------

int runImport(Context& ctx) {
  const std::string& file = ctx.operand(1);
  std::string prefixText = ctx.args.value("--prefix", "ROOT");
  Ref<Interfaces::Stripe> source;
  if (file == "-") {
    std::string text;
    if (!readStdin(text)) return failWithCode(ctx, "cannot read standard input", Platform::Error::IO_ERROR);
    source = Platform::MemoryStripe::create(std::vector<u8>(text.begin(), text.end()));
  } else {
    ctx.beginOperation();
    source = Platform::FileStripe::open(file, Platform::FileStripe::Read);
    if (!source) return fail(ctx, "cannot open '" + file + "'");
  }
  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  Ref<String> prefix = Util::regPathFromWindowsStyle(String::create(prefixText));
  auto errors = [](const std::string& line) { std::fprintf(stderr, "hivekit: import: %s\n", line.c_str()); };
  ctx.beginOperation();
  if (!RegFileUtil::importRegFile(h.file, source, prefix, errors, ctx.common.verbose)) {
    u32 code = Platform::Error::get();
    // What was imported before the failure stays: keep the hive consistent.
    h.file->flush();
    return failWithCode(ctx, "import of '" + file + "' failed; what came before the failure was applied",
                        code);
  }
  return flushHive(ctx, h);
}

}  // namespace

const Command NEW_COMMAND = {
    "new",
    "new [options] HIVE [--minor 3|5] [--force]",
    "create an empty hive",
    "Writes a new hive holding only its root key.\n"
    "  --minor 3|5  format version 1.3 (lf lists, no big-data records) or 1.5 (the\n"
    "               default: lh lists, data above 16344 bytes in db records)\n"
    "  --force      replace HIVE when it exists\n",
    {{"--minor", true, false}, {"--force", false, false}},
    1,
    1,
    true,
    runNew,
};

const Command MKKEY_COMMAND = {
    "mkkey",
    "mkkey [options] HIVE KEYPATH",
    "create a key (and the missing keys above it)",
    "Creates KEYPATH and every missing key on the way to it; an existing key is\n"
    "left as it is. If a level cannot be created, the levels this command created\n"
    "are removed again.\n",
    {},
    2,
    2,
    true,
    runMkkey,
};

const Command SET_COMMAND = {
    "set",
    "set [options] HIVE KEYPATH NAME TYPE DATA...",
    "create or change a value",
    "Sets the value NAME (\"\" for the default value) of the existing key KEYPATH,\n"
    "creating the value when missing and changing its type when it differs.\n"
    "TYPE and DATA:\n"
    "  sz, expand_sz   text (UTF-8 on the command line)\n"
    "  multi_sz        one string per DATA argument, or per line of DATA; \"\" is the\n"
    "                  empty list\n"
    "  dword, dword_be a 32-bit number, decimal or 0x hex (dword_be is stored\n"
    "                  big-endian)\n"
    "  qword           a 64-bit number\n"
    "  binary          hex bytes (\"01 02 ff\", \"0102ff\"; blanks, commas, colons ignored)\n"
    "  a number        any type by number (decimal or 0x hex), DATA as hex bytes\n"
    "REG_SZ-style names are accepted as well.\n"
    "  --stdin         read DATA from standard input (one final line break is\n"
    "                  dropped for text and number types)\n",
    {{"--stdin", false, false}},
    4,
    SIZE_MAX,
    true,
    runSet,
};

const Command RM_COMMAND = {
    "rm",
    "rm [options] HIVE KEYPATH [VALUE]",
    "delete a key with everything below it, or one value",
    "Without VALUE, deletes KEYPATH with all its subkeys and values. With VALUE,\n"
    "deletes that value of KEYPATH (\"\" for the default value).\n",
    {},
    2,
    3,
    true,
    runRm,
};

const Command MV_COMMAND = {
    "mv",
    "mv [options] HIVE KEYPATH NEWPARENT [NEWNAME]",
    "move or rename a key",
    "Moves KEYPATH below the key NEWPARENT, under NEWNAME or its own name. To\n"
    "rename a key in place, give its parent as NEWPARENT.\n",
    {},
    3,
    4,
    true,
    runMv,
};

const Command IMPORT_COMMAND = {
    "import",
    "import [options] HIVE REGFILE [--prefix PREFIX]",
    "apply a registry text file (.reg) to a hive",
    "Applies REGFILE (\"-\" for standard input): UTF-16LE with a byte order mark as\n"
    "regedit writes it, or UTF-8; CR LF or LF line ends. [PATH] sections create\n"
    "keys, [-PATH] deletes a key with everything below it, \"name\"=- deletes a value.\n"
    "  --prefix PREFIX  the path every section must start with, standing for the\n"
    "                   root key; written with backslashes. The default ROOT matches\n"
    "                   what 'hivekit export' writes without --as.\n"
    "The import stops at the first error; what was applied before it stays.\n",
    {{"--prefix", true, false}},
    2,
    2,
    true,
    runImport,
};

}  // namespace hivekit::cli
