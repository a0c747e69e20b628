#include "hive/regfile/reg_file_exporter.h"

#include <algorithm>

#include "hive/regfile/reg_value_text.h"
#include "platform/check.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::KeyIterator;
using Interfaces::Config::Hive::ValueIterator;
using Platform::u8;

const Platform::Log::Channel regExporterLog("HiveRegExporter");

namespace {

constexpr const char* BUDGET_MESSAGE =
    "Export stopped, the lists name keys and values more often than the hive can hold, at: ";

}  // namespace

RegFileExporter::RegFileExporter(Ref<Platform::TextWriter> output, RegFileDiagnostics diagnostics,
                                 bool /*reserved*/, bool binaryOnly, RegTextStyle style)
    : _out(std::move(output)), _diagnostics(std::move(diagnostics)), _binaryOnly(binaryOnly), _style(style) {}

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
  Ref<Interfaces::Stripe> bin = value->binary();
  if (!bin) {
    report("Failed to read binary data of: ", "Failed to read binary data of: ", 3, value);
    return false;
  }
  HK_ASSERT_AS(regExporterLog, "bin->elementSize() == 1", bin->elementSize() == 1, false);
  u64 bytesRead = 0;
  const RegValueForm form = writeRegValue(
      name->units(), value->type(), bin->elementCount(),
      [&](u64 offset, u8* out, u64 count) { return bin->readAt(offset, out, count); }, _binaryOnly,
      [&](std::u16string_view text) { _out->print(text); }, &bytesRead, _style);
  _budget.charge(0, bytesRead);
  switch (form) {
    case RegValueForm::stringFallback:
      reportFallback("Invalid string value: ", "Invalid string value, using binary fallback: ", value);
      break;
    case RegValueForm::dwordFallback:
      reportFallback("Invalid dword value: ", "Invalid dword value, using binary fallback: ", value);
      break;
    case RegValueForm::unreadable:
      report("Failed to read binary data of: ", "Failed to read binary data of: ", 3, value);
      return false;
    default:
      break;
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
