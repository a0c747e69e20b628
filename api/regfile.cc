// Registry text files through the public API: export of a key tree and
// import into a hive, over the engine's exporter and importer.
#include <cstdio>

#include "api/core.h"
#include "hive/regfile/reg_file_util.h"
#include "hive/util/util.h"
#include "platform/fd_stripe.h"
#include "platform/file_stripe.h"
#include "platform/memory_stripe.h"

namespace hivekit {

using namespace detail;
using Libraries::Files::Hive::RegFileUtil;
using Libraries::Files::Hive::Util;
using Platform::FileStripe;
using Platform::String;
using EngineKey = Interfaces::Config::Hive::Key;

namespace {

// A key shown under another name: everything is the wrapped key's but
// name(), which is empty. The exporter writes a key with an empty name
// (like a root key) as the path it is given, so wrapping lets any key head
// an export with exactly the path the caller chose.
class UnnamedKey : public EngineKey {
 public:
  using Value = Interfaces::Config::Hive::Value;
  explicit UnnamedKey(Ref<EngineKey> key) : _key(std::move(key)) {}

  Ref<String> name() override { return String::empty(); }
  Ref<EngineKey> key(Ref<String> name) override { return _key->key(std::move(name)); }
  Ref<EngineKey> createKey(Ref<String> name) override { return _key->createKey(std::move(name)); }
  bool deleteKey(Ref<EngineKey> key) override { return _key->deleteKey(std::move(key)); }
  Ref<Interfaces::Config::Hive::KeyIterator> keyIterator() override { return _key->keyIterator(); }
  Ref<Value> value(Ref<String> name) override { return _key->value(std::move(name)); }
  Ref<Value> createValue(Ref<String> name, Interfaces::Config::Hive::ValueType type) override {
    return _key->createValue(std::move(name), type);
  }
  bool deleteValue(Ref<Value> value) override { return _key->deleteValue(std::move(value)); }
  Ref<Interfaces::Config::Hive::ValueIterator> valueIterator() override { return _key->valueIterator(); }
  bool move(Ref<Value> value, Ref<String> newName) override {
    return _key->move(std::move(value), std::move(newName));
  }
  bool move(Ref<EngineKey> key, Ref<String> newName) override {
    return _key->move(std::move(key), std::move(newName));
  }
  bool readOnly() override { return _key->readOnly(); }
  u64 lastWriteTime() override { return _key->lastWriteTime(); }

