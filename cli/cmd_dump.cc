// hivekit dump: the canonical listing of a hive (or of one key's tree), for
// comparing readers; or the same keys and values as JSON Lines.
//
//   K <TAB> path <TAB> last write (16 hex digits) <TAB> subkeys <TAB> values
//   V <TAB> path <TAB> value name <TAB> type <TAB> size <TAB> data
//
// Keys in pre-order (a key, its values in value-list order, then its
// subkeys in subkey-list order). Data is lowercase hex up to 32 bytes,
// otherwise "sha256:" and the digest. Names are escaped as Escape::listing
// says.
#include <hivekit/hivekit.h>

#include "commands.h"
#include "open_hive.h"
#include "records.h"
#include "sha256.h"
#include "text.h"
#include "tree_walk.h"

namespace hivekit::cli {
namespace {

constexpr size_t MAX_INLINE_DATA = 32;

int runDump(Context& ctx) {
  const bool json = ctx.args.has("--json");
  Hive hive;
  Key start;
  std::vector<std::string> names;
  if (!openAt(ctx, hive, start, names)) return EXIT_FAILED;
  Output out;
  TreeWalk walk(hive, ctx.operand(0), out, json ? TreeWalk::PathForm::raw : TreeWalk::PathForm::listing,
                true);
  Sha256 sha;
  const bool complete = walk.run(start, walk.pathOf(names), [&](const TreeWalk::Visit& v) {
    std::string& o = out.text;
    if (json) return writeKeyLine(walk, v, o) && !out.failed();
    o += "K\t";
    o += v.path;
    o += '\t';
    appendHexFixed(o, v.key.last_write(), 16);
    o += '\t';
    appendDecimal(o, v.subkeys);
    o += '\t';
    appendDecimal(o, v.values.size());
    o += '\n';
    for (const Value& value : v.values) {
      // On failure the data holds what could be read.
      const Result<Bytes> data = value.data();
      if (!walk.chargeData(data->size())) return false;
      if (!data.ok()) walk.report(v.path + ": the data of a value could not be read completely");
      o += "V\t";
      o += v.path;
      o += '\t';
      appendEscaped(o, value.name(), Escape::listing);
      o += '\t';
      appendDecimal(o, static_cast<uint32_t>(value.type()));
      o += '\t';
      appendDecimal(o, data->size());
      o += '\t';
      if (data->size() <= MAX_INLINE_DATA) {
        appendHexBytes(o, data->data(), data->size());
      } else {
        o += "sha256:";
        sha.update(data->data(), data->size());
        sha.appendHexDigest(o);
      }
      o += '\n';
    }
    return !out.failed();
  });
  return out.finish(complete, "the listing is incomplete: parts of the hive could not be read");
}

}  // namespace

const Command DUMP_COMMAND = {
    "dump",
    "dump [options] HIVE [KEYPATH] [--json]",
    "write the canonical listing of every key and value",
    "Writes one line per key and per value of KEYPATH's tree (the whole hive when\n"
    "omitted), fields separated by a TAB, for comparing with the listing of\n"
    "another reader:\n"
    "  K  path  last-write-time  number-of-subkeys  number-of-values\n"
    "  V  path  value-name  type  data-size  data\n"
    "Keys come depth first: a key, its values in value-list order, then its subkeys\n"
    "in subkey-list order. The root's path is \\, below it \\Name\\Name. The last\n"
    "write time is the FILETIME in 16 lowercase hex digits; the type and size are\n"
    "decimal; data up to 32 bytes is lowercase hex, longer data 'sha256:' and the\n"
    "hex digest. In names, characters below U+0020, U+007F, \\, % and unpaired\n"
    "surrogates are written %XXXX; all text is UTF-8.\n"
    "  --json  JSON Lines instead: one object per key, its values inline (see the\n"
    "          README for the fields)\n"
    "A cycle in the key tree or nesting beyond 512 levels is reported and not\n"
    "followed, and a key listed more than once has its subkeys listed the first\n"
    "time only; lists that name keys and values more often than a hive of its\n"
    "size can hold stop the listing; anything unreadable makes the exit status 1\n"
    "after the listing.\n",
    "--json",
    {1, 2},
    Access::read,
    runDump};

}  // namespace hivekit::cli
