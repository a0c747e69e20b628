#include "hive/regfile/reg_file_util.h"

#include <algorithm>
#include <vector>

#include "hive/errors.h"
#include "hive/regfile/reg_file_exporter.h"
#include "hive/regfile/reg_file_importer.h"
#include "hive/util/util.h"
#include "platform/char_reader.h"
#include "platform/error.h"
#include "platform/file_stripe.h"
#include "platform/ini_parser.h"
#include "platform/text_writer.h"

namespace Libraries::Files::Hive {

using Platform::FileStripe;
using Platform::u64;

const Platform::Log::Channel regUtilLog("HiveRegUtil");

namespace {

// A failure of the entry points: to the caller's sink, else to the log.
bool fail(const RegFileDiagnostics& diagnostics, const std::string& toPrinter, const std::string& toLog) {
  if (diagnostics) {
    diagnostics(toPrinter);
  } else {
    HK_LOG(regUtilLog, 3) << toLog;
  }
  return false;
}

std::string utf8(const Ref<String>& s) {
  return s ? s->toUtf8() : std::string();
}

// Whether the text from the stripe's position on may hold "\\" or "\"" in
// UTF-8 or UTF-16LE: a backslash byte whose next non-zero byte is another
// backslash or a quote (a few other UTF-16 units match too). Strings read
// the same whether or not the file is taken as escaped unless one of them
// holds such a pair, so without any the scan for escapes can be skipped.
// True when the stripe cannot be read.
bool mayHoldEscapePair(Interfaces::Stripe& source) {
  std::vector<Platform::u8> buffer(64 * 1024);
  bool afterBackslash = false;
  const u64 end = source.elementCount();
  for (u64 at = source.pos(); at < end;) {
    const u64 n = source.readAt(at, buffer.data(), std::min<u64>(buffer.size(), end - at));
    if (n == 0 || n > buffer.size()) return true;
    for (u64 i = 0; i < n; ++i) {
      const Platform::u8 b = buffer[i];
      if (b == 0) continue;
      if (afterBackslash && (b == '\\' || b == '"')) return true;
      afterBackslash = b == '\\';
    }
    at += n;
  }
  return false;
}

}  // namespace

bool RegFileUtil::exportRegFile(const Ref<Key>& key, const Ref<Interfaces::Stripe>& target,
                                const Ref<String>& path, ExportOptions options,
                                const RegFileDiagnostics& diagnostics, bool reserved) {
  if (!key) {
    Platform::Error::set(Errors::NULL_ARGUMENT);
    return fail(diagnostics, "No key to export", "No key to export");
  }
  const bool append = (options & Append) != 0;
  if (target) target->seek(append ? target->elementCount() : 0);
  Ref<Platform::TextWriter> out =
      Platform::TextWriter::create(target, Platform::TextWriter::Encoding::Utf16LE, !append);
  if (!out) return fail(diagnostics, "Failed to create writer", "Failed to create writer");
  if (!append) out->print(u"Windows Registry Editor Version 5.00\r\n\r\n");

  std::u16string parent = Util::regPathToWindowsStyle(path)->units();
  Ref<String> name = key->name();
  if (name && !name->isEmpty() && !parent.empty()) parent += u'\\';

  RegFileExporter exporter(out, diagnostics, reserved, (options & BinaryOnly) != 0);
  bool ok = exporter.recursiveExport(key, String::fromUtf16(std::move(parent)));
  if (!out->flush()) ok = fail(diagnostics, "Failed to write the export", "Failed to write the export");
  if (!append && !out->failed()) {
    // Without Append the text replaces what the target held: cut off the
    // rest of an older, longer content where the target can be resized.
    const u32 error = Platform::Error::get();
    const u64 end = target->pos();
    if (target->elementCount() > end) target->setElementCount(end);
    Platform::Error::set(error);
  }
  return ok;
}

bool RegFileUtil::exportRegFile(const Ref<Key>& key, const Ref<String>& fileName, const Ref<String>& path,
                                ExportOptions options, const RegFileDiagnostics& diagnostics, bool reserved) {
  u32 flags = FileStripe::Read | FileStripe::Write | FileStripe::Create;
  if ((options & Append) == 0) flags |= FileStripe::Truncate;
  Ref<FileStripe> file = fileName ? FileStripe::open(fileName->toUtf8(), flags) : nullptr;
  if (!file)
    return fail(diagnostics, "Failed to open: " + utf8(fileName), "Failed to open file: " + utf8(fileName));
  return exportRegFile(key, Ref<Interfaces::Stripe>(file), path, options, diagnostics, reserved);
}

bool RegFileUtil::importRegFile(const Ref<RegistryHive>& hive, const Ref<Interfaces::Stripe>& source,
                                const Ref<String>& prefix, const RegFileDiagnostics& errors, bool trace) {
  if (!hive) {
    Platform::Error::set(Errors::NULL_ARGUMENT);
    return fail(errors, "No hive to import into", "No hive to import into");
  }
  // Two passes: the first tells whether the file's strings are escaped.
  Ref<Platform::CharReader> scan = Platform::CharReader::create(source);
  Ref<Platform::CharReader> reader = Platform::CharReader::create(source);
  if (!scan || !reader) return fail(errors, "Failed to create reader", "Failed to create reader");
  RegFileImportHandler handler(hive, prefix, errors, trace);
  handler.setEscapedStrings(!mayHoldEscapePair(*source) || RegFileImportHandler::stringsEscaped(*scan));
  u64 line = 0;
  const int result = Platform::IniParser::parse(*reader, handler, &line);
  if (result != Platform::IniParser::OK) {
    const std::string text =
        "Regfile import failed: " + std::to_string(result) + " (line " + std::to_string(line) + ")";
    if (errors) {
      errors(text);
    } else {
      HK_LOG(regUtilLog, 3) << text;
    }
    return false;
  }
  return true;
}

bool RegFileUtil::importRegFile(const Ref<RegistryHive>& hive, const Ref<String>& path,
                                const Ref<String>& prefix, const RegFileDiagnostics& errors, bool trace) {
  Ref<FileStripe> file = path ? FileStripe::open(path->toUtf8(), FileStripe::Read) : nullptr;
  if (!file) return fail(errors, "Failed to open: " + utf8(path), "Failed to open file: " + utf8(path));
  return importRegFile(hive, Ref<Interfaces::Stripe>(file), prefix, errors, trace);
}

}  // namespace Libraries::Files::Hive
