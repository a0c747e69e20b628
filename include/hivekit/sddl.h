// Security descriptors decoded: owner, group and access control lists of a
// self-relative descriptor (the form hives store), and their text in the
// Security Descriptor Definition Language (SDDL) that Windows tools show.
//
//   auto bytes = key.security_descriptor()->bytes();
//   auto sd = hivekit::parse_security_descriptor(*bytes);
//   if (sd) std::cout << hivekit::to_sddl(*sd) << '\n';   // "O:BAG:SYD:PAI(A;CI;KA;;;SY)..."
//   for (const hivekit::Ace& ace : sd->dacl.aces)
//     std::cout << hivekit::sid_name(ace.sid) << '\n';       // "SYSTEM", "Administrators", ...
//
// The bytes come from the hive and are treated as hostile: every offset,
// size and count is checked against them, and anything that does not fit
// makes the parse fail with Code::corrupt, naming where.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "hivekit/export.h"
#include "hivekit/status.h"

namespace hivekit {

// A security identifier: S-revision-authority-sub-sub-...
struct Sid {
  std::uint8_t revision = 1;
  std::uint64_t authority = 0;  // 48 bits
  std::vector<std::uint32_t> sub_authorities;  // at most 15
  bool operator==(const Sid&) const = default;
};

// One access control entry.
struct Ace {
  std::uint8_t type = 0;   // 0 allow, 1 deny, 2 audit, 5 object allow, 0x11 mandatory label, ...
  std::uint8_t flags = 0;  // inheritance and audit flags
  std::uint32_t mask = 0;  // access rights
  Sid sid;
  // Object entries (types 5-8, 0xB, 0xC, 0xF, 0x10): the object type and
  // inherited object type GUIDs when their flags say they are there, as
  // 16 bytes in the stored (mixed-endian) order.
  std::optional<std::array<std::uint8_t, 16>> object_type;
  std::optional<std::array<std::uint8_t, 16>> inherited_object_type;
  // Bytes after the SID inside the entry (conditions of callback entries,
  // attributes of resource entries); not decoded.
  std::vector<std::uint8_t> extra;
};

struct Acl {
  std::uint8_t revision = 2;
  std::vector<Ace> aces;
};

struct ParsedSecurityDescriptor {
  std::uint8_t revision = 1;
  std::uint16_t control = 0;  // SE_DACL_PRESENT 0x4, SE_SACL_PRESENT 0x10, ...
  std::optional<Sid> owner, group;
  // Present when the control says so; an empty optional inside means a
  // null ACL (present, but no list: no access control at all).
  bool dacl_present = false, sacl_present = false;
  std::optional<Acl> dacl, sacl;
};

// Decodes a self-relative security descriptor. Fails with corrupt when an
// offset, a size or a count does not fit the bytes, a revision is unknown,
// or an entry is too short for what its type holds.
HIVEKIT_EXPORT Result<ParsedSecurityDescriptor> parse_security_descriptor(std::span<const std::byte> bytes);

// "S-1-5-32-544".
HIVEKIT_EXPORT std::string to_string(const Sid& sid);
// The SDDL abbreviation of a well-known SID ("SY", "BA", "WD", ...); ""
// for others.
HIVEKIT_EXPORT std::string_view sid_alias(const Sid& sid) noexcept;
// The name of a well-known SID ("SYSTEM", "Administrators", "Everyone",
// "Users", "CREATOR OWNER", ...; for a domain account or group only the
// well-known part: "Administrator", "Domain Admins"); "" for others.
HIVEKIT_EXPORT std::string_view sid_name(const Sid& sid) noexcept;
// The rights of an entry in SDDL form: "KA", "KR", "GA", "CCDCLCSWRPWP",
// or "0x..." when they have no name.
HIVEKIT_EXPORT std::string rights_string(std::uint32_t mask, std::uint8_t ace_type = 0);
// The SDDL string: "O:" owner, "G:" group, "D:" flags and entries, "S:"
// flags and entries, each part only when the descriptor has it. Entries
// that SDDL cannot express completely (callback conditions) are written
// without what it cannot express.
HIVEKIT_EXPORT std::string to_sddl(const ParsedSecurityDescriptor& descriptor);

}  // namespace hivekit
