// Lays out a complete hive in memory, byte by byte, for tests and samples.
//
// Two levels share one image:
//  - The low level appends hbins and records and writes records with
//    explicit field values, so a test can make any structure, including
//    broken ones. `at()` gives raw access to any record for poking.
//  - The high level (root, key, value, build) makes a well-formed tree the
//    way Windows would store it: sorted subkey lists (lf before version 1.4,
//    lh from 1.4 on, an ri over sublists beyond the list limit), value lists
//    in insertion order, the three data storage forms, one shared sk record
//    with its reference count, and every hbin completely filled with records.
//
// Records are allocated in call order, one after another, in the last hbin;
// a record that does not fit opens a new hbin. The remaining space of every
// hbin becomes one free record when the image is rendered. All offsets are
// record offsets (counted from the first hbin). Misuse of the builder (an
// unknown parent key, a bad hbin size, adding keys after layout) throws
// std::logic_error: it is a bug in the test, not a hive condition.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "hive/format/format.h"

namespace hivekit::test {

using Platform::u16;
using Platform::u32;
using Platform::u64;
using Platform::u8;

constexpr u32 NO_RECORD = Libraries::Files::Hive::INVALID_RECORD;
// Subkey list signatures, as the tests name them.
constexpr u16 LF = Libraries::Files::Hive::hive_record_list::SIGNATURE_LF;
constexpr u16 LH = Libraries::Files::Hive::hive_record_list::SIGNATURE_LH;
constexpr u16 LI = Libraries::Files::Hive::hive_record_list::SIGNATURE_LI;
constexpr u16 RI = Libraries::Files::Hive::hive_record_list::SIGNATURE_RI;

// How a name is stored: 8-bit (one Latin-1 byte per character, flagged as
// compressed) or UTF-16LE. `automatic` picks 8-bit when every character is
// below 256. A forced 8-bit name keeps only the low byte of each character.
enum class NameForm { automatic, compressed, utf16 };

// Every field of an nk record; the defaults make a plain, empty key.
struct NkFields {
  u16 flags = Libraries::Files::Hive::hive_record_nk::FLAG_COMP_NAME;
  u64 lastWrite = 0;
  u32 access = 0;
  u32 parent = 0;
  u32 numKeys = 0;
  u32 numVolatileKeys = 0;
  u32 keyList = NO_RECORD;
  u32 volatileKeyList = NO_RECORD;
  u32 numValues = 0;
  u32 valueList = NO_RECORD;
  u32 sk = NO_RECORD;
  u32 classOffset = NO_RECORD;
  u32 maxName = 0, maxClass = 0, maxValueName = 0, maxValueData = 0, work = 0;
  std::vector<u8> name;           // stored bytes
  std::optional<u16> nameLength;  // default: name.size()
  u16 classLength = 0;
  u32 slack = 0;  // extra bytes requested after the name
};

// Every field of a vk record. `dataSize` is the raw field (bit 31 = resident).
struct VkFields {
  std::vector<u8> name;
  std::optional<u16> nameLength;
  u32 dataSize = 0x80000000u;
  u32 data = 0;
  u32 type = 0;
  u16 flags = Libraries::Files::Hive::hive_record_vk::FLAG_COMP_NAME;
  u16 spare = 0;
  u32 slack = 0;
};

// Every field of an sk record; an empty descriptor takes the sample one.
struct SkFields {
  u32 flink = 0;
  u32 blink = 0;
  u32 refCount = 1;
  std::vector<u8> descriptor;
  std::optional<u32> descriptorLength;  // default: descriptor.size()
};

class HiveBuilder {
 public:
  explicit HiveBuilder(u32 minor = 5);

  // ---- Base block. Each setter changes the field written by build().
  void setSequence(u32 primary, u32 secondary);
  void setVersion(u32 major, u32 minor);
  void setRootOffset(u32 v) { _rootOffset = v; }
  // At most 32 units are stored; a shorter name is zero-padded.
  void setFileName(std::u16string name) { _fileName = std::move(name); }
  // Default: the current length of all hbins.
  void setHbinsSize(u32 v) { _hbinsSize = v; }

  // ---- Damage applied to the rendered image, in this order: the checksum
  // (computed, or computed-and-flipped), then patches.
  void corruptChecksum() { _corruptChecksum = true; }
  // Overwrites bytes at a file offset (base block included) after the checksum.
  void patch(size_t fileOffset, std::vector<u8> bytes);
  void patch32(size_t fileOffset, u32 value);

