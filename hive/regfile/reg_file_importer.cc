#include "hive/regfile/reg_file_importer.h"

#include "hive/errors.h"
#include "hive/util/util.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::ValueTypes::Binary;
using Interfaces::Config::Hive::ValueTypes::Dword;
using Platform::u64;
using Platform::u8;

const Platform::Log::Channel regImporterLog("HiveRegImporter");

namespace {

constexpr std::u16string_view VERSION_LINE = u"Windows Registry Editor Version 5.00";
// Data quoted in diagnostics is cut to this many characters: a hostile
// file may hold megabytes in one entry.
constexpr size_t MAX_QUOTED_DATA = 200;

bool isBlank(char16_t c) {
  return c == u' ' || c == u'\t';
}

int hexDigit(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

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

// 1 to 8 hex digits filling the whole view.
bool parseHex32(std::u16string_view digits, u32& out) {
  if (digits.empty() || digits.size() > 8) return false;
  out = 0;
  for (char16_t c : digits) {
    int d = hexDigit(c);
    if (d < 0) return false;
    out = (out << 4) | static_cast<u32>(d);
  }
  return true;
}

// True when every backslash of a string's text starts an escape ("\\" or
// "\""), as in text written by regedit.
bool validlyEscaped(std::u16string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != u'\\') continue;
    if (i + 1 < text.size() && (text[i + 1] == u'\\' || text[i + 1] == u'"'))
      ++i;
    else
      return false;
  }
  return true;
}

// The text between the quotes of a string entry, with escapes undone in a
// file whose strings are escaped.
std::u16string unquote(std::u16string_view text, bool escapedFile) {
  if (!escapedFile || !validlyEscaped(text)) return std::u16string(text);
  std::u16string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'\\') ++i;
    out += text[i];
  }
  return out;
}

// First pass over a file: are its strings escaped? Regedit escapes every
// backslash and quote in a string; this library's export writes text raw.
// One string with a backslash that starts no escape marks the whole file
// as raw, so a raw "\\server\share" is not mistaken for an escaped one.
class EscapeScanner : public Platform::IniParserInterface {
 public:
  bool section(const std::u16string&) override { return true; }
  bool other(const std::u16string&) override { return true; }
  bool entry(const std::u16string&, bool, const std::u16string& data) override {
    if (data.size() >= 2 && data.front() == u'"') {
      const size_t last = data.rfind(u'"');
      if (last > 0 && !validlyEscaped(std::u16string_view(data).substr(1, last - 1))) escaped = false;
    }
    return true;
  }
  bool escaped = true;
};

// Parses a comma-separated list of one- or two-digit hex bytes, blanks
// allowed around each; an empty (or all blank) list is no bytes.
bool parseByteList(std::u16string_view list, std::vector<u8>& out) {
  out.clear();
  size_t i = 0;
  auto skipBlanks = [&]() {
    while (i < list.size() && isBlank(list[i])) ++i;
  };
  skipBlanks();
  if (i == list.size()) return true;
  for (;;) {
    int hi = i < list.size() ? hexDigit(list[i]) : -1;
    if (hi < 0) return false;
    ++i;
    int lo = i < list.size() ? hexDigit(list[i]) : -1;
    if (lo >= 0) {
      ++i;
      out.push_back(static_cast<u8>(hi << 4 | lo));
    } else {
      out.push_back(static_cast<u8>(hi));
    }
    skipBlanks();
    if (i == list.size()) return true;
    if (list[i] != u',') return false;
    ++i;
    skipBlanks();
  }
}

std::u16string_view quoted(std::u16string_view data) {
  return data.substr(0, MAX_QUOTED_DATA);
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

}  // namespace

RegFileImportHandler::RegFileImportHandler(Ref<RegistryHive> hive, const Ref<String>& prefix,
                                           RegFileDiagnostics errors, bool trace)
    : _hive(std::move(hive)),
      _prefix(Util::regPathToWindowsStyle(prefix)->units()),
      _errors(std::move(errors)),
      _trace(trace) {}

bool RegFileImportHandler::other(const std::u16string& line) {
  if (line == VERSION_LINE) {
    if (!_versionSeen) HK_LOG(regImporterLog, 1) << "Reg file version: " << line;
    _versionSeen = true;
    return true;
  }
  report(2, {{u"Unexpected value: ", quoted(line)}});
  return true;
}

