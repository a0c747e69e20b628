// Taking a failed change back: the record store keeps the old bytes of each
// write made since beginChange(), and endChange(false) writes them back in
// reverse order, so that every intermediate state a change passed through
// is undone, then drops the hbins the change appended.
#include <cstring>

#include "hive/registry_hive.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

void RegistryHiveObj::beginChange() {
  if (_changeDepth++ > 0 || readonly()) return;
  _undo.clear();
  _changeHbins = static_cast<u32>(_hbins.size());
  _changeFileSize = _fileSize;
  std::memcpy(_changeHeader, _header, sizeof _changeHeader);
}

void RegistryHiveObj::noteUndo(u32 hbinIdx, u32 offsetInHbin, u32 length) {
  // An hbin the change appended goes as a whole.
  if (hbinIdx >= _changeHbins) return;
  const u8* at = hbinData(hbinIdx) + offsetInHbin;
  _undo.push_back(Undo{hbinIdx, offsetInHbin, _dirty[hbinIdx], std::vector<u8>(at, at + length)});
}

void RegistryHiveObj::endChange(bool keep) {
  if (_changeDepth == 0 || --_changeDepth > 0 || readonly()) return;
  if (keep) {
    _undo.clear();
    return;
  }
  // Put back what the store would have handed out before the change; the
  // error the change failed with stays the one reported.
  const u32 error = Error::get();
  _replaying = true;
  std::vector<u32> touched;
  for (auto it = _undo.rbegin(); it != _undo.rend(); ++it) {
    writeHBIN(it->hbin, it->offsetInHbin, it->bytes.data(), static_cast<u32>(it->bytes.size()));
    if ((_mode & modeWriteThrough) == 0) _dirty[it->hbin] = it->wasDirty;
    touched.push_back(it->hbin);
  }
  _replaying = false;
  _undo.clear();
  while (_hbins.size() > _changeHbins) dropLastHbin();
  for (u32 hbin : touched) updateFreeSpace(hbin);
  std::memcpy(_header, _changeHeader, sizeof _header);
  if ((_mode & modeWriteThrough) && std::memcmp(_header, _diskHeader, sizeof _header) != 0 && !writeHeader())
    HK_LOG(hiveLog, 4) << "Failed to write header back after a failed change; left to the next flush";
  // A file grown for the change is cut back (in a log mode the growth was
  // never the file's).
  if (_fileSize > _changeFileSize && _stripe->setElementCount(_changeFileSize) == _changeFileSize)
    _fileSize = _changeFileSize;
  Error::set(error);
}

}  // namespace Libraries::Files::Hive
