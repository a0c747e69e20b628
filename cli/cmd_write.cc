// The commands that change hives: new, mkkey, set, rm, mv, import.
//
// Each opens the hive read-write, does its one change and closes it, which
// writes the change; a failed write is a failed command.
#include <fcntl.h>
#include <hivekit/hivekit.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "open_hive.h"
#include "progress.h"

namespace hivekit::cli {
namespace {

// Writes the changes and releases the hive.
int closeHive(Hive& hive) {
  const Status status = hive.close();
  return status ? EXIT_OK : fail(status);
}

// ---- new -------------------------------------------------------------------

int runNew(Context& ctx) {
  const std::string& path = ctx.operand(0);
  const std::string minorText = ctx.args.value("--minor", "5");
  if (minorText != "3" && minorText != "5") return usageError(ctx.command, "--minor is 3 or 5");
  CreateOptions options;
  options.minor_version = minorText == "3" ? 3 : 5;
  options.codepage = ctx.common.codepage;
  options.overwrite = ctx.args.has("--force");
  options.fixed_time = ctx.common.time;
  Result<Hive> hive = Hive::create(path, options);
  if (!hive) {
    if (hive.status().code() == Code::already_exists)
      return fail(hive.status().message() + " (--force replaces it)");
    return fail(hive.status());
  }
  return closeHive(*hive);
}

// ---- mkkey -----------------------------------------------------------------

int runMkkey(Context& ctx) {
  std::vector<std::string> parts;
  if (!splitKeyPath(ctx.operand(1), parts) || parts.empty())
    return usageError(ctx.command, "KEYPATH must name a key below the root");
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  if (Result<Key> key = hive.root().create_key(libraryPath(ctx.operand(1))); !key)
    return fail("cannot create key " + quoteInput(ctx.operand(1)), key.status());
  return closeHive(hive);
}

// ---- set -------------------------------------------------------------------

bool parseUnsigned(const std::string& text, uint64_t max, uint64_t& out) {
  std::string t = text;
  int base = 10;
  if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
    t = t.substr(2);
    base = 16;
  }
  if (t.empty() || t.size() > 20) return false;
  uint64_t v = 0;
  for (char c : t) {
    int d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (base == 16 && std::isxdigit(static_cast<unsigned char>(c)))
      d = std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
    else
      return false;
    if (v > (max - static_cast<uint64_t>(d)) / static_cast<uint64_t>(base)) return false;
    v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
  }
  out = v;
  return true;
}

// Hex digits in pairs; blanks, commas and colons between them are ignored.
bool parseHexBytes(const std::string& text, std::vector<std::byte>& out) {
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
    out.push_back(static_cast<std::byte>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return true;
}

// How DATA is read for a type.
enum class Form { Text, TextList, Number32, Number64, Bytes };

// A type given by name has its own form of DATA (hex bytes for the types
// without one); a type given by number always takes hex bytes.
bool parseType(const std::string& text, ValueType& type, Form& form) {
  if (!parse_type(text, type)) return false;
  form = Form::Bytes;
  if (!text.empty() && std::isdigit(static_cast<unsigned char>(text[0]))) return true;
  if (type == ValueType::sz || type == ValueType::expand_sz || type == ValueType::link)
    form = Form::Text;
  else if (type == ValueType::multi_sz)
    form = Form::TextList;
  else if (type == ValueType::dword || type == ValueType::dword_big_endian)
    form = Form::Number32;
  else if (type == ValueType::qword)
    form = Form::Number64;
  return true;
}

// Reads all of a descriptor.
bool readAll(int fd, std::string& out) {
  char buf[65536];
  while (true) {
    ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
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

int runSet(Context& ctx) {
  ValueType type;
  Form form;
  if (!parseType(ctx.operand(3), type, form))
    return usageError(ctx.command, "unknown type " + quoteInput(ctx.operand(3)));
  const bool fromStdin = ctx.args.has("--stdin"), fromFile = ctx.args.has("--from-file");
  std::vector<std::string> data(ctx.args.operands.begin() + 4, ctx.args.operands.end());
  std::vector<std::byte> bytes;
  if (fromFile) {
    // The file's bytes are the data, as stored: what 'get --raw' writes.
    if (!data.empty() || fromStdin)
      return usageError(ctx.command, "DATA comes from the file with --from-file");
    const std::string file = ctx.args.value("--from-file");
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    std::string content;
    const bool read = fd >= 0 && readAll(fd, content);
    const int error = errno;
    if (fd >= 0) ::close(fd);
    if (!read) return fail("cannot read " + quoteInput(file) + ": " + std::strerror(error));
    const auto* begin = reinterpret_cast<const std::byte*>(content.data());
    bytes.assign(begin, begin + content.size());
    form = Form::Bytes;
  } else if (fromStdin) {
    if (!data.empty()) return usageError(ctx.command, "DATA comes from standard input with --stdin");
    std::string text;
    if (!readAll(0, text)) return fail(std::string("cannot read standard input: ") + std::strerror(errno));
    // Text typed or piped in ends with a line break that is not data.
    if (form != Form::Bytes && !text.empty() && text.back() == '\n') {
      text.pop_back();
      if (!text.empty() && text.back() == '\r') text.pop_back();
    }
    data.push_back(text);
  }
  if (data.empty() && !fromFile) return usageError(ctx.command, "missing DATA");
  if (data.size() > 1 && form != Form::TextList) return usageError(ctx.command, "too many arguments");

  // Everything is checked before the hive is opened.
  uint64_t number = 0;
  std::vector<std::string> lines;
  switch (form) {
    case Form::Text:
      break;
    case Form::TextList:
      for (const std::string& d : data) splitLines(d, lines);
      if (data.size() == 1 && data[0].empty()) lines.clear();  // "" is the empty list
      break;
    case Form::Number32:
    case Form::Number64:
      if (!parseUnsigned(data[0], form == Form::Number64 ? ~0ull : 0xffffffffull, number))
        return usageError(ctx.command, quoteInput(data[0]) + " is not a number that fits the type");
      break;
    case Form::Bytes:
      if (!fromFile && !parseHexBytes(data[0], bytes))
        return usageError(ctx.command, "DATA must be hex bytes for this type");
      break;
  }

  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  Key key;
  if (!findKey(hive, ctx.operand(1), key)) return EXIT_FAILED;
  const std::string& name = ctx.operand(2);
  auto set = [&]() -> Result<Value> {
    switch (form) {
      case Form::Text:
        return key.set_string(name, data[0], type);
      case Form::TextList:
        return key.set_multi_string(name, lines);
      case Form::Number32:
        return key.set_dword(name, static_cast<uint32_t>(number), type);
      case Form::Number64:
        return key.set_qword(name, number);
      case Form::Bytes:
        break;
    }
    return key.set_value(name, type, bytes);
  };
  const Result<Value> done = set();
  if (!done) return fail("cannot set value " + quoteInput(name), done.status());
  return closeHive(hive);
}

// ---- rm --------------------------------------------------------------------

int runRm(Context& ctx) {
  std::vector<std::string> parts;
  if (!splitKeyPath(ctx.operand(1), parts)) return usageError(ctx.command, "invalid KEYPATH");
  const bool value = ctx.operandCount() > 2;
  if (parts.empty() && !value) return usageError(ctx.command, "the root key cannot be removed");
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  if (value) {
    Key key;
    if (!findKey(hive, ctx.operand(1), key)) return EXIT_FAILED;
    if (const Status status = key.delete_value(ctx.operand(2)); !status) return fail(status);
  } else {
    if (const Status status = hive.root().delete_key(libraryPath(ctx.operand(1)), true); !status)
      return fail(status);
  }
  return closeHive(hive);
}

// ---- mv --------------------------------------------------------------------

int runMv(Context& ctx) {
  std::vector<std::string> parts;
  if (!splitKeyPath(ctx.operand(1), parts)) return usageError(ctx.command, "invalid KEYPATH");
  if (parts.empty()) return usageError(ctx.command, "the root key cannot be moved");
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  Key key, newParent;
  if (!findKey(hive, ctx.operand(1), key) || !findKey(hive, ctx.operand(2), newParent)) return EXIT_FAILED;
  const std::string newName = ctx.operandCount() > 3 ? ctx.operand(3) : key.name();
  if (const Status status = key.move_to(newParent, newName); !status)
    return fail("cannot move key " + quoteInput(ctx.operand(1)), status);
  return closeHive(hive);
}

// ---- import ----------------------------------------------------------------

int runImport(Context& ctx) {
  const std::string& file = ctx.operand(1);
  ImportOptions options;
  options.prefix = ctx.args.value("--prefix", "ROOT");
  options.trace = ctx.common.verbose;
  options.dry_run = ctx.args.has("--dry-run");
  options.diagnostics = [](std::string_view line) {
    std::fprintf(stderr, "hivekit: import: %.*s\n", static_cast<int>(line.size()), line.data());
  };
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  Status imported;
  {
    ProgressThread progress("import", nullptr);
    imported = import_reg(hive, file, options);
  }
  // An error of the file leaves the hive as it was; a failure of the hive
  // while applying keeps what came before it: the hive is closed either way.
  const int closed = closeHive(hive);
  return imported ? closed : fail(imported);
}

}  // namespace

const Command NEW_COMMAND = {"new",
                             "new [options] HIVE [--minor 3|5] [--force]",
                             "create an empty hive",
                             "Writes a new hive holding only its root key.\n"
                             "  --minor 3|5  format version 1.3 (lf lists, no big-data records) or 1.5 (the\n"
                             "               default: lh lists, data above 16344 bytes in db records)\n"
                             "  --force      replace HIVE when it exists\n",
                             "--minor= --force",
                             {1, 1},
                             Access::write,
                             runNew};

const Command MKKEY_COMMAND = {
    "mkkey",
    "mkkey [options] HIVE KEYPATH",
    "create a key (and the missing keys above it)",
    "Creates KEYPATH and every missing key on the way to it; an existing key is\n"
    "left as it is. If a level cannot be created, the levels this command created\n"
    "are removed again.\n",
    "",
    {2, 2},
    Access::write,
    runMkkey};

const Command SET_COMMAND = {
    "set",
    "set [options] HIVE KEYPATH NAME TYPE DATA...",
    "create or change a value",
    "Sets the value NAME (\"\" for the default value) of the existing key KEYPATH,\n"
    "creating the value when missing and changing its type when it differs.\n"
    "TYPE and DATA:\n"
    "  sz, expand_sz   text (UTF-8 on the command line)\n"
    "  link            text, stored without a terminating zero (a symbolic link)\n"
    "  multi_sz        one string per DATA argument, or per line of DATA; \"\" is the\n"
    "                  empty list\n"
    "  dword, dword_be a 32-bit number, decimal or 0x hex (dword_be is stored\n"
    "                  big-endian)\n"
    "  qword           a 64-bit number\n"
    "  binary          hex bytes (\"01 02 ff\", \"0102ff\"; blanks, commas, colons ignored)\n"
    "  a number        any type by number (decimal or 0x hex), DATA as hex bytes\n"
    "REG_SZ-style names are accepted as well; the other type names (none,\n"
    "resource_list, ...) take DATA as hex bytes (\"\" for none).\n"
    "  --stdin         read DATA from standard input (one final line break is\n"
    "                  dropped for text and number types)\n"
    "  --from-file FILE  the bytes of FILE are the data, exactly, whatever TYPE\n"
    "                  (what 'get --raw' writes)\n",
    "--stdin --from-file=",
    {4, SIZE_MAX},
    Access::write,
    runSet};

const Command RM_COMMAND = {"rm",
                            "rm [options] HIVE KEYPATH [VALUE]",
                            "delete a key with everything below it, or one value",
                            "Without VALUE, deletes KEYPATH with all its subkeys and values. With VALUE,\n"
                            "deletes that value of KEYPATH (\"\" for the default value).\n",
                            "",
                            {2, 3},
                            Access::write,
                            runRm};

const Command MV_COMMAND = {"mv",
                            "mv [options] HIVE KEYPATH NEWPARENT [NEWNAME]",
                            "move or rename a key",
                            "Moves KEYPATH below the key NEWPARENT, under NEWNAME or its own name. To\n"
                            "rename a key in place, give its parent as NEWPARENT.\n",
                            "",
                            {3, 4},
                            Access::write,
                            runMv};

const Command IMPORT_COMMAND = {
    "import",
    "import [options] HIVE REGFILE [--prefix PREFIX] [--dry-run]",
    "apply a registry text file (.reg) to a hive",
    "Applies REGFILE (\"-\" for standard input): UTF-16LE with a byte order mark as\n"
    "regedit writes it, UTF-8, or 8-bit after a REGEDIT4 line; CR LF or LF line\n"
    "ends; regedit's escapes (\\\\ and \\\") in names and strings. [PATH] sections\n"
    "create keys, [-PATH] deletes a key with everything below it, \"name\"=- deletes\n"
    "a value.\n"
    "  --prefix PREFIX  the path every section must start with, standing for the\n"
    "                   root key; written with backslashes. The default ROOT matches\n"
    "                   what 'hivekit export' writes without --as.\n"
    "  --dry-run        read and check the whole file; change nothing\n"
    "The whole file is checked before the hive changes: an error in it (a malformed\n"
    "or unknown line, value data larger than the hive's version allows, ...) is\n"
    "reported with its line and leaves the hive as it was.\n",
    "--prefix= --dry-run",
    {2, 2},
    Access::write,
    runImport};

}  // namespace hivekit::cli