bool RegFileImportHandler::section(const std::u16string& text) {
  if (!_versionSeen) {
    report(3, {{u"Invalid regfile, section before version string", u""}});
    return false;
  }
  const bool deleting = !text.empty() && text[0] == u'-';
  std::u16string_view path(text);
  if (deleting) path.remove_prefix(1);

  // The prefix must end at a name boundary: prefix "A" does not cover "AB".
  std::u16string_view rest;
  bool match = startsWithIgnoreCase(path, _prefix);
  if (match) {
    rest = path.substr(_prefix.size());
    if (!_prefix.empty() && _prefix.back() != u'\\' && !rest.empty() && rest[0] != u'\\') match = false;
  }
  if (!match) {
    report(3, {{u"Prefix mismatch while importing reg file", u""}, {u"Key: ", path}, {u"Prefix: ", _prefix}});
    return false;
  }
  if (!rest.empty() && rest[0] == u'\\') rest.remove_prefix(1);

  std::vector<std::u16string_view> parts;
  if (!rest.empty()) {
    for (size_t begin = 0;;) {
      size_t end = rest.find(u'\\', begin);
      if (end == std::u16string_view::npos) end = rest.size();
      if (end == begin) {
        report(3, {{u"Invalid path: ", path}});
        return false;
      }
      parts.push_back(rest.substr(begin, end - begin));
      if (parts.size() >= Util::MAX_TREE_DEPTH) {
        report(3, {{u"Key tree deeper than 512 levels at: ", quoted(path)}});
        return false;
      }
      if (end == rest.size()) break;
      begin = end + 1;
    }
  }
  if (!root()) return false;
  return deleting ? deleteSection(path, parts) : openSection(path, parts);
}

bool RegFileImportHandler::root() {
  if (!_chain.empty()) return true;
  Ref<Key> root = _hive->root();
  if (!root) {
    report(3, {{u"Failed to get root key", u""}});
    return false;
  }
  _chain.push_back(std::move(root));
  return true;
}

