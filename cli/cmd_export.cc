// hivekit export: a key tree as a registry text file.
#include <sys/stat.h>

#include <cstdio>

#include "cli/commands.h"
#include "cli/fd_stripe.h"
#include "cli/key_adapter.h"
#include "cli/open_hive.h"
#include "hive/errors.h"
#include "hive/regfile/reg_file_util.h"
#include "hive/util/util.h"
#include "platform/file_stripe.h"

namespace hivekit::cli {
namespace {

using Libraries::Files::Hive::RegFileUtil;
using Libraries::Files::Hive::Util;
namespace Errors = Libraries::Files::Hive::Errors;

bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return !a.empty() && ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

int runExport(Context& ctx) {
  const ParsedArgs& a = ctx.args;
  std::string keyPath = ctx.operandCount() > 1 ? ctx.operand(1) : "";
  std::string target = a.value("-o", "-");
  bool append = a.has("--append");

  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  ctx.beginOperation();
  KeyRef root = h.file->root();
  if (!root) return fail(ctx, "cannot read the root key");
  std::vector<std::string> names;
  KeyRef key = openKeyPath(ctx, root, keyPath, &names);
  if (!key) return EXIT_FAILED;

  // The heading path, as a user writes it (backslashes).
  std::string heading;
  if (a.has("--as")) {
    heading = a.value("--as");
    if (heading.empty() || heading == "\\") return usageError(ctx.command, "--as needs a non-empty path");
  } else {
    heading = "ROOT";
    for (const std::string& n : names) heading += "\\" + n;
  }
  Ref<String> path = Util::regPathFromWindowsStyle(String::create(heading));

  Ref<Interfaces::Stripe> stripe;
  Ref<SequentialFdStripe> stdoutStripe;
  if (target == "-") {
    stdoutStripe = makeRef<SequentialFdStripe>(1);
    stripe = stdoutStripe;
  } else {
    // Emptying the target first would destroy a hive or log being read.
    for (const std::string& input : {ctx.operand(0), h.logs.primary, h.logs.log1, h.logs.log2})
      if (sameFile(input, target))
        return failWithCode(ctx, "'" + target + "' is the hive or one of its logs", Errors::INVALID_ARGUMENT);
    using Platform::FileStripe;
    u32 flags = FileStripe::Read | FileStripe::Write | FileStripe::Create |
                (append ? 0u : static_cast<u32>(FileStripe::Truncate));
    ctx.beginOperation();
    stripe = FileStripe::open(target, flags);
    if (!stripe) return fail(ctx, "cannot open '" + target + "' for writing");
  }

  u32 options = (append ? RegFileUtil::Append : 0) | (a.has("--binary-only") ? RegFileUtil::BinaryOnly : 0);
  // A key other than the root is wrapped so that its own line is exactly
  // the heading (see key_adapter.h).
  KeyRef exported = names.empty() ? key : KeyRef(makeRef<UnnamedKey>(key));
  auto diagnostics = [](const std::string& line) {
    std::fprintf(stderr, "hivekit: export: %s\n", line.c_str());
  };
  std::fflush(stdout);
  ctx.beginOperation();
  bool ok = RegFileUtil::exportRegFile(exported, stripe, path, options, diagnostics);
  if (stdoutStripe && stdoutStripe->failed()) return failWithCode(ctx, "cannot write to standard output", 0);
  if (!ok)
    return fail(ctx, "export failed" + (target == "-" ? std::string() : " ('" + target + "' is incomplete)"));
  if (target != "-" && !stripe->sync()) return fail(ctx, "cannot write '" + target + "' to disk");
  return EXIT_OK;
}

}  // namespace

const Command EXPORT_COMMAND = {
    "export",
    "export [options] HIVE [KEYPATH] [-o FILE] [--binary-only] [--append] [--as PATH]",
    "write a key tree as a registry text file (.reg)",
    "Writes KEYPATH (the root key when omitted) and everything below it in the\n"
    "format regedit reads: UTF-16LE with a byte order mark, the line 'Windows\n"
    "Registry Editor Version 5.00', then a [PATH] line per key and a line per value.\n"
    "  -o FILE        write to FILE (created or emptied) instead of standard output\n"
    "  --append       add to the end of FILE, without byte order mark and header\n"
    "  --binary-only  write every value as hex(TYPE):, strings and dwords included\n"
    "  --as PATH      the path that heads the exported key, written with\n"
    "                 backslashes: --as 'HKEY_LOCAL_MACHINE\\SYSTEM' gives\n"
    "                 [HKEY_LOCAL_MACHINE\\SYSTEM], [HKEY_LOCAL_MACHINE\\SYSTEM\\Select], ...\n"
    "Without --as the heading is ROOT followed by the key's path in the hive\n"
    "([ROOT], [ROOT\\ControlSet001], ...), which is what 'hivekit import' expects by\n"
    "default: importing the file into a hive puts the keys back in the same place.\n",
    {{"-o", true, false}, {"--binary-only", false, false}, {"--append", false, false}, {"--as", true, false}},
    1,
    2,
    false,
    runExport,
};

}  // namespace hivekit::cli