 private:
  Ref<EngineKey> _key;
};

// Collects the engine's diagnostics: passed on to the caller's, the first
// kept for the Status.
struct Reporter {
  const Diagnostics& sink;
  std::string first;
  Libraries::Files::Hive::RegFileDiagnostics function() {
    return [this](const std::string& line) {
      if (first.empty()) first = line.substr(0, 400);
      if (sink) sink(line);
    };
  }
};

Status exportTo(const Key& key, const Ref<Interfaces::Stripe>& target, const ExportOptions& options,
                bool append, const std::string& where) {
  Call call(Access::ref(key), Call::Guard::objects);
  if (!call.ok()) return call.status();
  Status why;
  Ref<KeyObj> obj = call.core().keyObject(key.offset(), why);
  if (!obj) return why;
  const bool isRoot = key.offset() == call.hive().rootOffset();
  std::string heading = options.root_path;
  if (heading.empty()) {
    heading = "ROOT";
    if (!isRoot) heading += key.path();
  }
  Ref<EngineKey> exported = isRoot ? Ref<EngineKey>(obj) : Ref<EngineKey>(Platform::makeRef<UnnamedKey>(obj));
  Reporter reporter{options.diagnostics, {}};
  u32 flags = (append ? RegFileUtil::Append : 0) | (options.binary_only ? RegFileUtil::BinaryOnly : 0) |
              (options.raw ? RegFileUtil::Raw : 0);
  Platform::Error::clear();
  if (!RegFileUtil::exportRegFile(exported, target, Util::regPathFromWindowsStyle(String::create(heading)),
                                  flags, reporter.function())) {
    Status s = engineStatus("export failed" + where, Code::corrupt);
    if (!reporter.first.empty()) s = Status(s.code(), "export failed" + where + ": " + reporter.first);
    return s;
  }
  return Status();
}

}  // namespace

Status export_reg(const Key& key, std::string_view pathView, const ExportOptions& options) {
  const std::string path(pathView);
  if (path.empty()) return Status(Code::invalid_argument, "no file named for the export");
  Ref<Interfaces::Stripe> target;
  Ref<Platform::SequentialFdStripe> out;
  bool append = options.append;
  if (path == "-") {
    std::fflush(stdout);
    out = Platform::makeRef<Platform::SequentialFdStripe>(1);
    target = out;
  } else {
    {
      Call call(Access::ref(key));
      if (!call.ok()) return call.status();
      // Emptying the target first would destroy a hive or log being read.
      if (sameFile(call.core().path(), path))
        return Status(Code::invalid_argument, quoted(path) + " is the hive itself");
      for (const std::string& log : call.core().logPaths())
        if (sameFile(log, path))
          return Status(Code::invalid_argument, quoted(path) + " is one of the hive's logs");
    }
    Platform::Error::clear();
    Ref<FileStripe> file = FileStripe::open(path, FileStripe::Read | FileStripe::Write | FileStripe::Create |
                                                      (append ? 0u : +FileStripe::Truncate));
    if (!file) return fileStatus("cannot write to", path);
    // Appending to a new or empty file starts it like any export.
    if (append && file->elementCount() == 0) append = false;
    target = file;
  }
  Status s =
      exportTo(key, target, options, append, path == "-" ? "" : " (" + quoted(path) + " is incomplete)");
  if (out && out->failed()) return Status(Code::io_error, "cannot write to standard output");
  if (!s) return s;
  if (path != "-" && !target->sync())
    return engineStatus("cannot write " + quoted(path) + " to disk", Code::io_error);
  return Status();
}

Result<std::string> export_reg_to_string(const Key& key, const ExportOptions& options) {
  Ref<Platform::MemoryStripe> target = Platform::MemoryStripe::create(std::vector<u8>());
  Status s = exportTo(key, target, options, options.append, "");
  if (!s) return s;
  const std::vector<u8>& bytes = target->bytes();
  return std::string(bytes.begin(), bytes.end());
}

namespace {

Status importFrom(Hive& hive, const Ref<Interfaces::Stripe>& source, const ImportOptions& options,
                  const std::string& what) {
  Call call(Access::ref(hive));
  if (!call.writable()) return call.status();
  Reporter reporter{options.diagnostics, {}};
  call.core().forgetObjects();
  Platform::Error::clear();
  RegFileUtil::ImportControl control;
  control.dryRun = options.dry_run;
  control.maxDataSize = Libraries::Files::Hive::maxValueDataSize(call.hive().versionMinor());
  // The file is checked whole before anything changes; a failure while
  // applying it (out of space, an I/O error) is taken back like any other
  // failed change, so an import is all or nothing.
  const bool ok = call.atomically([&] {
    return RegFileUtil::importRegFile(Ref<Interfaces::Config::Hive::RegistryHive>(&call.hive()), source,
                                      Util::regPathFromWindowsStyle(String::create(options.prefix)),
                                      reporter.function(), options.trace, control);
  });
  call.core().forgetObjects();
  if (ok) return Status();
  return Status(codeFor(Platform::Error::get(), Code::invalid_argument),
                "import of " + what + " failed" + (reporter.first.empty() ? "" : ": " + reporter.first) +
                    "; the hive was not changed");
}

}  // namespace

Status import_reg(Hive& hive, std::string_view pathView, const ImportOptions& options) {
  const std::string path(pathView);
  Ref<Interfaces::Stripe> source;
  if (path == "-") {
    std::vector<u8> text;
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, stdin)) > 0) text.insert(text.end(), buf, buf + n);
    if (std::ferror(stdin)) return Status(Code::io_error, "cannot read standard input");
    source = Platform::MemoryStripe::create(std::move(text));
  } else {
    Platform::Error::clear();
    source = FileStripe::open(path, FileStripe::Read);
    if (!source) return fileStatus("cannot open", path);
  }
  return importFrom(hive, source, options, path == "-" ? "standard input" : quoted(path));
}

Status import_reg_text(Hive& hive, std::string_view text, const ImportOptions& options) {
  return importFrom(hive, Platform::MemoryStripe::create(std::vector<u8>(text.begin(), text.end())), options,
                    "the text");
}

}  // namespace hivekit
