// Self-relative security descriptors decoded, and their SDDL text.
//
// Layout (all little-endian):
//   descriptor  0 revision (1), 1 reserved, 2 control (u16), 4 owner,
//               8 group, 12 SACL, 16 DACL: offsets from the start, 0 for none
//   SID         0 revision (1), 1 sub-authority count (<= 15), 2 authority
//               (6 bytes, big-endian), 8 sub-authorities (u32 each)
//   ACL         0 revision (2 or 4), 2 size (u16, header included),
//               4 entry count (u16), 8 entries
//   entry       0 type, 1 flags, 2 size (u16, header included), 4 mask,
//               then the SID; object entries put a u32 of flags and the
//               GUIDs those flags announce between mask and SID
#include "hivekit/sddl.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

namespace hivekit {

namespace {

constexpr size_t HEADER_SIZE = 20;
constexpr std::uint16_t SE_DACL_PRESENT = 0x0004, SE_SACL_PRESENT = 0x0010;
constexpr std::uint16_t SE_DACL_AUTO_INHERIT_REQ = 0x0100, SE_SACL_AUTO_INHERIT_REQ = 0x0200;
constexpr std::uint16_t SE_DACL_AUTO_INHERITED = 0x0400, SE_SACL_AUTO_INHERITED = 0x0800;
constexpr std::uint16_t SE_DACL_PROTECTED = 0x1000, SE_SACL_PROTECTED = 0x2000;
constexpr std::uint16_t SE_SELF_RELATIVE = 0x8000;

class Reader {
 public:
  explicit Reader(std::span<const std::byte> b) : _b(b) {}
  size_t size() const { return _b.size(); }
  std::uint8_t u8(size_t at) const { return std::to_integer<std::uint8_t>(_b[at]); }
  std::uint16_t u16(size_t at) const { return static_cast<std::uint16_t>(u8(at) | (u8(at + 1) << 8)); }
  std::uint32_t u32(size_t at) const { return u16(at) | (static_cast<std::uint32_t>(u16(at + 2)) << 16); }

