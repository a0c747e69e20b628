// hivekit export: a key tree as a registry text file.
#include <hivekit/hivekit.h>

#include <cstdio>

#include "commands.h"
#include "open_hive.h"
#include "progress.h"

namespace hivekit::cli {
namespace {

int runExport(Context& ctx) {
  const ParsedArgs& a = ctx.args;
  const std::string keyPath = ctx.operandCount() > 1 ? ctx.operand(1) : "";
  const std::string target = a.value("-o", "-");
  ExportOptions options;
  // The heading path, as a user writes it (backslashes); without --as the
  // library's default, ROOT and the key's path.
  if (a.has("--as")) {
    options.root_path = a.value("--as");
    if (options.root_path.empty() || options.root_path == "\\")
      return usageError(ctx.command, "--as needs a non-empty path");
  }
  options.append = a.has("--append");
  options.binary_only = a.has("--binary-only");
  options.raw = a.has("--raw");
  options.diagnostics = [](std::string_view line) {
    std::fprintf(stderr, "hivekit: export: %.*s\n", static_cast<int>(line.size()), line.data());
  };

  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  Key key;
  if (!findKey(hive, keyPath, key)) return EXIT_FAILED;
  ProgressThread progress("export", [&target] { return target == "-" ? std::string() : fileSize(target); });
  const Status status = export_reg(key, target, options);
  return status ? EXIT_OK : fail(status);
}

}  // namespace

const Command EXPORT_COMMAND = {
    "export",
    "export [options] HIVE [KEYPATH] [-o FILE] [--binary-only] [--append] [--as PATH] [--raw]",
    "write a key tree as a registry text file (.reg)",
    "Writes KEYPATH (the root key when omitted) and everything below it in the\n"
    "format regedit reads: UTF-16LE with a byte order mark, the line 'Windows\n"
    "Registry Editor Version 5.00', then a [PATH] line per key and a line per value.\n"
    "Value names and strings carry regedit's escapes (\\\\ and \\\"); a string that\n"
    "quotes cannot carry exactly (a line break, data other than its text and one\n"
    "terminator) is written as hex(1):, so that 'hivekit import' gives it back.\n"
    "  -o FILE        write to FILE (created or emptied) instead of standard output;\n"
    "                 FILE may not be HIVE or one of its logs\n"
    "  --append       add to the end of FILE, without byte order mark and header\n"
    "                 (a new or empty FILE gets both)\n"
    "  --binary-only  write every value as hex(TYPE):, strings and dwords included\n"
    "  --raw          names and strings as stored, without escapes (the form of\n"
    "                 earlier versions; it does not always import back the same)\n"
    "  --as PATH      the path that heads the exported key, written with\n"
    "                 backslashes: --as 'HKEY_LOCAL_MACHINE\\SYSTEM' gives\n"
    "                 [HKEY_LOCAL_MACHINE\\SYSTEM], [HKEY_LOCAL_MACHINE\\SYSTEM\\Select], ...\n"
    "Without --as the heading is ROOT followed by the key's path in the hive\n"
    "([ROOT], [ROOT\\ControlSet001], ...), which is what 'hivekit import' expects by\n"
    "default: importing the file into a hive puts the keys back in the same place.\n",
    "-o= --binary-only --append --as= --raw",
    {1, 2},
    Access::read,
    runExport};

}  // namespace hivekit::cli
