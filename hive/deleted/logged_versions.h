// Previous versions of keys and values from the transaction logs.
//
// Each log entry (and the dirty pages of an old-format log) holds images of
// hive pages as they were when it was written. Older entries thus keep keys
// and values as they stood before later entries changed or deleted them.
// This scan reads every entry of every log the hive was opened with (read
// only; nothing is replayed or written) and looks at every 8-byte position
// of its page images for "nk" and "vk" records, read with the checks the
// deleted scan applies to free space (parseKeyRecord, parseValueRecord,
// within the room the image and the record's size field give).
//
// A record found there is a previous version when the hive as it reads now
// does not show it:
//  - a key, unless the hive holds the same bytes at its offset (unchanged,
//    or left over where the deleted scan lists it), or a live key there
//    with the same name and parent (only its counts or time changed);
//  - a value, unless the hive holds the same bytes at its offset with the
//    same data, or a live value there with the same name, type and data.
// What is rebuilt:
//  - a key's path from its parent offset, through live keys and the keys of
//    the same entry's images, else below the placeholder root `\?`;
//  - a value's key: a key of the same entry whose value list (in the
//    images) names it, else the live key that lists it (or names it behind
//    its count), else none (below `\?`);
//  - a value's data from the same entry's images, else from records of the
//    hive that no live record uses, when their sizes fit (one data record,
//    or a db record, its list and fragments); else it is unavailable.
// Items are marked `previous`, with the log, the entry's sequence number
// and the record's position in the log. Entries are read oldest first (by
// sequence number); a version seen again in a later entry is listed once.
//
// Bounds: linear in the size of the logs, with the work bound of the
// deleted scan; memory one entry's pages (twice), what is found in them,
// the live records, and one hash per version listed.
#pragma once

#include <functional>

#include "hive/deleted/deleted_scan.h"
#include "hive/deleted/live_records.h"

namespace Libraries::Files::Hive {

// Hands every previous version to `visit` and counts them in `result`
// (complete and stopped as for scanDeleted).
void scanLoggedVersions(RegistryHiveObj& hive, const LiveRecords& live,
                        const std::function<bool(const DeletedItem&)>& visit, DeletedScanResult& result);

}  // namespace Libraries::Files::Hive
