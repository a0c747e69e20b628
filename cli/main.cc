// hivekit: inspect and change Windows registry hive files.
//
//   hivekit COMMAND [options] ARGS...
//
// Each command is described by a Command record (cli/command.h) in its own
// file; this file parses the shared part of the command line and runs it.
#include <hivekit/log.h>
#include <hivekit/version.h>

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"

namespace hivekit::cli {
namespace {

const Command* const COMMANDS[] = {
    &INFO_COMMAND,    &LS_COMMAND,     &GET_COMMAND,  &FIND_COMMAND, &TIMELINE_COMMAND, &DIFF_COMMAND,
    &DELETED_COMMAND, &EXPORT_COMMAND, &DUMP_COMMAND, &SD_COMMAND,   &RECOVER_COMMAND,  &NEW_COMMAND,
    &MKKEY_COMMAND,   &SET_COMMAND,    &RM_COMMAND,   &MV_COMMAND,   &IMPORT_COMMAND};

const char COMMON_HELP[] =
    "Options every command takes:\n"
    "  --codepage CP  how 8-bit key and value names are read and written: ascii,\n"
    "                 latin1 (the default; byte = character, as Windows reads them),\n"
    "                 windows1250 or windows1252\n"
    "  --no-logs      ignore the transaction logs beside HIVE\n"
    "  --log FILE     use FILE as a transaction log instead of looking for\n"
    "                 HIVE.LOG, HIVE.LOG1 and HIVE.LOG2 (any case of the extension);\n"
    "                 repeatable, the slot follows FILE's extension\n"
    "  --verbose      show the library's log on standard error\n"
    "  --wait         when another process has the hive open for writing (or, for\n"
    "                 a writing command, at all), wait for it instead of failing\n"
    "                 with \"in use by another process\"\n"
    "  -h, --help     show this help\n";

const char READ_HELP[] =
    "Reading commands open the hive read-only and never change it or its logs.\n"
    "  --dirty        open a dirty hive (sequence numbers differ) whose logs cannot\n"
    "                 be applied, as it is\n"
    "  --unsafe       read the whole file into memory and serve records from that\n"
    "                 copy (for damaged hives)\n";

const char WRITE_HELP[] =
    "Writing commands open the hive read-write and flush the changes at the end:\n"
    "the changed pages go to HIVE.LOG1 first (made when missing; with --no-logs the\n"
    "hive is written in place), so that a crash leaves the hive as before the\n"
    "command or after it. A change that fails leaves the hive as it was.\n"
    "  --time T       stamp changed keys and the hive with the UTC time T\n"
    "                 (2024-03-01T12:00:00Z) instead of the clock; without it the\n"
    "                 SOURCE_DATE_EPOCH environment variable (seconds since 1970)\n"
    "                 fixes the time when set\n";

void printGeneralHelp(FILE* out) {
  std::fputs(
      "usage: hivekit COMMAND [options] HIVE ...\n"
      "       hivekit --version\n"
      "Inspect and change Windows registry hive files.\n\nCommands:\n",
      out);
  for (const Command* c : COMMANDS) std::fprintf(out, "  %-8s %s\n", c->name, c->summary);
  std::fputs(
      "\n  --version  show the version of hivekit\n"
      "\nKEYPATH is backslash-separated (quote it for the shell); a leading \\ is\n"
      "optional and \\ or \"\" is the root key. 'hivekit COMMAND --help' tells more.\n"
      "Exit status: 0 success, 1 failure, 2 usage error.\n",
      out);
}

void printCommandHelp(const Command* c) {
  std::printf("usage: hivekit %s\n%s\n\n%s\n%s", c->synopsis, c->summary, c->details, COMMON_HELP);
  std::fputs(c->writes() ? WRITE_HELP : READ_HELP, stdout);
}

int run(int argc, char** argv) {
  if (argc < 2) {
    printGeneralHelp(stderr);
    return EXIT_USAGE;
  }
  std::string name = argv[1];
  if (name == "--version") {
    std::printf("hivekit %.*s\n", static_cast<int>(version().size()), version().data());
    return EXIT_OK;
  }
  if (name == "--help" || name == "-h" || name == "help") {
    if (name == "help" && argc > 2) {
      for (const Command* c : COMMANDS)
        if (argv[2] == std::string(c->name)) {
          printCommandHelp(c);
          return EXIT_OK;
        }
    }
    printGeneralHelp(stdout);
    return EXIT_OK;
  }
  const Command* command = nullptr;
  for (const Command* c : COMMANDS)
    if (name == c->name) command = c;
  if (!command) return usageError(nullptr, "unknown command '" + name + "'");

  Context ctx;
  ctx.command = command;
  std::vector<OptionSpec> optionList = optionSpecs(COMMON_OPTIONS);
  for (OptionSpec& own : optionSpecs(command->options)) optionList.push_back(std::move(own));
  std::string error;
  if (!parseArgs(std::vector<std::string>(argv + 2, argv + argc), optionList, ctx.args, error) ||
      !readCommonOptions(ctx.args, command->writes(), ctx.common, error)) {
    return usageError(command, error);
  }
  if (ctx.common.help) {
    printCommandHelp(command);
    return EXIT_OK;
  }
  if (command->writes() && (ctx.common.dirty || ctx.common.unsafe))
    return usageError(command, "--dirty and --unsafe are for reading commands only");
  if (ctx.operandCount() < command->operands.min) return usageError(command, "missing arguments");
  if (ctx.operandCount() > command->operands.max) return usageError(command, "too many arguments");
  if (ctx.common.verbose) set_log(LogLevel::trace);
  return command->run(ctx);
}

}  // namespace
}  // namespace hivekit::cli

int main(int argc, char** argv) {
  return hivekit::cli::run(argc, argv);
}
