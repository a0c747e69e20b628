// scan_deleted: the engine's scan for unlinked records, in the public
// types (UTF-8 names, byte spans).
#include "hivekit/deleted.h"

#include "api/core.h"
#include "hive/deleted/deleted_scan.h"

namespace hivekit {

using detail::Access;
using detail::Call;
namespace H = Libraries::Files::Hive;

namespace {

DeletedCell::Kind cellKind(H::DeletedCell::Kind kind) {
  switch (kind) {
    case H::DeletedCell::nk:
      return DeletedCell::Kind::nk;
    case H::DeletedCell::vk:
      return DeletedCell::Kind::vk;
    case H::DeletedCell::sk:
      return DeletedCell::Kind::sk;
    case H::DeletedCell::valueList:
      return DeletedCell::Kind::value_list;
    case H::DeletedCell::data:
      return DeletedCell::Kind::data;
    case H::DeletedCell::db:
      return DeletedCell::Kind::db;
    case H::DeletedCell::fragmentList:
      break;
  }
  return DeletedCell::Kind::fragment_list;
}

void convert(const H::DeletedItem& from, DeletedItem& to) {
  to.kind = from.kind == H::DeletedItem::Kind::key     ? DeletedItem::Kind::key
            : from.kind == H::DeletedItem::Kind::value ? DeletedItem::Kind::value
                                                       : DeletedItem::Kind::security;
  to.state = from.previous ? DeletedItem::State::previous
             : from.intact ? DeletedItem::State::intact
                           : DeletedItem::State::partial;
  to.log = from.previous ? static_cast<int>(from.log) : -1;
  to.sequence = from.previous ? from.sequence : 0;
  to.log_offset = from.previous ? from.logPosition : 0;
  to.path.clear();
  for (const std::u16string& name : from.path) to.path.push_back(detail::toUtf8(name));
  to.orphan = from.orphan;
  to.name = detail::toUtf8(from.name);
  to.last_write = from.lastWriteTime;
  to.subkeys = from.subkeys;
  to.values = from.values;
  to.type = from.type;
  to.size = from.dataSize;
  to.data_available = from.dataAvailable && from.data != nullptr;
  to.data = to.data_available
                ? std::span<const std::byte>(reinterpret_cast<const std::byte*>(from.data), from.dataSize)
                : std::span<const std::byte>();
  to.references = from.references;
  to.cells.clear();
  for (const H::DeletedCell& cell : from.cells)
    to.cells.push_back({cellKind(cell.kind), cell.offset, cell.intact});
}

}  // namespace

Result<DeletedScanSummary> scan_deleted(const Hive& hive,
                                        const std::function<bool(const DeletedItem&)>& visit,
                                        const DeletedScanOptions& options) {
  Call call(Access::ref(hive));
  if (!call.ok()) return call.status();
  DeletedItem item;  // reused: its vectors keep their storage
  auto each = [&](const H::DeletedItem& found) {
    convert(found, item);
    return visit(item);
  };
  const H::DeletedScanResult result = H::scanDeleted(call.hive(), each, {.logs = options.logs});
  const DeletedScanSummary summary{result.keys,         result.values,         result.security,
                                   result.previousKeys, result.previousValues, result.stopped};
  if (!result.complete && !result.stopped)
    return {summary, Status(Code::too_large,
                            "the scan for deleted records stopped: the hive names its records "
                            "more often than a hive of its size can hold")};
  return summary;
}

std::string deleted_path(const DeletedItem& item) {
  std::string path = item.orphan ? "\\?" : "";
  for (const std::string& name : item.path) path += "\\" + name;
  return path.empty() ? "\\" : path;
}

}  // namespace hivekit
