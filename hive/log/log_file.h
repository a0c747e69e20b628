// What the hive keeps of one transaction log (.LOG, .LOG1, .LOG2).
//
// A log starts with a copy of a base block (file type 1 or 2: old format
// with a "DIRT" dirty vector; 6: new format, a run of "HvLE" entries).
// Validation fills this record; replay and writing through the log use it.
#pragma once

#include <string>
#include <vector>

#include "hive/format/format.h"
#include "platform/string.h"
#include "platform/stripe.h"

namespace Libraries::Files::Hive {

struct LogEntryInfo {
  u64 position = 0;  // of the entry in the log file
  u8 header[hive_log_entry::SIZE] = {};
  u32 sequence() const { return L32(header + hive_log_entry::OFS_SEQ); }
  u32 size() const { return L32(header + hive_log_entry::OFS_SIZE); }
  u32 hiveLength() const { return L32(header + hive_log_entry::OFS_LENGTH); }
  u32 pageCount() const { return L32(header + hive_log_entry::OFS_COUNT); }
};

struct DirtyPage {
  u8 mask = 0;       // dirty 512-byte sectors of the page, bit 0 first
  u32 offset = 0;    // in the hive bins data
  u64 position = 0;  // of the page's data in the log
};

struct LogFileInfo {
  Ref<Interfaces::Stripe> stripe;
  Ref<String> name;
  u8 header[hive_header::BASE_SIZE] = {};  // all zeros when absent
  std::vector<LogEntryInfo> entries;
  std::vector<DirtyPage> pages;
  // Why the log cannot serve recovery, for reports ("" when it can).
  std::string state;
  // A read of the log failed where the log holds bytes: what it would add
  // to recovery is unknown (a damaged log is not this).
  bool unreadable = false;
  // Entries (new format) or dirty pages (old format) replayed from this log
  // when the hive was opened.
  u32 applied = 0;

  bool present() const { return L32(header) != 0; }
  u32 primarySequence() const { return L32(header + hive_header::OFS_PRIMARY_SEQ); }
  u32 secondarySequence() const { return L32(header + hive_header::OFS_SECONDARY_SEQ); }
  u32 fileType() const { return L32(header + hive_header::OFS_TYPE); }
  bool newFormat() const { return present() && fileType() == 6; }
};

}  // namespace Libraries::Files::Hive
