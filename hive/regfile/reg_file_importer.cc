#include "hive/regfile/reg_file_importer.h"

#include "hive/format/errors.h"
#include "hive/util/util.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::ValueTypes::Binary;
using Platform::u8;

const Platform::Log::Channel regImporterLog("HiveRegImporter");

namespace {

// Longest key name a record holds (in characters).
constexpr size_t MAX_KEY_NAME = 255;

bool equalIgnoreCase(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i] != b[i] && String::upcase(a[i]) != String::upcase(b[i])) return false;
  return true;
}

// `text` starting with `prefix`, case ignored.
bool startsWithIgnoreCase(std::u16string_view text, std::u16string_view prefix) {
  return text.size() >= prefix.size() && equalIgnoreCase(text.substr(0, prefix.size()), prefix);
}

std::u16string hexNumber(u32 v) {
  static constexpr char16_t HEX[] = u"0123456789abcdef";
  std::u16string s;
  do {
    s.insert(s.begin(), HEX[v & 0xF]);
    v >>= 4;
  } while (v != 0);
  return s;
}

std::u16string quoted(std::u16string_view text) {
  return quotedForMessage(text);
}

}  // namespace

RegFileImportHandler::RegFileImportHandler(Ref<RegistryHive> hive, const Ref<String>& prefix,
                                           RegFileDiagnostics errors, bool trace, bool apply)
    : _hive(std::move(hive)),
      _prefix(Util::regPathToWindowsStyle(prefix)->units()),
      _errors(std::move(errors)),
      _trace(trace),
      _apply(apply) {}

bool RegFileImportHandler::take(const RegItem& item) {
  switch (item.kind) {
    case RegItem::Kind::section:
    case RegItem::Kind::deletedSection:
      return section(item);
    case RegItem::Kind::value:
    case RegItem::Kind::deletedValue:
      if (!_inKey) {
        report(item.line, u"Invalid regfile, first value before first key");
        return false;
      }
      if (!_apply) {
        if (item.kind == RegItem::Kind::value && item.size >= RegFileReader::DATA_PIECE)
          _largeSizes[item.line] = item.size;
        return true;
      }
      if (item.kind == RegItem::Kind::value) return setValue(item);
      return deleteValue(item, String::fromUtf16(item.name));
  }
  return false;
}

bool RegFileImportHandler::splitPath(const RegItem& item, std::vector<std::u16string_view>& parts) {
  std::u16string_view path(item.path);
  // The prefix must end at a name boundary: prefix "A" does not cover "AB".
  std::u16string_view rest;
  bool match = startsWithIgnoreCase(path, _prefix);
  if (match) {
    rest = path.substr(_prefix.size());
    if (!_prefix.empty() && _prefix.back() != u'\\' && !rest.empty() && rest[0] != u'\\') match = false;
  }
  if (!match) {
    report(item.line, u"Prefix mismatch while importing reg file, key: " + quoted(path) + u", prefix: " +
                          quoted(_prefix));
    return false;
  }
  if (!rest.empty() && rest[0] == u'\\') rest.remove_prefix(1);
  if (rest.empty()) return true;
  for (size_t begin = 0;;) {
    size_t end = rest.find(u'\\', begin);
    if (end == std::u16string_view::npos) end = rest.size();
    if (end == begin) {
      report(item.line, u"Invalid path: " + quoted(path));
      return false;
    }
    if (end - begin > MAX_KEY_NAME) {
      report(item.line, u"Key name longer than 255 characters: " + quoted(rest.substr(begin, end - begin)));
      return false;
    }
    parts.push_back(rest.substr(begin, end - begin));
    if (parts.size() >= Util::MAX_TREE_DEPTH) {
      report(item.line, u"Key tree deeper than 512 levels at: " + quoted(path));
      return false;
    }
    if (end == rest.size()) return true;
    begin = end + 1;
  }
}

bool RegFileImportHandler::section(const RegItem& item) {
  const bool deleting = item.kind == RegItem::Kind::deletedSection;
  _inKey = false;
  _current = nullptr;
  std::vector<std::u16string_view>& parts = _parts;
  parts.clear();
  if (!splitPath(item, parts)) return false;
  if (deleting && parts.empty()) {
    report(item.line, u"Failed to delete key: the root key cannot be deleted, path: " + quoted(item.path));
    return false;
  }
  if (_apply) {
    if (!root(item.line)) return false;
    if (!(deleting ? deleteSection(item, parts) : openSection(item, parts))) return false;
  }
  _inKey = !deleting;
  return true;
}

bool RegFileImportHandler::root(u64 line) {
  if (!_chain.empty()) return true;
  Ref<Key> root = _hive ? _hive->root() : nullptr;
  if (!root) {
    report(line, u"Failed to get root key");
    return false;
  }
  _chain.push_back(std::move(root));
  return true;
}

