#include "open_hive.h"

#include <cstdio>

namespace hivekit::cli {

bool openHive(const Context& ctx, const std::string& path, Hive& out) {
  const CommonOptions& c = ctx.common;
  OpenOptions options;
  options.writable = ctx.command->writes();
  options.accept_dirty = c.dirty;
  options.in_memory = c.unsafe;
  options.codepage = c.codepage;
  options.wait = c.wait;
  options.fixed_time = c.time;
  if (!c.logs.empty()) {
    options.logs = Logs::named;
    options.log_files = c.logs;
  } else if (c.noLogs) {
    options.logs = Logs::none;
  }
  Result<Hive> opened = Hive::open(path, options);
  if (!opened) {
    fail(opened.status());
    if (opened.status().code() == Code::dirty)
      std::fputs(ctx.command->writes()
                     ? "hivekit: name the hive's logs with --log FILE, or write a clean copy of the hive as "
                       "stored with 'hivekit recover --dirty'\n"
                     : "hivekit: --dirty reads the hive as stored; --log FILE names its logs\n",
                 stderr);
    return false;
  }
  out = std::move(*opened);
  return true;
}

bool splitKeyPath(const std::string& keyPath, std::vector<std::string>& parts) {
  Result<std::vector<std::string>> split = split_path(libraryPath(keyPath));
  if (!split) return false;
  parts = std::move(*split);
  return true;
}

std::string libraryPath(const std::string& keyPath) {
  return !keyPath.empty() && keyPath[0] == '\\' ? keyPath : "\\" + keyPath;
}

bool findKey(const Hive& hive, const std::string& keyPath, Key& out) {
  Result<Key> found = hive.key(libraryPath(keyPath));
  if (!found) {
    fail(found.status());
    return false;
  }
  out = *found;
  return true;
}

bool findKey(const Hive& hive, const std::string& keyPath, Key& out, std::vector<std::string>& names) {
  if (!findKey(hive, keyPath, out)) return false;
  std::vector<std::string> parts;
  names.clear();
  if (!splitKeyPath(keyPath, parts)) return true;
  Key at = hive.root();
  for (const std::string& part : parts) {
    Result<Key> next = at.subkey(part);
    names.push_back(next ? next->name() : part);
    if (next) at = *next;
  }
  return true;
}

bool openAt(const Context& ctx, Hive& hive, Key& key, std::vector<std::string>& names) {
  return openHive(ctx, ctx.operand(0), hive) &&
         findKey(hive, ctx.operandCount() > 1 ? ctx.operand(1) : "", key, names);
}

}  // namespace hivekit::cli
