// hivekit recover: a clean copy of a hive with its transaction logs applied.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "cli/commands.h"
#include "cli/open_hive.h"
#include "hive/errors.h"
#include "platform/file_stripe.h"

namespace hivekit::cli {
namespace {

namespace Errors = Libraries::Files::Hive::Errors;
using Libraries::Files::Hive::LogFileInfo;

bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return !a.empty() && ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

int runRecover(Context& ctx) {
  const std::string& path = ctx.operand(0);
  if (!ctx.args.has("-o")) return usageError(ctx.command, "missing -o OUT");
  const std::string target = ctx.args.value("-o");
  if (target.empty() || target == "-") return usageError(ctx.command, "-o needs a file name");

  OpenedHive h;
  if (!openHive(ctx, path, h)) return EXIT_FAILED;
  // Emptying the target first would destroy what is being recovered.
  for (const std::string& input : {path, h.logs.primary, h.logs.log1, h.logs.log2})
    if (sameFile(input, target))
      return failWithCode(ctx, "'" + target + "' is the hive or one of its logs", Errors::INVALID_ARGUMENT);
  RegistryHiveObj& hive = *h.hive;
  if (hive.dirty() && hive.logMode() == RegistryHiveObj::LogMode::None)
    warn("no log applies to '" + path + "': the copy holds the hive as stored, marked clean");

  using Platform::FileStripe;
  ctx.beginOperation();
  Ref<FileStripe> out = FileStripe::open(
      target, FileStripe::Read | FileStripe::Write | FileStripe::Create | FileStripe::Truncate);
  if (!out) return fail(ctx, "cannot open '" + target + "' for writing");
  ctx.beginOperation();
  if (!hive.writeRecoveredCopy(out) || !out->sync()) {
    // Half a hive is worse than none: nobody should take it for the copy.
    int status = fail(ctx, "cannot write the recovered copy to '" + target + "'");
    out = nullptr;
    if (::unlink(target.c_str()) == 0) std::fprintf(stderr, "hivekit: '%s' removed\n", target.c_str());
    return status;
  }

  std::string applied;
  static const char* const labels[3] = {".LOG", ".LOG1", ".LOG2"};
  for (u32 i = 0; i < 3; ++i) {
    const LogFileInfo& log = hive.logFile(i);
    if (log.applied == 0) continue;
    applied += applied.empty() ? "" : ", ";
    applied += std::string(labels[i]) + " " + std::to_string(log.applied) +
               (log.newFormat() ? (log.applied == 1 ? " entry" : " entries") : " dirty pages");
  }
  if (hive.appliedLog() != RegistryHiveObj::NO_LOG && hive.logFile(hive.appliedLog()).newFormat())
    applied += " up to sequence " + std::to_string(hive.appliedSequence());
  Output o;
  o.put("wrote " + target + ": " + std::to_string(4096ull + hive.hiveLength()) + " bytes, " +
        (applied.empty() ? std::string("no log applied") : "applied " + applied) + "\n");
  return o.flush() ? EXIT_OK : failWithCode(ctx, "cannot write to standard output", 0);
}

}  // namespace

const Command RECOVER_COMMAND = {
    "recover",
    "recover [options] HIVE -o OUT",
    "write a clean copy of a hive with its transaction logs applied",
    "Reads HIVE with its logs (found beside it, or named with --log) and writes\n"
    "what it reads to OUT (created or emptied): the base block with both sequence\n"
    "numbers equal, the recovered hive bins data size and a fresh checksum, then the\n"
    "hive bins. OUT opens without logs in any reader. HIVE and its logs are not\n"
    "changed; OUT may not be one of them.\n"
    "  -o OUT         the file to write\n",
    {{"-o", true, false}},
    1,
    1,
    false,
    runRecover,
};

}  // namespace hivekit::cli
