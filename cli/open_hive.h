// Opening the hive a command works on, with its transaction logs, and
// finding keys by the paths users type.
#pragma once

#include <string>
#include <vector>

#include "cli/command.h"
#include "hive/registry_hive.h"

namespace hivekit::cli {

using Libraries::Files::Hive::HiveFile;
using Libraries::Files::Hive::RegistryHiveObj;
using Platform::makeRef;
using Platform::Ref;
using Platform::String;
using KeyRef = Platform::Ref<Interfaces::Config::Hive::Key>;
using ValueRef = Platform::Ref<Interfaces::Config::Hive::Value>;

// The log files of a hive: HIVE.LOG, HIVE.LOG1, HIVE.LOG2 beside it, the
// extension in any letter case (an exact upper-case match wins). Empty
// strings for the ones not found.
struct LogNames {
  std::string primary, log1, log2;
};
LogNames findLogFiles(const std::string& hivePath);

struct OpenedHive {
  Ref<HiveFile> file;
  Ref<RegistryHiveObj> hive;
  LogNames logs;  // the log files handed to the library
};

// Opens HIVE for a reading command (mode 0x1, plus 0x10 for --dirty and
// 0x4 for --unsafe; the file and its logs are opened read-only) or, when
// the command writes, read-write (mode 0). Logs come from --log, else from
// findLogFiles unless --no-logs. On failure reports it and returns false.
bool openHive(Context& ctx, const std::string& path, OpenedHive& out);

// Splits a KEYPATH: backslash-separated, a leading "\" optional, "\" or ""
// for the root. False for an empty component ("a\\b").
bool splitKeyPath(const std::string& keyPath, std::vector<std::string>& parts);

// Walks from `root` one component at a time (a name may hold "/"). On a
// missing component reports "key not found: ..." and returns null. `names`
// receives the names as stored in the hive, when given.
KeyRef openKeyPath(Context& ctx, KeyRef root, const std::string& keyPath,
                   std::vector<std::string>* names = nullptr);

// The name of a key or value as UTF-8 (empty for a null string).
std::string utf8(const Ref<String>& s);

}  // namespace hivekit::cli
