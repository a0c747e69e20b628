// hivekit recover: a clean copy of a hive with its transaction logs applied.
#include <hivekit/hivekit.h>

#include "commands.h"
#include "open_hive.h"
#include "progress.h"

namespace hivekit::cli {
namespace {

int runRecover(Context& ctx) {
  const std::string& path = ctx.operand(0);
  if (!ctx.args.has("-o")) return usageError(ctx.command, "missing -o OUT");
  const std::string target = ctx.args.value("-o");
  if (target.empty() || target == "-") return usageError(ctx.command, "-o needs a file name");

  Hive hive;
  if (!openHive(ctx, path, hive)) return EXIT_FAILED;
  const HiveInfo info = hive.info();
  if (info.dirty && info.log_mode == LogMode::none)
    warn("no log applies to '" + path + "': the copy holds the hive as stored, marked clean");
  // The library refuses a target that is the hive or one of its logs, and
  // leaves nothing behind when the copy cannot be written.
  Status status;
  {
    ProgressThread progress("recover", [&target] { return fileSize(target); });
    status = hive.recover(target);
  }
  if (!status) return fail(status);

  std::string applied;
  static const char* const labels[3] = {".LOG", ".LOG1", ".LOG2"};
  for (int i = 0; i < 3; ++i) {
    const LogInfo& log = info.logs[i];
    if (log.applied == 0) continue;
    applied += applied.empty() ? "" : ", ";
    applied += std::string(labels[i]) + " " + std::to_string(log.applied) +
               (log.new_format ? (log.applied == 1 ? " entry" : " entries") : " dirty pages");
  }
  if (info.applied_log >= 0 && info.applied_log <= 2 && info.logs[info.applied_log].new_format)
    applied += " up to sequence " + std::to_string(info.applied_sequence);
  return print("wrote " + target + ": " + std::to_string(4096ull + info.hive_bins_size) + " bytes, " +
               (applied.empty() ? std::string("no log applied") : "applied " + applied) + "\n");
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
    "-o=",
    {1, 1},
    Access::read,
    runRecover};

}  // namespace hivekit::cli