  // ---- Low level: hbins and records.
  // Appends an hbin of `size` bytes (a positive multiple of 4096) and returns
  // its offset; later records go into it.
  u32 newHbin(u32 size = 4096);
  // Allocates a used, zero-filled record of roundRecordSize(size) bytes (size
  // field included) and returns its offset.
  u32 cell(u32 size);
  // Marks a record free (positive size); its bytes stay.
  void freeCell(u32 offset);
  // Raw bytes at a record offset; valid until the next allocation.
  u8* at(u32 offset);
  u32 hbinsSize() const { return static_cast<u32>(_bins.size()); }

  u32 writeNk(const NkFields& f);
  u32 writeVk(const VkFields& f);
  // A self-linked sk record when flink/blink are 0.
  u32 writeSk(const SkFields& f);
  // lf/lh take one hash per offset; li/ri take none (`hashes` empty).
  // `count` overrides the stored count (the entries written stay as given).
  u32 writeList(u16 signature, const std::vector<u32>& offsets, const std::vector<u32>& hashes = {},
                std::optional<u16> count = std::nullopt);
  u32 writeDb(u16 count, u32 fragmentList);
  // A record of u32 offsets from offset 4: value lists and fragment lists.
  u32 writeOffsets(const std::vector<u32>& offsets);
  // A data record holding `data` from offset 4; at least `minSize` requested.
  u32 writeData(const std::vector<u8>& data, u32 minSize = 0);

  // ---- Name helpers, the same rules the high level uses.
  static std::vector<u8> latin1(const std::u16string& name);
  static std::vector<u8> utf16le(const std::u16string& name);
  static bool fitsLatin1(const std::u16string& name);
  static std::u16string upcase(const std::u16string& name);
  // lh hash: h = h * 37 + c over the upper-cased name; for an 8-bit name c is
  // the Latin-1 byte of the upper-cased character (0 when above 255).
  static u32 lhHash(const std::u16string& name, bool compressed);
  // lf hint: the first four characters as Latin-1 bytes (0 above 255, 0-padded).
  static u32 lfHint(const std::u16string& name);
  // A small self-relative descriptor: owner Administrators, group SYSTEM,
  // one ACE granting Everyone full access.
  static std::vector<u8> sampleDescriptor();

  // ---- High level.
  // The root key (flags 0x2C, parent 0) and the one sk record all keys share.
  // Sets the base block's root offset. Call once, first.
  u32 root(const std::u16string& name = u"ROOT");
  // A subkey of a key made by root()/key(); returns its nk offset.
  u32 key(u32 parent, const std::u16string& name, NameForm form = NameForm::automatic);
  // A value of a key made by root()/key(); returns its vk offset. The data is
  // stored resident (<= 4 bytes), in one data record, or, from version 1.4 on
  // and above 16344 bytes, as a db record with 16344-byte fragments.
  u32 value(u32 key, const std::u16string& name, u32 type, const std::vector<u8>& data,
            NameForm form = NameForm::automatic);
  // Most entries of one subkey list record before an ri is used; 0 (the
  // default) means 400 for lf hives and 1200 for lh hives.
  void setMaxListEntries(u32 n) { _maxListEntries = n; }

  // Writes subkey lists, value lists, counts, maxima and the sk reference
  // count into the records of the high-level keys. Done once (build() calls
  // it); afterwards records may still be poked with at(), but no key or value
  // may be added.
  void layout();
  // layout() if not yet done, then renders the whole file: base block (with
  // the hbins size and checksum), hbins, free records, damage.
  std::vector<u8> build();

  static constexpr u64 DEFAULT_TIME = 0x01D9C1A2B3C4D5E6ull;

 private:
  struct KeyInfo {
    u32 nk;
    std::u16string name;
    std::vector<u32> subkeys;  // indices into _keys
    std::vector<u32> values;   // vk offsets
    u32 maxValueName = 0;
    u32 maxValueData = 0;
    bool compressed = true;
  };
  struct Bin {
    u32 offset, size, used;
  };

  size_t keyIndex(u32 nk) const;
  u32 writeSubkeyList(KeyInfo& k);
  u32 writeValueData(const std::vector<u8>& data);
  static bool storeCompressed(const std::u16string& name, NameForm form);

  std::vector<u8> _bins;  // every hbin, back to back
  std::vector<Bin> _hbins;
  std::vector<KeyInfo> _keys;
  u32 _sk = NO_RECORD;
  bool _laidOut = false;

  u32 _primarySeq = 1, _secondarySeq = 1, _major = 1, _minor;
  u32 _fileType = 0, _fileFormat = 1, _clustering = 1, _rootOffset = NO_RECORD;
  std::u16string _fileName = u"\\hivekit\\sample.hiv";
  std::optional<u32> _hbinsSize;
  bool _corruptChecksum = false;
  std::vector<std::pair<size_t, std::vector<u8>>> _patches;
  u64 _lastWrite = DEFAULT_TIME;
  u32 _maxListEntries = 0;
};

}  // namespace hivekit::test