 private:
  std::span<const std::byte> _b;
};

Status corrupt(const std::string& what, size_t at) {
  return Status(Code::corrupt, "security descriptor: " + what + " at byte " + std::to_string(at));
}

// The SID at `at`, which must end by `end`; its length in `length`.
Status parseSid(const Reader& r, size_t at, size_t end, Sid& sid, size_t& length) {
  if (at > end || end - at < 8) return corrupt("a SID does not fit", at);
  sid.revision = r.u8(at);
  const unsigned count = r.u8(at + 1);
  if (sid.revision != 1) return corrupt("a SID of unknown revision " + std::to_string(sid.revision), at);
  if (count > 15) return corrupt("a SID with " + std::to_string(count) + " sub-authorities (15 at most)", at);
  length = 8 + 4 * size_t{count};
  if (end - at < length) return corrupt("a SID does not fit", at);
  sid.authority = 0;
  for (int i = 0; i < 6; ++i) sid.authority = (sid.authority << 8) | r.u8(at + 2 + i);
  sid.sub_authorities.resize(count);
  for (unsigned i = 0; i < count; ++i) sid.sub_authorities[i] = r.u32(at + 8 + 4 * i);
  return Status();
}

bool isObjectAce(std::uint8_t type) {
  return (type >= 5 && type <= 8) || type == 0xB || type == 0xC || type == 0xF || type == 0x10;
}
bool isKnownAce(std::uint8_t type) {
  return type <= 0x15 && type != 4;  // 4, the compound entry, holds two SIDs
}

Status parseAcl(const Reader& r, size_t at, Acl& acl) {
  if (at < HEADER_SIZE || at > r.size() || r.size() - at < 8) return corrupt("an ACL does not fit", at);
  acl.revision = r.u8(at);
  if (acl.revision != 2 && acl.revision != 4)
    return corrupt("an ACL of unknown revision " + std::to_string(acl.revision), at);
  const size_t size = r.u16(at + 2), count = r.u16(at + 4);
  if (size < 8 || size > r.size() - at) return corrupt("an ACL's size runs past the descriptor", at);
  const size_t end = at + size;
  acl.aces.clear();
  size_t pos = at + 8;
  for (size_t i = 0; i < count; ++i) {
    if (end - pos < 4) return corrupt("entry " + std::to_string(i) + " of an ACL runs past it", pos);
    Ace ace;
    ace.type = r.u8(pos);
    ace.flags = r.u8(pos + 1);
    const size_t aceSize = r.u16(pos + 2);
    if (aceSize < 8 || aceSize > end - pos)
      return corrupt("entry " + std::to_string(i) + " of an ACL has a size that does not fit", pos);
    const size_t aceEnd = pos + aceSize;
    ace.mask = r.u32(pos + 4);
    size_t body = pos + 8;
    if (isKnownAce(ace.type)) {
      if (isObjectAce(ace.type)) {
        if (aceEnd - body < 4) return corrupt("an object entry is too short", pos);
        const std::uint32_t objectFlags = r.u32(body);
        body += 4;
        for (std::uint32_t bit : {1u, 2u}) {
          if (!(objectFlags & bit)) continue;
          if (aceEnd - body < 16) return corrupt("an object entry is too short for its GUID", pos);
          std::array<std::uint8_t, 16> guid;
          for (size_t g = 0; g < 16; ++g) guid[g] = r.u8(body + g);
          (bit == 1 ? ace.object_type : ace.inherited_object_type) = guid;
          body += 16;
        }
      }
      size_t sidLength = 0;
      if (Status s = parseSid(r, body, aceEnd, ace.sid, sidLength); !s) return s;
      body += sidLength;
    } else {
      ace.sid = Sid{0, 0, {}};  // an entry of a kind not decoded: no SID
    }
    for (size_t b = body; b < aceEnd; ++b) ace.extra.push_back(r.u8(b));
    acl.aces.push_back(std::move(ace));
    pos = aceEnd;
  }
  return Status();
}

struct WellKnown {
  std::string_view sid, alias, name;
};
constexpr WellKnown WELL_KNOWN[] = {
    {"S-1-0-0", "", "NULL SID"},
    {"S-1-1-0", "WD", "Everyone"},
    {"S-1-2-0", "", "LOCAL"},
    {"S-1-2-1", "", "CONSOLE LOGON"},
    {"S-1-3-0", "CO", "CREATOR OWNER"},
    {"S-1-3-1", "CG", "CREATOR GROUP"},
    {"S-1-3-4", "OW", "OWNER RIGHTS"},
    {"S-1-5-1", "", "DIALUP"},
    {"S-1-5-2", "NU", "NETWORK"},
    {"S-1-5-3", "", "BATCH"},
    {"S-1-5-4", "IU", "INTERACTIVE"},
    {"S-1-5-6", "SU", "SERVICE"},
    {"S-1-5-7", "AN", "ANONYMOUS LOGON"},
    {"S-1-5-9", "ED", "ENTERPRISE DOMAIN CONTROLLERS"},
    {"S-1-5-10", "PS", "SELF"},
    {"S-1-5-11", "AU", "Authenticated Users"},
    {"S-1-5-12", "RC", "RESTRICTED"},
    {"S-1-5-13", "", "TERMINAL SERVER USER"},
    {"S-1-5-14", "", "REMOTE INTERACTIVE LOGON"},
    {"S-1-5-15", "", "This Organization"},
    {"S-1-5-17", "", "IUSR"},
    {"S-1-5-18", "SY", "SYSTEM"},
    {"S-1-5-19", "LS", "LOCAL SERVICE"},
    {"S-1-5-20", "NS", "NETWORK SERVICE"},
    {"S-1-5-32-544", "BA", "Administrators"},
    {"S-1-5-32-545", "BU", "Users"},
    {"S-1-5-32-546", "BG", "Guests"},
    {"S-1-5-32-547", "PU", "Power Users"},
    {"S-1-5-32-548", "AO", "Account Operators"},
    {"S-1-5-32-549", "SO", "Server Operators"},
    {"S-1-5-32-550", "PO", "Print Operators"},
    {"S-1-5-32-551", "BO", "Backup Operators"},
    {"S-1-5-32-552", "RE", "Replicator"},
    {"S-1-5-32-554", "RU", "Pre-Windows 2000 Compatible Access"},
    {"S-1-5-32-555", "RD", "Remote Desktop Users"},
    {"S-1-5-32-556", "NO", "Network Configuration Operators"},
    {"S-1-5-32-558", "MU", "Performance Monitor Users"},
    {"S-1-5-32-559", "LU", "Performance Log Users"},
    {"S-1-5-32-568", "IS", "IIS_IUSRS"},
    {"S-1-5-32-569", "CY", "Cryptographic Operators"},
    {"S-1-5-32-573", "ER", "Event Log Readers"},
    {"S-1-5-32-574", "CD", "Certificate Service DCOM Access"},
    {"S-1-5-32-575", "RA", "RDS Remote Access Servers"},
    {"S-1-5-32-576", "ES", "RDS Endpoint Servers"},
    {"S-1-5-32-577", "MS", "RDS Management Servers"},
    {"S-1-5-32-578", "HA", "Hyper-V Administrators"},
    {"S-1-5-32-579", "AA", "Access Control Assistance Operators"},
    {"S-1-5-32-580", "RM", "Remote Management Users"},
    {"S-1-5-33", "WR", "WRITE RESTRICTED"},
    {"S-1-5-64-10", "", "NTLM Authentication"},
    {"S-1-5-80-0", "", "ALL SERVICES"},
    {"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464", "", "TrustedInstaller"},
    {"S-1-5-113", "", "Local account"},
    {"S-1-5-114", "", "Local account and member of Administrators group"},
    {"S-1-15-2-1", "AC", "ALL APPLICATION PACKAGES"},
    {"S-1-15-2-2", "", "ALL RESTRICTED APPLICATION PACKAGES"},
    {"S-1-16-0", "", "Untrusted Mandatory Level"},
    {"S-1-16-4096", "LW", "Low Mandatory Level"},
    {"S-1-16-8192", "ME", "Medium Mandatory Level"},
    {"S-1-16-8448", "MP", "Medium Plus Mandatory Level"},
    {"S-1-16-12288", "HI", "High Mandatory Level"},
    {"S-1-16-16384", "SI", "System Mandatory Level"},
};

// Accounts and groups of a domain (or of a machine's own accounts),
// S-1-5-21-x-y-z-RID, by their relative identifier.
struct DomainRid {
  std::uint32_t rid;
  std::string_view name;
};
constexpr DomainRid DOMAIN_RIDS[] = {
    {500, "Administrator"},
    {501, "Guest"},
    {502, "krbtgt"},
    {503, "DefaultAccount"},
    {504, "WDAGUtilityAccount"},
    {512, "Domain Admins"},
    {513, "Domain Users"},
    {514, "Domain Guests"},
    {515, "Domain Computers"},
    {516, "Domain Controllers"},
    {517, "Cert Publishers"},
    {518, "Schema Admins"},
    {519, "Enterprise Admins"},
    {520, "Group Policy Creator Owners"},
    {553, "RAS and IAS Servers"},
};

// A SID as numbers (revision, authority, sub-authority count, then the
// sub-authorities, zero behind them): the table's order and lookup key.
using SidKey = std::array<std::uint64_t, 9>;

SidKey sidKey(const Sid& sid) {
  SidKey k{sid.revision, sid.authority, sid.sub_authorities.size()};
  for (size_t i = 0; i < sid.sub_authorities.size(); ++i) k[3 + i] = sid.sub_authorities[i];
  return k;
}

// "S-1-5-32-544" as numbers; the table's texts are all well formed.
SidKey parseKey(std::string_view text) {
  SidKey k{};
  size_t field = 0;
  for (size_t i = 2; i < text.size(); ++i) {
    if (text[i] == '-') {
      ++field;
      continue;
    }
    std::uint64_t& slot = k[field < 2 ? field : field + 1];
    slot = slot * 10 + static_cast<std::uint64_t>(text[i] - '0');
  }
  k[2] = field - 1;
  return k;
}

// Looked up for every entry of every descriptor shown: by number, in a
// table sorted once, not by the SID's text against each entry.
const WellKnown* wellKnown(const Sid& sid) {
  static const std::vector<std::pair<SidKey, const WellKnown*>> sorted = [] {
    std::vector<std::pair<SidKey, const WellKnown*>> v;
    for (const WellKnown& w : WELL_KNOWN) v.push_back({parseKey(w.sid), &w});
    std::sort(v.begin(), v.end());
    return v;
  }();
  if (sid.sub_authorities.size() > 6) return nullptr;
  const SidKey key = sidKey(sid);
  auto it = std::lower_bound(
      sorted.begin(), sorted.end(), key,
      [](const std::pair<SidKey, const WellKnown*>& e, const SidKey& k) { return e.first < k; });
  return it != sorted.end() && it->first == key ? it->second : nullptr;
}

void appendHex(std::string& out, std::uint64_t v) {
  char b[24];
  std::snprintf(b, sizeof b, "0x%llx", static_cast<unsigned long long>(v));
  out += b;
}

std::string sidText(const Sid& sid) {
  const std::string_view alias = sid_alias(sid);
  return alias.empty() ? to_string(sid) : std::string(alias);
}

std::string guidText(const std::array<std::uint8_t, 16>& g) {
  char b[40];
  std::snprintf(b, sizeof b, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", g[3],
                g[2], g[1], g[0], g[5], g[4], g[7], g[6], g[8], g[9], g[10], g[11], g[12], g[13], g[14],
                g[15]);
  return b;
}

std::string aceTypeText(std::uint8_t type) {
  static constexpr std::string_view NAMES[] = {"A",  "D", "AU", "AL", "", "OA", "OD", "OU", "OL", "XA", "XD",
                                               "ZA", "",  "XU", "",   "", "",   "ML", "RA", "SP", "TL", "FL"};
  if (type < std::size(NAMES) && !NAMES[type].empty()) return std::string(NAMES[type]);
  std::string s;
  appendHex(s, type);
  return s;
}

std::string aceFlagsText(std::uint8_t flags) {
  static constexpr std::pair<std::uint8_t, std::string_view> FLAGS[] = {
      {0x01, "OI"}, {0x02, "CI"}, {0x04, "NP"}, {0x08, "IO"}, {0x10, "ID"}, {0x40, "SA"}, {0x80, "FA"}};
  std::string s;
  for (const auto& [bit, name] : FLAGS)
    if (flags & bit) s += name;
  if (flags & 0x20) appendHex(s, flags);  // no name: the whole byte
  return s;
}

void appendAcl(std::string& out, const std::optional<Acl>& acl, std::uint16_t control, bool dacl) {
  if (control & (dacl ? SE_DACL_PROTECTED : SE_SACL_PROTECTED)) out += "P";
  if (control & (dacl ? SE_DACL_AUTO_INHERIT_REQ : SE_SACL_AUTO_INHERIT_REQ)) out += "AR";
  if (control & (dacl ? SE_DACL_AUTO_INHERITED : SE_SACL_AUTO_INHERITED)) out += "AI";
  if (!acl) {
    out += "NO_ACCESS_CONTROL";
    return;
  }
  for (const Ace& ace : acl->aces) {
    out += '(';
    out += aceTypeText(ace.type);
    out += ';';
    out += aceFlagsText(ace.flags);
    out += ';';
    out += rights_string(ace.mask, ace.type);
    out += ';';
    if (ace.object_type) out += guidText(*ace.object_type);
    out += ';';
    if (ace.inherited_object_type) out += guidText(*ace.inherited_object_type);
    out += ';';
    if (isKnownAce(ace.type)) out += sidText(ace.sid);
    out += ')';
  }
}

}  // namespace

Result<ParsedSecurityDescriptor> parse_security_descriptor(std::span<const std::byte> bytes) {
  const Reader r(bytes);
  if (bytes.size() < HEADER_SIZE)
    return Status(Code::corrupt, "security descriptor: " + std::to_string(bytes.size()) +
                                     " bytes, shorter than its 20-byte header");
  ParsedSecurityDescriptor sd;
  sd.revision = r.u8(0);
  sd.control = r.u16(2);
  if (sd.revision != 1) return corrupt("unknown revision " + std::to_string(sd.revision), 0);
  if (!(sd.control & SE_SELF_RELATIVE)) return corrupt("not in self-relative form", 2);
  const std::uint32_t owner = r.u32(4), group = r.u32(8), sacl = r.u32(12), dacl = r.u32(16);
  for (auto [offset, slot, field] :
       {std::tuple{owner, &sd.owner, size_t{4}}, std::tuple{group, &sd.group, size_t{8}}}) {
    if (offset == 0) continue;
    if (offset < HEADER_SIZE) return corrupt("a SID offset points into the header", field);
    size_t length = 0;
    Sid sid;
    if (Status s = parseSid(r, offset, bytes.size(), sid, length); !s) return s;
    *slot = std::move(sid);
  }
  sd.dacl_present = sd.control & SE_DACL_PRESENT;
  sd.sacl_present = sd.control & SE_SACL_PRESENT;
  for (auto [present, offset, slot] :
       {std::tuple{sd.dacl_present, dacl, &sd.dacl}, std::tuple{sd.sacl_present, sacl, &sd.sacl}}) {
    if (!present || offset == 0) continue;
    Acl acl;
    if (Status s = parseAcl(r, offset, acl); !s) return s;
    *slot = std::move(acl);
  }
  return sd;
}

std::string to_string(const Sid& sid) {
  std::string s = "S-" + std::to_string(sid.revision) + "-";
  if (sid.authority >> 32) {
    char b[24];
    std::snprintf(b, sizeof b, "0x%012llx", static_cast<unsigned long long>(sid.authority));
    s += b;
  } else {
    s += std::to_string(sid.authority);
  }
  for (std::uint32_t sub : sid.sub_authorities) {
    s += '-';
    s += std::to_string(sub);
  }
  return s;
}

std::string_view sid_alias(const Sid& sid) noexcept {
  try {
    const WellKnown* w = wellKnown(sid);
    return w ? w->alias : std::string_view();
  } catch (...) {
    return {};
  }
}

std::string_view sid_name(const Sid& sid) noexcept {
  const std::vector<std::uint32_t>& subs = sid.sub_authorities;
  if (sid.revision == 1 && sid.authority == 5 && subs.size() == 5 && subs[0] == 21) {
    for (const DomainRid& d : DOMAIN_RIDS)
      if (d.rid == subs[4]) return d.name;
    return {};
  }
  try {
    const WellKnown* w = wellKnown(sid);
    return w ? w->name : std::string_view();
  } catch (...) {
    return {};
  }
}

std::string rights_string(std::uint32_t mask, std::uint8_t ace_type) {
  struct Right {
    std::uint32_t bits;
    std::string_view name;
  };
  // Whole masks with a name of their own: files, then registry keys.
  static constexpr Right WHOLE[] = {{0x1F01FF, "FA"}, {0x120089, "FR"}, {0x120116, "FW"}, {0x1200A0, "FX"},
                                    {0xF003F, "KA"},  {0x20019, "KR"},  {0x20006, "KW"}};
  static constexpr Right BITS[] = {
      {0x10000000, "GA"}, {0x80000000, "GR"}, {0x40000000, "GW"}, {0x20000000, "GX"}, {0x1, "CC"},
      {0x2, "DC"},        {0x4, "LC"},        {0x8, "SW"},        {0x10, "RP"},       {0x20, "WP"},
      {0x40, "DT"},       {0x80, "LO"},       {0x100, "CR"},      {0x10000, "SD"},    {0x20000, "RC"},
      {0x40000, "WD"},    {0x80000, "WO"}};
  static constexpr Right LABEL_BITS[] = {{0x1, "NW"}, {0x2, "NR"}, {0x4, "NX"}};
  std::string out;
  if (ace_type == 0x11) {
    std::uint32_t left = mask;
    for (const Right& r : LABEL_BITS)
      if (mask & r.bits) {
        out += r.name;
        left &= ~r.bits;
      }
    if (left == 0) return out;
    out.clear();
    appendHex(out, mask);
    return out;
  }
  for (const Right& r : WHOLE)
    if (mask == r.bits) return std::string(r.name);
  std::uint32_t left = mask;
  for (const Right& r : BITS)
    if (mask & r.bits) {
      out += r.name;
      left &= ~r.bits;
    }
  if (left == 0) return out;
  out.clear();
  appendHex(out, mask);
  return out;
}

std::string to_sddl(const ParsedSecurityDescriptor& sd) {
  std::string out;
  if (sd.owner) out += "O:" + sidText(*sd.owner);
  if (sd.group) out += "G:" + sidText(*sd.group);
  if (sd.dacl_present) {
    out += "D:";
    appendAcl(out, sd.dacl, sd.control, true);
  }
  if (sd.sacl_present) {
    out += "S:";
    appendAcl(out, sd.sacl, sd.control, false);
  }
  return out;
}

}  // namespace hivekit
