// Opening and creating registry hive files.
//
//   Ref<HiveFile> h = HiveFile::open(String::create("/mnt/SYSTEM"), 0x1, latin1);
//   if (!h) { /* Error::get() and the log tell why */ }
//   Ref<Key> root = h->root();
//
// Mode flags (u32): 0x1 read-only, 0x2 write-through, 0x4 unsafe (read the
// whole file, serve damaged hives; only with 0x1), 0x8 every value resizable
// as a stripe, 0x10 accept a dirty hive when no log applies (only with 0x1),
// 0x20 linear fallback in subkey search when a probed name is unreadable.
#pragma once

#include <functional>

#include "hive/codepage.h"
#include "hive/interfaces.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::Key;
using Interfaces::Config::Hive::SecurityDescriptorIterator;
using Interfaces::Config::Hive::Value;
using Interfaces::Config::Hive::ValueType;

enum HiveMode : u32 {
  modeReadOnly = 0x1,
  modeWriteThrough = 0x2,
  modeUnsafe = 0x4,
  modeResizableValues = 0x8,
  modeAcceptDirty = 0x10,
  modeLinearFallback = 0x20,
};

class HiveFile : public Interfaces::Config::Hive::RegistryHive {
 public:
  using HiveCodepage = Libraries::Files::Hive::HiveCodepage;
  using SyncCallback = std::function<bool()>;

  // The three logs of a hive, in this order; any may be null.
  struct LogFiles {
    Ref<Interfaces::Stripe> primary;              // .LOG
    Ref<Interfaces::Stripe> log1;                 // .LOG1
    Ref<Interfaces::Stripe> log2;                 // .LOG2
    Ref<String> primaryName, log1Name, log2Name;  // for messages
    // Makes an empty .LOG1 when a flush needs a log and the hive has none
    // to write (log1 null). May be empty, or return null: the flush then
    // writes the hive in place, and a crash in the middle of it leaves a
    // dirty hive that only opens as stored (see flush.cc).
    std::function<Ref<Interfaces::Stripe>()> createLog1;
  };
  struct LogFileNames {
    Ref<String> primary;
    Ref<String> log1;
    Ref<String> log2;
  };

  // Walks the security descriptors from the root key's.
  virtual Ref<SecurityDescriptorIterator> securityDescriptorIterator() = 0;
  // Writes pending changes (then calls the sync callback). True on a
  // read-only hive. A true result means the bytes reached storage when
  // the sync callback syncs (the path overload's does). A crash or a
  // failure at any point leaves storage that opens, with the logs, as the
  // last completed flush or as this one (see flush.cc).
  virtual bool flush() = 0;
  virtual u32 mode() = 0;
  // The base block's sequence numbers differ.
  virtual bool dirty() = 0;

  // Opens by path, with the logs found beside it (".LOG", ".LOG1", ".LOG2").
  // Null on failure: 0x8445 null path, 0x10002 element size, otherwise see the log.
  static Ref<HiveFile> open(Ref<String> path, u32 mode, HiveCodepage codepage);
  static Ref<HiveFile> open(Ref<Interfaces::Stripe> stripe, u32 mode, HiveCodepage codepage,
                            SyncCallback sync);
  static Ref<HiveFile> open(Ref<Interfaces::Stripe> stripe, const LogFiles& logs, u32 mode,
                            HiveCodepage codepage, SyncCallback sync);

  // Writes a valid empty hive (base block, one hbin, a root key and one
  // security record) into the stripe, which must be empty, and opens it
  // writable. minorVersion is 3 or 5 (lf or lh subkey lists, db records).
  // `fileName` goes into the base block's file name field (its last 31
  // characters).
  // `fixedTime` (a FILETIME, 0 for the clock) stamps the base block and
  // the root key.
  static Ref<HiveFile> create(Ref<Interfaces::Stripe> stripe, u32 minorVersion, HiveCodepage codepage,
                              SyncCallback sync, const std::u16string& fileName = u"", u64 fixedTime = 0);
  // Creates (or truncates) the file at path; its sync reaches the disk.
  static Ref<HiveFile> create(Ref<String> path, u32 minorVersion, HiveCodepage codepage);

  // A stripe a hive can work on: not null (else logs `missing` and sets
  // 0x8445) and of 1-byte elements (else logs "<kind> with element size
  // != 1 not supported" and sets 0x10002).
  static bool usableStripe(const Interfaces::Stripe* stripe, const char* missing,
                           const char* kind = "Stripe object");

  // path + ".LOG", ".LOG1", ".LOG2". 0x8445 null, 0x8446 empty.
  static bool getLogFileNames(Ref<String> hiveFileName, LogFileNames& names);
};

}  // namespace Libraries::Files::Hive
