#include "hive/regfile/reg_file_exporter.h"

#include <algorithm>

#include "platform/check.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::KeyIterator;
using Interfaces::Config::Hive::ValueIterator;
using Platform::u8;

const Platform::Log::Channel regExporterLog("HiveRegExporter");

namespace {

constexpr u32 MAX_STRING_LENGTH = 16777216;
// Bytes of one value line before the continuation.
constexpr u64 BYTES_PER_LINE = 25;
// Value data is read and printed in pieces of this size, so a value of any
// size needs no buffer of its size.
constexpr u64 CHUNK_SIZE = 64 * 1024;
constexpr char16_t HEX[] = u"0123456789abcdef";
constexpr const char* BUDGET_MESSAGE =
    "Export stopped, the lists name keys and values more often than the hive can hold, at: ";

void appendHex(std::u16string& out, u32 v) {
  char16_t digits[8];
  int n = 0;
  do {
    digits[n++] = HEX[v & 0xF];
    v >>= 4;
  } while (v != 0);
  while (n > 0) out += digits[--n];
}

}  // namespace

RegFileExporter::RegFileExporter(Ref<Platform::TextWriter> output, RegFileDiagnostics diagnostics,
                                 bool /*reserved*/, bool binaryOnly)
    : _out(std::move(output)), _diagnostics(std::move(diagnostics)), _binaryOnly(binaryOnly) {}

bool RegFileExporter::recursiveExport(const Ref<Key>& key, const Ref<String>& parentPath) {
  _path = parentPath ? parentPath->units() : std::u16string();
  _ancestors.clear();
  _descended.clear();
  return exportKey(key, 1);
}

bool RegFileExporter::exportKey(const Ref<Key>& key, u32 depth) {
  Ref<String> name = key ? key->name() : nullptr;
  if (!name) {
    report("Invalid name of a subkey, parent:", "Invalid name of a subkey, parent: ", 3);
    return false;
  }
  const size_t parentLength = _path.size();
  _path += name->units();
  const Util::KeyId id = Util::keyId(key);
  bool ok = false;
  if (std::find(_ancestors.begin(), _ancestors.end(), id) != _ancestors.end()) {
    report("Cycle in key tree at: ", "Cycle in key tree at: ", 3);
  } else if (depth > Util::MAX_TREE_DEPTH) {
    report("Key tree deeper than 512 levels at: ", "Key tree deeper than 512 levels at: ", 3);
  } else if (!withinBudget(key.get())) {
    report(BUDGET_MESSAGE, BUDGET_MESSAGE, 3);
  } else if (_out->failed()) {
    report("Failed to write the export at: ", "Failed to write the export at: ", 3);
  } else {
    _out->print(u"[");
    _out->print(_path);
    _out->print(u"]");
    _out->endLine();

    ok = true;
    if (Ref<ValueIterator> values = key->valueIterator()) {
      while (Ref<Value> value = values->next()) {
        if (!exportValue(value)) {
          ok = false;
          break;
        }
        if (!withinBudget(value.get())) {
          report(BUDGET_MESSAGE, BUDGET_MESSAGE, 3);
          ok = false;
          break;
        }
      }
    }
    if (ok) {
      _out->endLine();
      Ref<KeyIterator> keys = key->keyIterator();
      Util::KeyId record;
      if (!keys || keys->count() == 0) {
        // A leaf: nothing below it to write twice.
      } else if (Util::recordId(key, record) && !_descended.insert(record).second) {
        report("Key listed twice, subkeys written once only: ",
               "Key listed twice, subkeys written once only: ", 2);
      } else {
        _ancestors.push_back(id);
        _path += u'\\';
        while (Ref<Key> subkey = keys->next()) {
          if (!exportKey(subkey, depth + 1)) {
            ok = false;
            break;
          }
        }
        _ancestors.pop_back();
      }
    }
  }
  _path.resize(parentLength);
  return ok;
}

