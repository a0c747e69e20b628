// The builder is the ground truth of most other tests, so its images are
// checked here with a small independent reader: framing, lists, data forms.
#include "tests/support/hive_builder.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace hivekit::test {
namespace {

using namespace Libraries::Files::Hive;

struct Reader {
  explicit Reader(std::vector<u8> image) : img(std::move(image)) {}
  std::vector<u8> img;
  std::set<u32> records;  // offsets of every record found by the hbin walk

  const u8* rec(u32 ofs) const { return img.data() + hive_header::SIZE + ofs; }
  u32 length(u32 ofs) const {
    const s32 s = LS32(rec(ofs));
    return s < 0 ? static_cast<u32>(-s) : static_cast<u32>(s);
  }
  // Walks every hbin; every byte must belong to exactly one record.
  void walk() {
    ASSERT_EQ(L32(img.data() + hive_header::OFS_LENGTH) + hive_header::SIZE, img.size());
    u32 bin = 0;
    const u32 total = static_cast<u32>(img.size() - hive_header::SIZE);
    while (bin < total) {
      const u8* h = rec(bin);
      ASSERT_EQ(B32(h), hive_hbin::SIGNATURE) << "hbin at " << bin;
      ASSERT_EQ(L32(h + hive_hbin::OFS_OFFSET), bin);
      const u32 size = L32(h + hive_hbin::OFS_SIZE);
      ASSERT_TRUE(size > 0 && size % 4096 == 0 && bin + size <= total) << "hbin at " << bin;
      u32 ofs = bin + hive_hbin::SIZE;
      while (ofs < bin + size) {
        const u32 len = length(ofs);
        ASSERT_TRUE(len >= 8 && len % 8 == 0) << "record at " << ofs;
        records.insert(ofs);
        ofs += len;
      }
      ASSERT_EQ(ofs, bin + size) << "records overrun hbin " << bin;
      bin += size;
    }
  }
  // A used record that the walk found, at least `need` bytes long.
  const u8* used(u32 ofs, u32 need) const {
    EXPECT_TRUE(records.count(ofs)) << "no record at " << ofs;
    if (!records.count(ofs)) return nullptr;
    EXPECT_LT(LS32(rec(ofs)), 0) << "free record at " << ofs;
    EXPECT_GE(length(ofs), need) << "short record at " << ofs;
    return rec(ofs);
  }
  std::u16string keyName(const u8* nk) const {
    const u16 n = L16(nk + hive_record_nk::OFS_NAME_LENGTH);
    std::u16string s;
    if (L16(nk + hive_record_nk::OFS_FLAGS) & hive_record_nk::FLAG_COMP_NAME) {
      for (u16 i = 0; i < n; ++i) s.push_back(nk[hive_record_nk::OFS_NAME + i]);
    } else {
      for (u16 i = 0; i + 1 < n; i += 2) s.push_back(L16(nk + hive_record_nk::OFS_NAME + i));
    }
    return s;
  }
  // nk offsets of a key's subkeys in list order, checking each list record.
  std::vector<u32> subkeys(u32 nkOfs, u16 expectLeaf) const {
    const u8* nk = rec(nkOfs);
    std::vector<u32> out;
    const u32 count = L32(nk + hive_record_nk::OFS_NUM_KEYS);
    if (count == 0) return out;
    std::vector<u32> leaves = {L32(nk + hive_record_nk::OFS_KEY_LIST)};
    const u8* top = used(leaves[0], 8);
    if (!top) return out;
    if (B16(top + 4) == hive_record_list::SIGNATURE_RI) {
      leaves.clear();
      for (u16 i = 0; i < L16(top + hive_record_list::OFS_COUNT); ++i) leaves.push_back(L32(top + 8 + 4 * i));
    }
    for (u32 leaf : leaves) {
      const u8* l = used(leaf, 8);
      if (!l) return {};
      EXPECT_EQ(B16(l + 4), expectLeaf);
      const bool hashed = expectLeaf != hive_record_list::SIGNATURE_LI;
      const u16 n = L16(l + hive_record_list::OFS_COUNT);
      for (u16 i = 0; i < n; ++i) {
        const u32 child = L32(l + 8 + (hashed ? 8 : 4) * i);
        const u8* c = used(child, hive_record_nk::HEADER_SIZE);
        if (!c) return {};
        EXPECT_EQ(L32(c + hive_record_nk::OFS_PARENT), nkOfs);
        if (expectLeaf == hive_record_list::SIGNATURE_LF) {
          const std::u16string name = keyName(c);
          for (size_t k = 0; k < 4; ++k)
            EXPECT_EQ(l[12 + 8 * i + k], k < name.size() && name[k] < 256 ? name[k] : 0);
        }
        out.push_back(child);
      }
    }
    EXPECT_EQ(out.size(), count);
    return out;
  }
  // Data of a value, reassembled from whichever form it is stored in.
  std::vector<u8> data(u32 vkOfs) const {
    const u8* vk = used(vkOfs, hive_record_vk::HEADER_SIZE);
    if (!vk) return {};
    const u32 raw = L32(vk + hive_record_vk::OFS_DATA_SIZE);
    const u32 size = raw & ~hive_record_vk::DATA_RESIDENT;
    if (raw & hive_record_vk::DATA_RESIDENT) return {vk + 12, vk + 12 + size};
    const u8* d = used(L32(vk + hive_record_vk::OFS_DATA), 8);
    if (!d) return {};
    if (B16(d + 4) != hive_record_db::SIGNATURE) return {d + 4, d + 4 + size};
    const u16 n = L16(d + hive_record_db::OFS_COUNT);
    const u8* list = used(L32(d + hive_record_db::OFS_LIST), 4 + 4 * n);
    std::vector<u8> out;
    for (u16 i = 0; list && i < n; ++i) {
      const u32 frag = L32(list + 4 + 4 * i);
      const u8* f = used(frag, 8);
      if (!f) return {};
      EXPECT_EQ(length(frag), hive_record_vk::FRAGMENT_CELL) << "fragment " << i;
      const u32 take = std::min<u32>(size - static_cast<u32>(out.size()), 16344);
      out.insert(out.end(), f + 4, f + 4 + take);
    }
    return out;
  }
};

std::u16string asciiUpper(std::u16string s) {
  for (char16_t& c : s) c = (c >= u'a' && c <= u'z') ? c - 32 : c;
  return s;
}

TEST(HiveBuilderTest, ImageIsFramedAndChecksummed) {
  HiveBuilder b;
  const u32 root = b.root();
  b.value(b.key(root, u"k"), u"big", 3, std::vector<u8>(5000, 1));
  Reader r(b.build());
  r.walk();
  EXPECT_EQ(B32(r.img.data()), hive_header::SIGNATURE);
  EXPECT_EQ(L32(r.img.data() + hive_header::OFS_CHECKSUM), calculateHeaderChecksum(r.img.data()));
  EXPECT_EQ(L32(r.img.data() + hive_header::OFS_ROOT), root);
  EXPECT_EQ(L32(r.img.data() + hive_header::OFS_MINOR), 5u);
  // A second build renders the same bytes: layout happens once.
  EXPECT_EQ(b.build(), r.img);

  // Damage is applied after the checksum, in order.
  HiveBuilder d;
  d.root();
  d.corruptChecksum();
  d.patch32(hive_header::OFS_MAJOR, 2);
  d.truncate(5000);
  std::vector<u8> img = d.build();
  ASSERT_EQ(img.size(), 5000u);
  EXPECT_EQ(L32(img.data() + hive_header::OFS_MAJOR), 2u);
  W32(img.data() + hive_header::OFS_MAJOR, 1);
  EXPECT_NE(L32(img.data() + hive_header::OFS_CHECKSUM), calculateHeaderChecksum(img.data()));
}

TEST(HiveBuilderTest, SubkeyListsAreSortedHashedAndSplit) {
  for (u32 minor : {3u, 5u}) {
    SCOPED_TRACE(minor);
    HiveBuilder b(minor);
    b.setMaxListEntries(4);
    const u32 root = b.root();
    const std::vector<std::u16string> names = {u"delta", u"Alpha", u"charlie", u"Bravo", u"echo",
                                               u"x",     u"Fox",   u"golf",    u"Hotel", u"india"};
    for (const auto& n : names) b.key(root, n);
    const u32 small = b.key(root, u"small");
    b.key(small, u"\u00e9t\u00e9");  // Latin-1, stored 8-bit
    b.key(small, u"\u0416");         // stored UTF-16
    Reader r(b.build());
    r.walk();

    // 12 root subkeys over a limit of 4: an ri over three sublists.
    const u8* rootList = r.rec(L32(r.rec(root) + hive_record_nk::OFS_KEY_LIST));
    EXPECT_EQ(B16(rootList + 4), hive_record_list::SIGNATURE_RI);
    EXPECT_EQ(L16(rootList + hive_record_list::OFS_COUNT), 3u);
    const u16 leaf = minor >= 4 ? hive_record_list::SIGNATURE_LH : hive_record_list::SIGNATURE_LI;
    std::vector<u32> keys = r.subkeys(root, leaf);
    ASSERT_EQ(keys.size(), names.size() + 1);
    for (size_t i = 1; i < keys.size(); ++i) {
      EXPECT_LT(asciiUpper(r.keyName(r.rec(keys[i - 1]))), asciiUpper(r.keyName(r.rec(keys[i]))));
    }

    const u16 single = minor >= 4 ? hive_record_list::SIGNATURE_LH : hive_record_list::SIGNATURE_LF;
    std::vector<u32> sub = r.subkeys(small, single);
    ASSERT_EQ(sub.size(), 2u);
    EXPECT_EQ(L16(r.rec(sub[0]) + hive_record_nk::OFS_FLAGS), hive_record_nk::FLAG_COMP_NAME);
    EXPECT_EQ(L16(r.rec(sub[0]) + hive_record_nk::OFS_NAME_LENGTH), 3u);
    EXPECT_EQ(L16(r.rec(sub[1]) + hive_record_nk::OFS_FLAGS), 0u);
    EXPECT_EQ(r.keyName(r.rec(sub[1])), u"\u0416");

    const u32 sk = L32(r.rec(root) + hive_record_nk::OFS_SK);
    const u8* s = r.used(sk, 24);
    EXPECT_EQ(L32(s + hive_record_sk::OFS_REFCOUNT), names.size() + 4);
    EXPECT_EQ(L32(s + hive_record_sk::OFS_FLINK), sk);
    EXPECT_EQ(L32(s + hive_record_sk::OFS_BLINK), sk);
    EXPECT_EQ(L16(r.rec(root) + hive_record_nk::OFS_FLAGS), 0x2C);
  }
  // Hashes by hand: upper-cased units, h * 37 + c; Latin-1 letters fold too.
  EXPECT_EQ(HiveBuilder::lhHash(u"ab", true), 65u * 37 + 66);
  EXPECT_EQ(HiveBuilder::lhHash(u"\u00e9", true), 0xC9u);
  EXPECT_EQ(HiveBuilder::lfHint(u"ab"), 0x6261u);
}

TEST(HiveBuilderTest, ValueDataTakesTheWindowsStorageForm) {
  std::vector<u8> big(40000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<u8>(i * 13 + i / 256);
  for (u32 minor : {3u, 5u}) {
    SCOPED_TRACE(minor);
    HiveBuilder b(minor);
    const u32 root = b.root();
    const u32 resident = b.value(root, u"r", 4, {1, 2, 3});
    const u32 single = b.value(root, u"s", 3, {1, 2, 3, 4, 5});
    const u32 edge = b.value(root, u"e", 3, std::vector<u8>(16344, 7));
    const u32 large = b.value(root, u"", 3, big);
    Reader r(b.build());
    r.walk();

    EXPECT_EQ(L32(r.rec(resident) + hive_record_vk::OFS_DATA_SIZE), 0x80000003u);
    EXPECT_EQ(r.data(resident), (std::vector<u8>{1, 2, 3}));
    EXPECT_EQ(r.data(single), (std::vector<u8>{1, 2, 3, 4, 5}));
    EXPECT_EQ(r.data(edge), std::vector<u8>(16344, 7));
    const u8* d = r.rec(L32(r.rec(large) + hive_record_vk::OFS_DATA));
    EXPECT_EQ(B16(d + 4) == hive_record_db::SIGNATURE, minor >= 4);
    if (minor >= 4) {
      EXPECT_EQ(L16(d + hive_record_db::OFS_COUNT), 3u);
    }
    EXPECT_EQ(r.data(large), big);

    const u8* list = r.used(L32(r.rec(root) + hive_record_nk::OFS_VALUE_LIST), 20);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(L32(r.rec(root) + hive_record_nk::OFS_NUM_VALUES), 4u);
    const u32 order[] = {resident, single, edge, large};
    for (u32 i = 0; i < 4; ++i) EXPECT_EQ(L32(list + 4 + 4 * i), order[i]);
  }
}

}  // namespace
}  // namespace hivekit::test
