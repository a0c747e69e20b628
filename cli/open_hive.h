// Opening the hive a command works on, and finding keys by the paths users
// type.
#pragma once

#include <hivekit/hive.h>
#include <hivekit/key.h>

#include <string>
#include <vector>

#include "command.h"

namespace hivekit::cli {

// Opens HIVE read-only for a reading command (with --dirty, --unsafe) or
// read-write for a writing one. Logs come from --log, else from beside
// HIVE unless --no-logs. On failure reports it and returns false.
bool openHive(const Context& ctx, const std::string& path, Hive& out);

// Splits a KEYPATH as the library reads libraryPath(KEYPATH): at
// backslashes, those at either end ignored, "\" or "" for the root. False
// for an empty name inside it ("a\\b").
bool splitKeyPath(const std::string& keyPath, std::vector<std::string>& parts);

// KEYPATH in the form the library reads it: with a leading backslash, so
// that it is split at backslashes only and "/" stays part of a name.
std::string libraryPath(const std::string& keyPath);

// The key at KEYPATH. On failure reports it (the part of the path not
// found, or why it cannot be read) and returns false.
bool findKey(const Hive& hive, const std::string& keyPath, Key& out);
// The same, and the names of the keys on the way from the root to it as
// they are stored (the letter case of the hive, not of KEYPATH).
bool findKey(const Hive& hive, const std::string& keyPath, Key& out, std::vector<std::string>& names);
// Opens the hive of the first operand and finds the key of the optional
// second (the root when it is absent), with the names on the way to it.
// False once a failure is reported.
bool openAt(const Context& ctx, Hive& hive, Key& key, std::vector<std::string>& names);

}  // namespace hivekit::cli
