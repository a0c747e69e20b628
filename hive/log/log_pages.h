// The page images a log holds, for readers that look at older versions of
// the hive (hive/deleted/logged_versions.h). Nothing here is replayed or
// written: the log is only read.
//
// A new-format entry carries references (offset and size in the hive bins
// data) followed by their data without gaps; an old-format log carries
// whole pages of which only the sectors its dirty vector marks count,
// packed one run after the other (as replay reads them). Both are handed
// out as ranges: where the bytes belong in the hive bins data and where
// they stand in the log. Every reference is checked as replay checks it
// (whole pages, inside the entry; inside the log); the first one that is
// not ends the walk.
#pragma once

#include <functional>

#include "hive/log/log_file.h"

namespace Libraries::Files::Hive {

struct LoggedRange {
  u32 offset;    // in the hive bins data
  u32 length;    // bytes
  u64 position;  // of the bytes in the log
};

// The ranges of one accepted entry of a new-format log, in reference
// order. `visit` returns false to stop. False when a reference is damaged
// or cannot be read (the ranges before it were handed out).
bool forEachEntryRange(const LogFileInfo& log, const LogEntryInfo& entry,
                       const std::function<bool(const LoggedRange&)>& visit);

// The dirty sector runs of an old-format log, in page order. False when a
// run lies beyond the end of the log.
bool forEachDirtyRun(const LogFileInfo& log, const std::function<bool(const LoggedRange&)>& visit);

}  // namespace Libraries::Files::Hive