bool RegFileImportHandler::openSection(std::u16string_view path,
                                       const std::vector<std::u16string_view>& parts) {
  _current = nullptr;
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
      if (_trace) report(1, {{u"Create new key: ", path}});
    } else {
      const u32 error = Platform::Error::get();
      if (error == Errors::KEY_EXISTS) key = parent->key(name);
      if (!key) {
        const std::u16string code = hexNumber(error);
        report(3, {{u"Failed to create key: ", name->units()}, {u"Path: ", path}, {u"Error: ", code}});
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

bool RegFileImportHandler::deleteSection(std::u16string_view path,
                                         const std::vector<std::u16string_view>& parts) {
  _current = nullptr;
  _currentIsNew = false;
  // Keys below the root may be about to go; start the next section afresh.
  _chain.resize(1);
  _chainNames.clear();
  if (parts.empty()) {
    report(3, {{u"Failed to delete key: ", u"the root key cannot be deleted"}, {u"Path: ", path}});
    return false;
  }
  Ref<Key> parent;
  Ref<Key> key = _chain[0];
  for (std::u16string_view part : parts) {
    parent = std::move(key);
    key = parent->key(String::fromUtf16(part.data(), part.size()));
    if (!key) return true;  // nothing to delete
  }
  if (!Util::recursiveKeyDelete(parent, key)) {
    report(3, {{u"Failed to delete key: ", u""}, {u"Path: ", path}});
    return false;
  }
  return true;
}

bool RegFileImportHandler::entry(const std::u16string& rawName, bool isQuoted, const std::u16string& data) {
  if (!_current) {
    report(3, {{u"Invalid regfile, first value before first key", u""}});
    return false;
  }
  if (!isQuoted && rawName != u"@") {
    report(3, {{u"Invalid value: ", rawName}, {u"data: ", quoted(data)}});
    return false;
  }
  Ref<String> name = isQuoted ? String::fromUtf16(rawName) : String::empty();
  if (data == u"-") return deleteValue(name);
  if (data.empty()) {
    report(3, {{u"Found empty value in regfile, name = ", rawName}});
    return false;
  }
  if (data[0] == u'"') return setString(name, data);
  if (startsWithIgnoreCase(data, u"dword:")) return setDword(name, data);
  if (startsWithIgnoreCase(data, u"hex")) return setHex(name, data);
  report(3, {{u"Invalid value: ", rawName}, {u"data: ", quoted(data)}});
  return false;
}

bool RegFileImportHandler::mayExist(const Ref<String>& name, bool willExist) {
  if (!_currentIsNew) return true;
  std::u16string upper = name->upper()->units();
  if (willExist) return !_namesSet.insert(std::move(upper)).second;
  return _namesSet.erase(upper) != 0;
}

bool RegFileImportHandler::deleteValue(const Ref<String>& name) {
  if (!mayExist(name, false)) return true;
  Ref<Value> value = _current->value(name);
  if (value && !_current->deleteValue(value)) {
    report(3, {{u"Failed to delete value: ", name->units()}});
    return false;
  }
  return true;
}

Ref<Value> RegFileImportHandler::createValue(const Ref<String>& name, u32 type) {
  HK_ASSERT(regImporterLog, _current != nullptr, nullptr);
  Ref<Value> old = mayExist(name, true) ? _current->value(name) : nullptr;
  if (old) {
    if (!_current->deleteValue(old)) {
      report(3, {{u"Failed to remove old value: ", name->units()}});
      return nullptr;
    }
  }
  Ref<Value> value = _current->createValue(name, type);
  if (!value) {
    const std::u16string text = name->units() + u" of type: " + hexNumber(type);
    report(3, {{u"Failed to craete value: ", text}});
  }
  return value;
}

bool RegFileImportHandler::setString(const Ref<String>& name, const std::u16string& data) {
  // The text runs to the last quote, which must end the data.
  const size_t last = data.rfind(u'"');
  if (last == 0 || last + 1 != data.size()) {
    report(3, {{u"Invalid string value: ", name->units()}, {u"data: ", quoted(data)}});
    return false;
  }
  Ref<String> text =
      String::fromUtf16(unquote(std::u16string_view(data).substr(1, last - 1), _escapedStrings));
  Ref<Value> value = createValue(name, Interfaces::Config::Hive::ValueTypes::String);
  if (!value) return false;
  if (!value->setString(text)) {
    report(3, {{u"Failed to set string value: ", name->units()}});
    return false;
  }
  return true;
}

bool RegFileImportHandler::setDword(const Ref<String>& name, const std::u16string& data) {
  HK_ASSERT_AS(regImporterLog, "data->sub(0, 6)->equal(\"dword:\")", startsWithIgnoreCase(data, u"dword:"),
               false);
  std::u16string_view digits = std::u16string_view(data).substr(6);
  while (!digits.empty() && isBlank(digits.front())) digits.remove_prefix(1);
  u32 number;
  if (!parseHex32(digits, number)) {
    report(3, {{u"Invalid dword value: ", name->units()}, {u"data: ", quoted(data)}});
    return false;
  }
  Ref<Value> value = createValue(name, Dword);
  if (!value) return false;
  if (!value->setNumber(number)) {
    report(3, {{u"Failed to set dword value: ", name->units()}});
    return false;
  }
  return true;
}

bool RegFileImportHandler::setHex(const Ref<String>& name, const std::u16string& data) {
  std::u16string_view rest = std::u16string_view(data).substr(3);
  u32 type = Binary;
  bool ok = true;
  if (!rest.empty() && rest[0] == u'(') {
    const size_t close = rest.find(u')');
    ok = close != std::u16string_view::npos && parseHex32(rest.substr(1, close - 1), type);
    if (ok) rest.remove_prefix(close + 1);
  }
  ok = ok && !rest.empty() && rest[0] == u':' && parseByteList(rest.substr(1), _bytes);
  if (!ok) {
    report(3, {{u"Invalid hex value: ", name->units()}, {u"data: ", quoted(data)}});
    return false;
  }
  // Made as binary, the one type whose data every hive lets a stripe
  // resize, and given its real type once the bytes are in.
  Ref<Value> value = createValue(name, Binary);
  if (!value) return false;
  Ref<Interfaces::Stripe> stripe = value->binary();
  const u64 size = _bytes.size();
  if (!stripe || stripe->setElementCount(size) != size) {
    report(3, {{u"Failed to resize value: ", name->units()}});
    return false;
  }
  if (size != 0 && stripe->writeAt(0, _bytes.data(), size) != size) {
    report(3, {{u"Failed to write data of value: ", name->units()}});
    return false;
  }
  if (type != Binary && !value->setType(type)) {
    const std::u16string text = name->units() + u" of type: " + hexNumber(type);
    report(3, {{u"Failed to set type of value: ", text}});
    return false;
  }
  return true;
}

void RegFileImportHandler::report(int level, std::initializer_list<Line> lines) const {
  if (_errors) {
    for (const Line& line : lines) {
      std::u16string text(line.first);
      text += line.second;
      _errors(Platform::utf16ToUtf8(text));
    }
    return;
  }
  Platform::Log::Line out(regImporterLog, level);
  bool first = true;
  for (const Line& line : lines) {
    if (!first) out << " ";
    out << std::u16string(line.first) << std::u16string(line.second);
    first = false;
  }
}

bool RegFileImportHandler::stringsEscaped(Platform::CharReader& reader) {
  EscapeScanner scanner;
  Platform::IniParser::parse(reader, scanner, nullptr);
  return scanner.escaped;
}

}  // namespace Libraries::Files::Hive