bool RegFileExporter::exportValue(const Ref<Value>& value) {
  Ref<String> name = value->name();
  if (!name) {
    report("Invalid name of a value. key: ", "Invalid name of a value. parent: ", 3);
    return false;
  }
  _line.clear();
  if (name->isEmpty()) {
    _line += u"@=";
  } else {
    _line += u'"';
    _line += name->units();
    _line += u"\"=";
  }
  const u32 type = value->type();
  if (!_binaryOnly && type == Interfaces::Config::Hive::ValueTypes::String) {
    if (Ref<String> text = value->string(MAX_STRING_LENGTH)) {
      _budget.charge(0, 2 * u64{text->length()});
      _line += u'"';
      _line += text->units();
      _line += u'"';
      _out->print(_line);
      _out->endLine();
      return true;
    }
    reportFallback("Invalid string value: ", "Invalid string value, using binary fallback: ", value);
  } else if (!_binaryOnly && type == Interfaces::Config::Hive::ValueTypes::Dword) {
    const u64 number = value->number();
    // More than 32 bits cannot be written as a dword line either.
    if (number <= 0xFFFFFFFFull) {
      _budget.charge(0, 4);
      _line += u"dword:";
      for (int shift = 28; shift >= 0; shift -= 4) _line += HEX[(number >> shift) & 0xF];
      _out->print(_line);
      _out->endLine();
      return true;
    }
    reportFallback("Invalid dword value: ", "Invalid dword value, using binary fallback: ", value);
  }
  return exportBinary(value, type);
}

bool RegFileExporter::exportBinary(const Ref<Value>& value, u32 type) {
  if (type == Interfaces::Config::Hive::ValueTypes::Binary && !_binaryOnly) {
    _line += u"hex:";
  } else {
    _line += u"hex(";
    appendHex(_line, type);
    _line += u"):";
  }
  _out->print(_line);

  Ref<Interfaces::Stripe> bin = value->binary();
  if (!bin) {
    report("Failed to read binary data of: ", "Failed to read binary data of: ", 3, value);
    return false;
  }
  HK_ASSERT_AS(regExporterLog, "bin->elementSize() == 1", bin->elementSize() == 1, false);
  const u64 size = bin->elementCount();
  for (u64 done = 0; done < size;) {
    const u64 want = std::min(CHUNK_SIZE, size - done);
    _chunk.resize(want);
    if (bin->readAt(done, _chunk.data(), want) != want) {
      report("Failed to read binary data of: ", "Failed to read binary data of: ", 3, value);
      return false;
    }
    _budget.charge(0, want);
    // Three units a byte and five a continuation, written in place.
    _line.resize(3 * want + 5 * (want / BYTES_PER_LINE + 1));
    char16_t* out = _line.data();
    // Bytes on the current line so far (a full line when a chunk starts at
    // the end of one).
    u64 column = done % BYTES_PER_LINE;
    if (column == 0 && done != 0) column = BYTES_PER_LINE;
    for (u64 i = 0; i < want; ++i, ++done, ++column) {
      if (column == BYTES_PER_LINE) {
        for (char16_t c : std::u16string_view(u"\\\r\n  ")) *out++ = c;
        column = 0;
      }
      *out++ = HEX[_chunk[i] >> 4];
      *out++ = HEX[_chunk[i] & 0xF];
      if (done + 1 != size) *out++ = u',';
    }
    _out->print(std::u16string_view(_line.data(), static_cast<size_t>(out - _line.data())));
  }
  _out->endLine();
  return true;
}

// Keys of other implementations set no limit (see Util::WalkBudget).
bool RegFileExporter::withinBudget(const Platform::Object* item) {
  if (!_budget.limited()) _budget.limitBy(item);
  return _budget.charge(1);
}

void RegFileExporter::report(const char* toPrinter, const char* toLog, int level,
                             const Ref<Value>& value) const {
  std::u16string subject = _path;
  if (value) {
    subject += u'/';
    if (Ref<String> name = value->name()) subject += name->units();
  }
  if (_diagnostics) {
    _diagnostics(toPrinter + Platform::utf16ToUtf8(subject));
  } else {
    HK_LOG(regExporterLog, level) << toLog << subject;
  }
}

void RegFileExporter::reportFallback(const char* toPrinter, const char* toLog,
                                     const Ref<Value>& value) const {
  report(toPrinter, toLog, 2, value);
  if (_diagnostics) _diagnostics("Using binary fallback");
}

}  // namespace Libraries::Files::Hive
