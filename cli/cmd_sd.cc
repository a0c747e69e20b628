// hivekit sd: security descriptors, decoded (owner, group, entries, SDDL)
// or as stored.
#include <hivekit/hivekit.h>

#include <cstdio>
#include <set>

#include "commands.h"
#include "open_hive.h"
#include "records.h"
#include "text.h"

namespace hivekit::cli {
namespace {

const char* aceTypeName(uint8_t type) {
  static const char* const NAMES[] = {"allow",
                                      "deny",
                                      "audit",
                                      "alarm",
                                      "compound allow",
                                      "object allow",
                                      "object deny",
                                      "object audit",
                                      "object alarm",
                                      "callback allow",
                                      "callback deny",
                                      "callback object allow",
                                      "callback object deny",
                                      "callback audit",
                                      "callback alarm",
                                      "callback object audit",
                                      "callback object alarm",
                                      "mandatory label",
                                      "resource attribute",
                                      "scoped policy",
                                      "process trust label",
                                      "access filter"};
  return type < std::size(NAMES) ? NAMES[type] : "unknown";
}

std::string controlText(uint16_t control) {
  static const std::pair<uint16_t, const char*> FLAGS[] = {
      {0x0001, "owner defaulted"},       {0x0002, "group defaulted"},       {0x0004, "DACL present"},
      {0x0008, "DACL defaulted"},        {0x0010, "SACL present"},          {0x0020, "SACL defaulted"},
      {0x0100, "DACL auto-inherit req"}, {0x0200, "SACL auto-inherit req"}, {0x0400, "DACL auto-inherited"},
      {0x0800, "SACL auto-inherited"},   {0x1000, "DACL protected"},        {0x2000, "SACL protected"},
      {0x4000, "RM control valid"},      {0x8000, "self-relative"}};
  std::string s;
  for (const auto& [bit, name] : FLAGS)
    if (control & bit) s += (s.empty() ? "" : ", ") + std::string(name);
  return s;
}

std::string sidLine(const Sid& sid) {
  const std::string_view name = sid_name(sid);
  return to_string(sid) + (name.empty() ? "" : "  " + std::string(name));
}

// SDDL flag letters of an entry ("OICI"), or "-".
std::string aceFlags(uint8_t flags) {
  static const std::pair<uint8_t, const char*> FLAGS[] = {
      {0x01, "OI"}, {0x02, "CI"}, {0x04, "NP"}, {0x08, "IO"}, {0x10, "ID"}, {0x40, "SA"}, {0x80, "FA"}};
  std::string s;
  for (const auto& [bit, name] : FLAGS)
    if (flags & bit) s += name;
  return s.empty() ? "-" : s;
}

void aclText(std::string& out, const char* label, bool present, const std::optional<Acl>& acl) {
  char b[160];
  if (!present) {
    std::snprintf(b, sizeof b, "  %-8s not present\n", label);
    out += b;
    return;
  }
  if (!acl) {
    std::snprintf(b, sizeof b, "  %-8s null (no access control)\n", label);
    out += b;
    return;
  }
  std::snprintf(b, sizeof b, "  %-8s revision %u, %zu entries\n", label, acl->revision, acl->aces.size());
  out += b;
  for (const Ace& ace : acl->aces) {
    std::snprintf(b, sizeof b, "    %-16s %-8s %-10s 0x%08x  ", aceTypeName(ace.type),
                  aceFlags(ace.flags).c_str(), rights_string(ace.mask, ace.type).c_str(), ace.mask);
    out += b;
    out += ace.sid.sub_authorities.empty() && ace.sid.revision == 0 ? "(not decoded)" : sidLine(ace.sid);
    out += '\n';
  }
}

void sidJson(JsonWriter& j, const std::optional<Sid>& sid) {
  if (!sid) {
    j.null();
    return;
  }
  j.beginObject().key("sid").string(to_string(*sid)).key("name").string(sid_name(*sid)).endObject();
}

void aclJson(JsonWriter& j, const std::optional<Acl>& acl) {
  if (!acl) {
    j.null();
    return;
  }
  j.beginObject().key("revision").number(acl->revision).key("entries").beginArray();
  for (const Ace& ace : acl->aces) {
    j.beginObject();
    j.key("type").number(ace.type).key("type_name").string(aceTypeName(ace.type));
    j.key("flags").number(ace.flags).key("mask").number(ace.mask);
    j.key("rights").string(rights_string(ace.mask, ace.type));
    j.key("sid").string(to_string(ace.sid)).key("name").string(sid_name(ace.sid));
    j.endObject();
  }
  j.endArray().endObject();
}

// One descriptor: its record, then decoded, or (raw) its bytes in hex.
// False when its bytes cannot be read or decoded.
bool describe(std::string& out, const SecurityDescriptor& sd, bool raw, bool json, const std::string* path) {
  Result<Bytes> bytes = sd.bytes();
  Result<ParsedSecurityDescriptor> parsed =
      bytes ? parse_security_descriptor(*bytes) : Result<ParsedSecurityDescriptor>(bytes.status());
  if (json) {
    JsonWriter j(out);
    j.beginObject();
    if (path) j.key("path").string(*path);
    j.key("offset").number(sd.offset()).key("references").number(sd.reference_count());
    j.key("length").number(bytes->size());
    if (parsed) {
      j.key("sddl").string(to_sddl(*parsed));
      j.key("control").number(parsed->control);
      j.key("owner");
      sidJson(j, parsed->owner);
      j.key("group");
      sidJson(j, parsed->group);
      j.key("dacl_present").boolean(parsed->dacl_present).key("dacl");
      aclJson(j, parsed->dacl);
      j.key("sacl_present").boolean(parsed->sacl_present).key("sacl");
      aclJson(j, parsed->sacl);
    } else {
      j.key("error").string(parsed.status().message());
    }
    j.key("raw").hex(bytes->data(), bytes->size());
    j.endObject();
    out += '\n';
    return parsed.ok();
  }
  char head[160];
  std::snprintf(head, sizeof(head), "sk 0x%08x  references %u  length %zu\n", sd.offset(),
                sd.reference_count(), bytes->size());
  if (path) {
    std::string shown;
    appendEscaped(shown, *path, Escape::printable);
    out += shown + "\n";
  }
  out += head;
  if (!bytes) {
    out += "  (descriptor unreadable: " + bytes.status().message() + ")\n";
    return false;
  }
  if (raw) {
    for (size_t i = 0; i < bytes->size(); i += 16) {
      out += "  ";
      appendHexFixed(out, i, 4);
      out += ' ';
      for (size_t j = i; j < bytes->size() && j < i + 16; ++j) {
        out += ' ';
        appendHexBytes(out, bytes->data() + j, 1);
      }
      out += '\n';
    }
    return true;
  }
  if (!parsed) {
    out += "  (descriptor cannot be decoded: " + parsed.status().message() + ")\n";
    return false;
  }
  char b[160];
  out += "  SDDL     " + to_sddl(*parsed) + "\n";
  out += "  owner    " + (parsed->owner ? sidLine(*parsed->owner) : std::string("none")) + "\n";
  out += "  group    " + (parsed->group ? sidLine(*parsed->group) : std::string("none")) + "\n";
  std::snprintf(b, sizeof b, "  control  0x%04x  %s\n", parsed->control,
                controlText(parsed->control).c_str());
  out += b;
  aclText(out, "DACL", parsed->dacl_present, parsed->dacl);
  aclText(out, "SACL", parsed->sacl_present, parsed->sacl);
  return true;
}

int runSd(Context& ctx) {
  const bool raw = ctx.args.has("--raw"), json = ctx.args.has("--json");
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  Output out;
  if (ctx.operandCount() > 1) {
    Key key;
    std::vector<std::string> names;
    if (!findKey(hive, ctx.operand(1), key, names)) return EXIT_FAILED;
    Result<SecurityDescriptor> sd = key.security_descriptor();
    if (!sd) return fail("cannot read the key's security record", sd.status());
    const std::string path = rawPath(names);
    const bool ok = describe(out.text, *sd, raw, json, &path);
    if (!out.flush()) return out.reportFailure();
    return ok ? EXIT_OK : fail("the key's security descriptor is damaged");
  }
  SecurityDescriptors all = hive.security_descriptors();
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
    if (!describe(out.text, sd, raw, json, nullptr)) damaged = true;
    out.maybeFlush();
    ++count;
  }
  if (!json) out.put(std::to_string(count) + " security descriptors\n");
  if (!out.flush()) return out.reportFailure();
  if (!all.status().ok()) return fail(all.status());
  if (damaged) return fail("some security records are damaged");
  return EXIT_OK;
}

}  // namespace

const Command SD_COMMAND = {"sd",
                            "sd [options] HIVE [KEYPATH] [--raw] [--json]",
                            "show security descriptors, decoded",
                            "Without KEYPATH, walks the security records from the root key's around their\n"
                            "list; with KEYPATH, shows the record of that key. For each: its record offset,\n"
                            "reference count and descriptor length, then the descriptor decoded: its SDDL\n"
                            "string, owner and group (SID and, for well-known ones, the name: SYSTEM,\n"
                            "Administrators, Everyone, ...), control flags, and the entries of the DACL\n"
                            "and SACL: type, inheritance flags, rights (SDDL letters and the mask), SID.\n"
                            "  --raw   the self-relative descriptor in hex, 16 bytes a line, instead\n"
                            "  --json  JSON: one object for KEYPATH, else JSON Lines, one per record\n",
                            "--raw --json",
                            {1, 2},
                            Access::read,
                            runSd};

}  // namespace hivekit::cli
