// hivekit sd: the security descriptors of a hive.
#include <hivekit/hivekit.h>

#include <cstdio>
#include <set>

#include "commands.h"
#include "open_hive.h"
#include "text.h"

namespace hivekit::cli {
namespace {

int runSd(Context& ctx) {
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  SecurityDescriptors all = hive.security_descriptors();
  Output out;
  std::set<uint32_t> seen;
  size_t count = 0;
  bool damaged = false;
  for (const SecurityDescriptor& sd : all) {
    const uint32_t offset = sd.offset();
    // The walk stops where the circular list closes; a list that closes
    // somewhere else would otherwise go round for ever.
    if (!seen.insert(offset).second) {
      char b[96];
      std::snprintf(b, sizeof(b), "the list of security records returns to 0x%x without closing; stopped",
                    offset);
      out.flush();
      warn(b);
      damaged = true;
      break;
    }
    Result<Bytes> bytes = sd.bytes();
    char head[160];
    std::snprintf(head, sizeof(head), "sk 0x%08x  references %u  length %zu\n", offset, sd.reference_count(),
                  bytes->size());
    out.put(head);
    if (!bytes) {
      out.put("  (descriptor unreadable: " + bytes.status().message() + ")\n");
      damaged = true;
    }
    for (size_t i = 0; i < bytes->size(); i += 16) {
      std::string line = "  ";
      appendHexFixed(line, i, 4);
      line += ' ';
      for (size_t j = i; j < bytes->size() && j < i + 16; ++j) {
        line += ' ';
        appendHexBytes(line, bytes->data() + j, 1);
      }
      line += '\n';
      out.put(line);
    }
    ++count;
  }
  out.put(std::to_string(count) + " security descriptors\n");
  if (!out.flush()) return out.reportFailure();
  if (!all.status().ok()) return fail(all.status());
  if (damaged) return fail("some security records are damaged");
  return EXIT_OK;
}

}  // namespace

const Command SD_COMMAND = {
    "sd",
    "sd [options] HIVE",
    "list the security descriptors",
    "Walks the security records from the root key's around their list and shows\n"
    "for each its record offset, reference count and descriptor length, then the\n"
    "self-relative descriptor in hex, 16 bytes a line.\n",
    {},
    1,
    1,
    false,
    runSd,
};

}  // namespace hivekit::cli
