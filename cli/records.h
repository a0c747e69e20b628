// Keys and values as the --json forms show them, shared by every command
// so that a key or a value reads the same wherever it appears.
//
// Key:   {"path", "name", "last_write" (ISO 8601 UTC, 100 ns),
//         "last_write_filetime", "class_name", "subkeys", "values" (the
//         counts the key's record holds), "offset" (of its record)}
// Value: {"name", "type" (number), "type_name" ("REG_SZ", ..., null for a
//         number without a name), "size", "data" (string, number, list of
//         strings, or null: see valueData), "raw" (lowercase hex of the
//         bytes), and "error" when the data could not be read completely}
#pragma once

#include <hivekit/hivekit.h>

#include <string>
#include <string_view>
#include <vector>

#include "json.h"
#include "tree_walk.h"

namespace hivekit::cli {

// A key's path from the root with names as they are ("\\" for the root),
// and the path of a subkey below it.
std::string rawPath(const std::vector<std::string>& names);
std::string childPath(const std::string& parent, const std::string& name);

// The members of a key object (without the braces). `path` is the key's
// path from the root as the command built it.
void keyMembers(JsonWriter& j, const Key& key, std::string_view path);
// The members of a value object; `data` is the value's data as read (on
// failure, the part that could be).
void valueMembers(JsonWriter& j, const Value& value, const Result<Bytes>& data);
// A short preview of the data for people: a string quoted and cut at 60
// characters, a number in decimal and hex, else the first 16 bytes in hex;
// when `data` is only the start of the value's data, its first 16 bytes.
std::string preview(const Value& value, const Bytes& data);

// A whole value object.
void valueObject(JsonWriter& j, const Value& value, const Result<Bytes>& data);

// The JSON line of a visited key: its members and its values with their
// data, which `walk` is charged for. False once the walk is over budget.
bool writeKeyLine(TreeWalk& walk, const TreeWalk::Visit& v, std::string& out);

}  // namespace hivekit::cli
