#include "hive/regfile/reg_file_util.h"

#include <algorithm>
#include <vector>

#include "hive/format/errors.h"
#include "hive/regfile/reg_file_exporter.h"
#include "hive/regfile/reg_file_importer.h"
#include "hive/regfile/reg_file_reader.h"
#include "hive/util/util.h"
#include "platform/error.h"
#include "platform/file_stripe.h"
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

// A file name for a message, cut as every text quoted from input is.
std::string utf8(const Ref<String>& s) {
  return s ? Platform::utf16ToUtf8(quotedForMessage(s->units())) : std::string();
}

// One pass of an import over the whole text: the items one by one to
// `handler`. False at the first error, reported through the handler.
// Kept data reaches the handler in pieces: a long value is never held whole.
bool runPass(const Ref<Interfaces::Stripe>& source, u64 start, RegFileImportHandler& handler, u64 maxDataSize,
             bool keepData) {
  source->seek(start);
  RegFileReader::DataSink sink;
  if (keepData) sink = [&handler](const RegItem& piece) { return handler.takePiece(piece); };
  RegFileReader reader(source, maxDataSize, keepData, std::move(sink));
  RegItem item;
  while (reader.next(item))
    if (!handler.take(item)) return false;
  if (!reader.failed()) return true;
  // An error of the handler's own (in a piece) has been reported.
  if (!reader.error().empty()) handler.report(reader.errorLine(), reader.error());
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
  Ref<Platform::TextWriter> out = Platform::TextWriter::create(target, !append);
  if (!out) return fail(diagnostics, "Failed to create writer", "Failed to create writer");
  if (!append) out->print(u"Windows Registry Editor Version 5.00\r\n\r\n");

  std::u16string parent = Util::regPathToWindowsStyle(path)->units();
  Ref<String> name = key->name();
  if (name && !name->isEmpty() && !parent.empty()) parent += u'\\';

  RegFileExporter exporter(out, diagnostics, reserved, (options & BinaryOnly) != 0,
                           (options & Raw) != 0 ? RegTextStyle::raw : RegTextStyle::escaped);
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
                                const Ref<String>& prefix, const RegFileDiagnostics& errors, bool trace,
                                const ImportControl& control) {
  if (!hive) {
    Platform::Error::set(Errors::NULL_ARGUMENT);
    return fail(errors, "No hive to import into", "No hive to import into");
  }
  if (!source || source->elementSize() != 1)
    return fail(errors, "Failed to create reader", "Failed to create reader");
  // Two passes over the text: the first checks all of it and holds no
  // value data, so that the hive changes only for a file that is right
  // throughout and memory stays bounded whatever the length of its lines;
  // the second writes data a piece at a time into values made at their
  // checked size.
  const u64 start = source->pos();
  RegFileImportHandler checker(nullptr, prefix, errors, false, false);
  if (!runPass(source, start, checker, control.maxDataSize, false)) return false;
  if (control.dryRun) return true;
  RegFileImportHandler applier(hive, prefix, errors, trace, true);
  applier.setLargeSizes(checker.largeSizes());
  return runPass(source, start, applier, control.maxDataSize, true);
}

bool RegFileUtil::importRegFile(const Ref<RegistryHive>& hive, const Ref<String>& path,
                                const Ref<String>& prefix, const RegFileDiagnostics& errors, bool trace,
                                const ImportControl& control) {
  Ref<FileStripe> file = path ? FileStripe::open(path->toUtf8(), FileStripe::Read) : nullptr;
  if (!file) return fail(errors, "Failed to open: " + utf8(path), "Failed to open file: " + utf8(path));
  return importRegFile(hive, Ref<Interfaces::Stripe>(file), prefix, errors, trace, control);
}

}  // namespace Libraries::Files::Hive
