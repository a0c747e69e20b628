// hivekit sd: the security descriptors of a hive.
#include <cstdio>
#include <set>

#include "cli/commands.h"
#include "cli/open_hive.h"
#include "cli/text.h"
#include "hive/security/security_descriptor.h"

namespace hivekit::cli {
namespace {

using Libraries::Files::Hive::SecurityDescriptorObj;

int runSd(Context& ctx) {
  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  ctx.beginOperation();
  auto it = h.file->securityDescriptorIterator();
  if (!it) return fail(ctx, "cannot walk the security descriptors");
  Output out;
  std::set<u32> seen;
  size_t count = 0;
  bool damaged = false;
  while (auto sd = it->next()) {
    auto obj = sd.cast<SecurityDescriptorObj>();
    u32 offset = obj ? obj->offset() : 0;
    // The iterator stops where the circular list closes; a list that
    // closes somewhere else would otherwise go round for ever.
    if (obj && !seen.insert(offset).second) {
      char b[96];
      std::snprintf(b, sizeof(b), "the list of security records returns to 0x%x without closing; stopped",
                    offset);
      warn(b);
      damaged = true;
      break;
    }
    std::vector<u8> bytes = sd->get();
    char head[160];
    if (obj) {
      std::snprintf(head, sizeof(head), "sk 0x%08x  references %u  length %u\n", offset,
                    obj->referenceCount(), obj->descriptorLength());
    } else {
      std::snprintf(head, sizeof(head), "sk ?  length %zu\n", bytes.size());
    }
    out.put(head);
    if (bytes.empty()) {
      out.put("  (descriptor unreadable)\n");
      damaged = true;
    }
    for (size_t i = 0; i < bytes.size(); i += 16) {
      std::string line = "  ";
      appendHexFixed(line, i, 4);
      line += ' ';
      for (size_t j = i; j < bytes.size() && j < i + 16; ++j) {
        line += ' ';
        appendHexBytes(line, &bytes[j], 1);
      }
      line += '\n';
      out.put(line);
    }
    ++count;
  }
  out.put(std::to_string(count) + " security descriptors\n");
  if (!out.flush()) return failWithCode(ctx, "cannot write to standard output", 0);
  if (damaged) return fail(ctx, "some security records are damaged");
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
