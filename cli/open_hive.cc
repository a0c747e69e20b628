#include "cli/open_hive.h"

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "platform/error.h"
#include "platform/file_stripe.h"

namespace hivekit::cli {

using Platform::FileStripe;

namespace {

bool equalsIgnoreCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(),
                    [](unsigned char x, unsigned char y) { return std::toupper(x) == std::toupper(y); });
}

// The slot of a log named explicitly, by its extension; 3 when it has none
// of the three.
int slotOfName(const std::string& path) {
  static const char* const ext[3] = {".LOG", ".LOG1", ".LOG2"};
  for (int i = 2; i >= 0; --i) {
    std::string e = ext[i];
    if (path.size() > e.size() && equalsIgnoreCase(path.substr(path.size() - e.size()), e)) return i;
  }
  return 3;
}

Ref<FileStripe> openLog(const std::string& path, bool writable) {
  if (path.empty()) return nullptr;
  u32 flags = FileStripe::Read | (writable ? static_cast<u32>(FileStripe::Write) : 0u);
  Ref<FileStripe> s = FileStripe::open(path, flags);
  // A log we may not write is still worth reading.
  if (!s && writable) s = FileStripe::open(path, FileStripe::Read);
  if (!s) {
    char hex[16];
    std::snprintf(hex, sizeof(hex), "0x%X", Platform::Error::get());
    warn("cannot open log file '" + path + "' (error " + hex + "); going on without it");
  }
  return s;
}

}  // namespace

LogNames findLogFiles(const std::string& hivePath) {
  LogNames out;
  size_t slash = hivePath.rfind('/');
  std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : hivePath.substr(0, slash));
  std::string base = slash == std::string::npos ? hivePath : hivePath.substr(slash + 1);
  std::string prefix = slash == std::string::npos ? "" : hivePath.substr(0, slash + 1);
  if (base.empty()) return out;
  DIR* d = opendir(dir.c_str());
  if (!d) return out;
  static const char* const ext[3] = {".LOG", ".LOG1", ".LOG2"};
  std::string* slot[3] = {&out.primary, &out.log1, &out.log2};
  bool exact[3] = {false, false, false};
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.size() <= base.size() || name.compare(0, base.size(), base) != 0) continue;
    std::string rest = name.substr(base.size());
    for (int i = 0; i < 3; ++i) {
      if (!equalsIgnoreCase(rest, ext[i])) continue;
      bool isExact = rest == ext[i];
      // Directory order is arbitrary: prefer the exact spelling, then the
      // smallest name, so the choice does not depend on it.
      if (slot[i]->empty() || (isExact && !exact[i]) || (isExact == exact[i] && prefix + name < *slot[i])) {
        *slot[i] = prefix + name;
        exact[i] = isExact;
      }
    }
  }
  closedir(d);
  return out;
}

bool openHive(Context& ctx, const std::string& path, OpenedHive& out) {
  using namespace Libraries::Files::Hive;
  const CommonOptions& c = ctx.common;
  bool writes = ctx.command->writes;
  u32 mode = writes ? 0u : static_cast<u32>(modeReadOnly);
  if (!writes && c.dirty) mode |= modeAcceptDirty;
  if (!writes && c.unsafe) mode |= modeUnsafe;

  ctx.beginOperation();
  Ref<FileStripe> file =
      FileStripe::open(path, writes ? (FileStripe::Read | FileStripe::Write) : FileStripe::Read);
  if (!file) {
    u32 code = Platform::Error::get();
    failWithCode(
        ctx, "cannot open '" + path + "'" + (code == Platform::Error::FILE_NOT_FOUND ? ": no such file" : ""),
        code);
    return false;
  }

  if (!c.logs.empty()) {
    std::string* slots[3] = {&out.logs.primary, &out.logs.log1, &out.logs.log2};
    for (const std::string& name : c.logs) {
      int slot = slotOfName(name);
      // A name without a known extension takes the first free slot,
      // alternate logs first (they are what current Windows writes).
      if (slot == 3 || !slots[slot]->empty()) {
        static const int order[3] = {1, 2, 0};
        slot = 3;
        for (int i : order)
          if (slots[i]->empty()) {
            slot = i;
            break;
          }
      }
      if (slot == 3) {
        usageError(ctx.command, "too many --log files");
        return false;
      }
      *slots[slot] = name;
    }
  } else if (!c.noLogs) {
    out.logs = findLogFiles(path);
  }

  HiveFile::LogFiles logs;
  Ref<FileStripe> l0 = openLog(out.logs.primary, writes);
  Ref<FileStripe> l1 = openLog(out.logs.log1, writes);
  Ref<FileStripe> l2 = openLog(out.logs.log2, writes);
  if (!l0) out.logs.primary.clear();
  if (!l1) out.logs.log1.clear();
  if (!l2) out.logs.log2.clear();
  logs.primary = l0;
  logs.log1 = l1;
  logs.log2 = l2;
  if (l0) logs.primaryName = String::create(out.logs.primary);
  if (l1) logs.log1Name = String::create(out.logs.log1);
  if (l2) logs.log2Name = String::create(out.logs.log2);

  // Logs reach the disk before the hive that depends on them.
  HiveFile::SyncCallback sync = [file, l0, l1, l2]() {
    bool ok = true;
    for (const Ref<FileStripe>& l : {l0, l1, l2})
      if (l && l->writable() && !l->sync()) ok = false;
    return file->sync() && ok;
  };

  ctx.beginOperation();
  out.file = HiveFile::open(Ref<Interfaces::Stripe>(file), logs, mode, c.codepage, sync);
  if (!out.file) {
    bool dirtyRefused = false;
    for (const std::string& m : ctx.diagnostics.messages())
      if (m.find("Sequence Number") != std::string::npos) dirtyRefused = true;
    fail(ctx, "cannot open hive '" + path + "'");
    if (dirtyRefused && !writes && !c.dirty)
      std::fputs("hivekit: the hive is dirty and no log applies; --dirty opens it as it is\n", stderr);
    return false;
  }
  out.hive = out.file.cast<RegistryHiveObj>();
  if (!out.hive) {
    fail(ctx, "cannot open hive '" + path + "': unexpected hive object");
    return false;
  }
  return true;
}

bool splitKeyPath(const std::string& keyPath, std::vector<std::string>& parts) {
  parts.clear();
  std::string p = keyPath;
  if (!p.empty() && p[0] == '\\') p.erase(0, 1);
  if (!p.empty() && p.back() == '\\') p.pop_back();
  if (p.empty()) return true;
  size_t start = 0;
  while (true) {
    size_t end = p.find('\\', start);
    std::string part = p.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (part.empty()) return false;
    parts.push_back(part);
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return true;
}

KeyRef openKeyPath(Context& ctx, KeyRef root, const std::string& keyPath, std::vector<std::string>* names) {
  std::vector<std::string> parts;
  if (!splitKeyPath(keyPath, parts)) {
    failWithCode(ctx, "invalid key path '" + keyPath + "': empty name between backslashes",
                 Libraries::Files::Hive::Errors::INVALID_ARGUMENT);
    return nullptr;
  }
  KeyRef key = root;
  std::string walked;
  for (const std::string& part : parts) {
    walked += "\\" + part;
    ctx.beginOperation();
    KeyRef next = key->key(String::create(part));
    if (!next) {
      fail(ctx, "key not found: " + walked);
      return nullptr;
    }
    if (names) names->push_back(utf8(next->name()));
    key = next;
  }
  return key;
}

std::string utf8(const Ref<String>& s) {
  return s ? s->toUtf8() : std::string();
}

}  // namespace hivekit::cli