bool RegFileImportHandler::openSection(const RegItem& item, const std::vector<std::u16string_view>& parts) {
  size_t common = 0;
  while (common < parts.size() && common < _chainNames.size() &&
         equalIgnoreCase(parts[common], _chainNames[common]))
    ++common;
  _chain.resize(common + 1);
  _chainNames.resize(common);
  bool created = false;

  for (size_t i = common; i < parts.size(); ++i) {
    Ref<String> name = String::fromUtf16(parts[i].data(), parts[i].size());
    const Ref<Key>& parent = _chain.back();
    // Creating first costs one lookup for a new key (the common case of an
    // import) and two for an existing one.
    Platform::Error::set(0);
    Ref<Key> key = parent->createKey(name);
    created = key != nullptr;
    if (key) {
      if (_trace) report(item.line, u"Create new key: " + quoted(item.path), 1);
    } else {
      const u32 error = Platform::Error::get();
      if (error == Errors::KEY_EXISTS) key = parent->key(name);
      if (!key) {
        report(item.line, u"Failed to create key: " + quoted(parts[i]) + u", path: " + quoted(item.path) +
                              u", error: " + hexNumber(error));
        return false;
      }
    }
    _chain.push_back(std::move(key));
    _chainNames.emplace_back(parts[i]);
  }
  _current = _chain.back();
  _currentIsNew = created;
  _namesSet.clear();
  return true;
}

bool RegFileImportHandler::deleteSection(const RegItem& item, const std::vector<std::u16string_view>& parts) {
  // Keys below the root may be about to go; start the next section afresh.
  _chain.resize(1);
  _chainNames.clear();
  Ref<Key> parent;
  Ref<Key> key = _chain[0];
  for (std::u16string_view part : parts) {
    parent = std::move(key);
    key = parent->key(String::fromUtf16(part.data(), part.size()));
    if (!key) return true;  // nothing to delete
  }
  if (!Util::recursiveKeyDelete(parent, key)) {
    report(item.line, u"Failed to delete key: " + quoted(item.path));
    return false;
  }
  return true;
}

bool RegFileImportHandler::mayExist(const Ref<String>& name, bool willExist) {
  if (!_currentIsNew) return true;
  std::u16string upper = name->upperUnits();
  if (willExist) return !_namesSet.insert(std::move(upper)).second;
  return _namesSet.erase(upper) != 0;
}

bool RegFileImportHandler::deleteValue(const RegItem& item, const Ref<String>& name) {
  if (!mayExist(name, false)) return true;
  Ref<Value> value = _current->value(name);
  if (value && !_current->deleteValue(value)) {
    report(item.line, u"Failed to delete value: " + quoted(item.name));
    return false;
  }
  return true;
}

bool RegFileImportHandler::openValue(const RegItem& item, u64 size) {
  HK_ASSERT(regImporterLog, _current != nullptr, false);
  const Ref<String> name = String::fromUtf16(item.name);
  Ref<Value> old = mayExist(name, true) ? _current->value(name) : nullptr;
  if (old && !_current->deleteValue(old)) {
    report(item.line, u"Failed to remove old value: " + quoted(item.name));
    return false;
  }
  // Made as binary, the one type whose data every hive lets a stripe
  // resize, and given its real type once the bytes are in.
  _value = _current->createValue(name, Binary);
  if (!_value) {
    report(item.line, u"Failed to create value: " + quoted(item.name) + u" of type: " + hexNumber(item.type));
    return false;
  }
  _stripe = _value->binary();
  return resizeValue(item, size);
}

bool RegFileImportHandler::resizeValue(const RegItem& item, u64 size) {
  if (_stripe && _stripe->setElementCount(size) == size) return true;
  report(item.line,
         u"Failed to resize value: " + quoted(item.name) + u" to " + decimalText(size) + u" bytes");
  return false;
}

bool RegFileImportHandler::writePiece(const RegItem& item) {
  const u64 length = item.data.size();
  if (length != 0 && _stripe->writeAt(item.size - length, item.data.data(), length) != length) {
    report(item.line, u"Failed to write data of value: " + quoted(item.name));
    return false;
  }
  return true;
}

bool RegFileImportHandler::takePiece(const RegItem& item) {
  if (!item.streamed) {
    if (!_inKey) {
      report(item.line, u"Invalid regfile, first value before first key");
      return false;
    }
    // The size the checking pass found; without one the value grows with
    // each piece.
    auto known = _largeSizes.find(item.line);
    if (!openValue(item, known != _largeSizes.end() ? known->second : item.size)) return false;
  } else if (_stripe->elementCount() < item.size && !resizeValue(item, item.size)) {
    return false;
  }
  return writePiece(item);
}

bool RegFileImportHandler::setValue(const RegItem& item) {
  if (!item.streamed && !openValue(item, item.size)) return false;
  // A streamed value made from the checked size must come out at it (the
  // file could have changed between the passes).
  if (item.streamed && _stripe->elementCount() != item.size && !resizeValue(item, item.size)) return false;
  if (!writePiece(item)) return false;
  if (item.type != Binary && !_value->setType(item.type)) {
    report(item.line,
           u"Failed to set type of value: " + quoted(item.name) + u" of type: " + hexNumber(item.type));
    return false;
  }
  _value = nullptr;
  _stripe = nullptr;
  return true;
}

void RegFileImportHandler::report(u64 line, std::u16string_view message, int level) const {
  if (_errors) {
    _errors("line " + std::to_string(line) + ": " + Platform::utf16ToUtf8(message));
  } else {
    HK_LOG(regImporterLog, level) << "line " << line << ": " << std::u16string(message);
  }
}

}  // namespace Libraries::Files::Hive
