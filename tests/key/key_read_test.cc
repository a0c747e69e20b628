// Loading subkey lists of every kind, lookups by name, and lists damaged in
// the ways a hostile or broken hive can damage them.
#include <algorithm>
#include <functional>

#include "platform/log.h"
#include "tests/key/key_test_util.h"

namespace hivekit::test {
namespace {

namespace Error = Platform::Error;
using Platform::W16;
using Platform::W32;

// A root with the four subkeys below (in sorted order), laid out; tests
// then point the root at lists of their own making.
struct FourKeys {
  explicit FourKeys(u32 minor = 5) : b(minor) {
    root = b.root();
    for (const char16_t* n : {u"alpha", u"Beta", u"delta", u"GAMMA"}) keys.push_back(b.key(root, n));
    b.layout();
  }
  void setList(u32 list, u32 numKeys) {
    W32(b.at(root) + hive_record_nk::OFS_KEY_LIST, list);
    W32(b.at(root) + hive_record_nk::OFS_NUM_KEYS, numKeys);
  }
  std::vector<u32> hashes(u32 first, u32 count, bool lf) const {
    static const std::u16string names[] = {u"alpha", u"Beta", u"delta", u"GAMMA"};
    std::vector<u32> h;
    for (u32 i = first; i < first + count; ++i)
      h.push_back(lf ? HiveBuilder::lfHint(names[i]) : HiveBuilder::lhHash(names[i], true));
    return h;
  }
  std::vector<u32> slice(u32 first, u32 count) const {
    return std::vector<u32>(keys.begin() + first, keys.begin() + first + count);
  }
  Ref<RegistryHiveObj> open(u32 mode = Hive::modeReadOnly) { return openImage(b.build(), mode); }

  HiveBuilder b;
  u32 root = 0;
  std::vector<u32> keys;
};

const std::vector<std::string> kSorted = {"alpha", "Beta", "delta", "GAMMA"};

void expectFourKeys(const Ref<RegistryHiveObj>& hive) {
  ASSERT_TRUE(hive);
  Ref<Hive::Key> root = hive->root();
  EXPECT_EQ(subkeyNames(root), kSorted);
  for (const char* n : {"ALPHA", "beta", "Delta", "gamma"}) EXPECT_TRUE(root->key(str(n))) << n;
  EXPECT_FALSE(root->key(str("epsilon")));
  EXPECT_EQ(Error::get(), Errors::KEY_NOT_FOUND);
  EXPECT_FALSE(root->key(str("")));
  EXPECT_FALSE(root->key(str("zzz")));
}

TEST(KeyListRead, EveryKindOfListLoads) {
  using Write = std::function<u32(FourKeys&)>;
  const Write lists[] = {
      [](FourKeys& f) { return f.b.writeList(LF, f.keys, f.hashes(0, 4, true)); },
      [](FourKeys& f) { return f.b.writeList(LH, f.keys, f.hashes(0, 4, false)); },
      [](FourKeys& f) { return f.b.writeList(LI, f.keys); },
      [](FourKeys& f) {
        return f.b.writeList(RI, {f.b.writeList(LI, f.slice(0, 1)), f.b.writeList(LI, f.slice(1, 3))});
      },
      // lh and li sublists mixed under one ri
      [](FourKeys& f) {
        return f.b.writeList(
            RI, {f.b.writeList(LH, f.slice(0, 2), f.hashes(0, 2, false)), f.b.writeList(LI, f.slice(2, 2))});
      },
  };
  for (const Write& write : lists) {
    FourKeys f;
    f.setList(write(f), 4);
    expectFourKeys(f.open());
  }
}

TEST(KeyListRead, MixedRiTakesNewEntriesAndHashesLiEntries) {
  FourKeys f;
  const u32 a = f.b.writeList(LI, f.slice(0, 2));
  const u32 b = f.b.writeList(LH, f.slice(2, 2), f.hashes(2, 2, false));
  f.setList(f.b.writeList(RI, {a, b}), 4);
  Ref<RegistryHiveObj> hive = f.open(0);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  ASSERT_TRUE(root->createKey(str("Aardvark")));  // goes into the li sublist
  EXPECT_EQ(subkeyNames(root), (std::vector<std::string>{"Aardvark", "alpha", "Beta", "delta", "GAMMA"}));
  // The rewritten sublist takes the lh form of a 1.5 hive, hashes and all.
  const u32 list = hive->cacheLoadRecord(root->offset())->u32At(hive_record_nk::OFS_KEY_LIST);
  const hive_record* ri = hive->cacheLoadRecord(list);
  ASSERT_TRUE(ri);
  EXPECT_EQ(ri->signature(), RI);
  const u32 first = ri->u32At(hive_record_list::OFS_ITEMS);
  const hive_record* sub = hive->cacheLoadRecord(first);
  ASSERT_TRUE(sub);
  EXPECT_EQ(sub->signature(), LH);
  EXPECT_EQ(sub->u16At(hive_record_list::OFS_COUNT), 3u);
  EXPECT_EQ(sub->u32At(hive_record_list::OFS_ITEMS + 12), HiveBuilder::lhHash(u"alpha", true));
}

TEST(KeyListRead, DamagedListsAreRefusedWithoutHarm) {
  struct Damage {
    const char* what;
    std::function<u32(FourKeys&)> list;  // the root's list record
    u32 numKeys;
    const char* message;
  };
  const Damage damages[] = {
      {"count beyond the record",
       [](FourKeys& f) { return f.b.writeList(LH, f.slice(0, 2), f.hashes(0, 2, false), 40); }, 40,
       "Size of items of lh list exceeds size of record"},
      {"more entries than subkeys",
       [](FourKeys& f) { return f.b.writeList(LF, f.keys, f.hashes(0, 4, true)); }, 3,
       "More items in lf list than expected"},
      {"fewer entries than subkeys", [](FourKeys& f) { return f.b.writeList(LI, f.slice(0, 3)); }, 4,
       "Failed to load li (top level) key list: "},
      {"a count no single list can hold",
       [](FourKeys& f) { return f.b.writeList(LH, f.slice(0, 3), f.hashes(0, 3, false)); }, 70000,
       "Failed to load lh key list, list:"},
      {"not a list", [](FourKeys& f) { return f.keys[1]; }, 4, "Invalid list type for key list: "},
      {"ri over lf",
       [](FourKeys& f) { return f.b.writeList(RI, {f.b.writeList(LF, f.keys, f.hashes(0, 4, true))}); }, 4,
       "Invalid list type for key sub list: "},
      {"ri over ri",
       [](FourKeys& f) { return f.b.writeList(RI, {f.b.writeList(RI, {f.b.writeList(LI, f.keys)})}); }, 4,
       "Invalid list type for key sub list: "},
      {"sublists short of the count",
       [](FourKeys& f) {
         return f.b.writeList(RI, {f.b.writeList(LI, f.slice(0, 2)), f.b.writeList(LI, f.slice(2, 1))});
       },
       4, "Wrong number of items in sublists of ri list"},
      {"ri count beyond the record",
       [](FourKeys& f) { return f.b.writeList(RI, {f.b.writeList(LI, f.keys)}, {}, 50); }, 4,
       "Size of items of ri list exceeds size of record"},
      // Refused before anything of that size is allocated.
      {"a key count no hive can hold",
       [](FourKeys& f) { return f.b.writeList(RI, {f.b.writeList(LI, f.keys)}); }, 0xfffffff0u,
       "Wrong number of items in sublists of ri list"},
      {"ri naming one sublist twice",
       [](FourKeys& f) {
         const u32 a = f.b.writeList(LI, f.slice(0, 2));
         return f.b.writeList(RI, {a, a});
       },
       4, "Failed to load sub list of ri list: "},
  };
  for (const Damage& d : damages) {
    SCOPED_TRACE(d.what);
    FourKeys f;
    f.setList(d.list(f), d.numKeys);
    Ref<RegistryHiveObj> hive = f.open();
    ASSERT_TRUE(hive);
    Ref<Hive::Key> root = hive->root();
    Platform::Log::Capture log;
    Error::set(0);
    EXPECT_FALSE(root->key(str("alpha")));
    EXPECT_EQ(Error::get(), Errors::BAD_KEY_LIST);
    EXPECT_TRUE(log.contains(d.message)) << (log.messages().empty() ? "" : log.messages().back().text);
    EXPECT_FALSE(root->keyIterator()->next());
    // A later call tries again and fails the same way.
    log.clear();
    EXPECT_FALSE(root->key(str("beta")));
    EXPECT_TRUE(log.contains(d.message));
  }
}

TEST(KeyListRead, EmptyListLoadsOnlyWithoutSubkeys) {
  {
    FourKeys f;
    f.setList(f.b.writeList(LH, {}), 0);
    Ref<RegistryHiveObj> hive = f.open(0);
    ASSERT_TRUE(hive);
    Ref<KeyObj> root = hive->rootObj();
    EXPECT_TRUE(subkeyNames(root).empty());
    EXPECT_FALSE(root->key(str("alpha")));
    EXPECT_EQ(Error::get(), Errors::KEY_NOT_FOUND);
    ASSERT_TRUE(root->createKey(str("new")));
    EXPECT_EQ(subkeyNames(root), (std::vector<std::string>{"new"}));
    const ListShape shape = listShape(*hive, root->offset());
    EXPECT_EQ(shape.top, LH);
    EXPECT_EQ(shape.lists.size(), 1u);
  }
  {
    FourKeys f;
    f.setList(f.b.writeList(LH, {}), 2);
    Ref<RegistryHiveObj> hive = f.open();
    ASSERT_TRUE(hive);
    EXPECT_FALSE(hive->root()->key(str("alpha")));
    EXPECT_EQ(Error::get(), Errors::BAD_KEY_LIST);
  }
}

// A list naming its own key is resource_bounds_test.cc's; here, a list
// entry that is a record but no key: only what needs that entry fails.
TEST(KeyListRead, AnEntryThatIsNoKeyFailsOnlyWhatNeedsIt) {
  FourKeys f;
  const u32 junk = f.b.writeList(LI, {});
  f.setList(f.b.writeList(LI, {f.keys[0], f.keys[1], f.keys[2], junk}), 4);
  Ref<RegistryHiveObj> hive = f.open();
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  Platform::Log::Capture log;
  EXPECT_TRUE(root->key(str("delta")));
  EXPECT_FALSE(root->key(str("zzz")));  // the probe at position 3 fails
  EXPECT_TRUE(log.contains("New created KeyObj not valid"));
  EXPECT_TRUE(log.contains("Failed to open sub key for binary search. key: "));
  Ref<Hive::KeyIterator> it = root->keyIterator();
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(it->next());
  EXPECT_FALSE(it->next());  // position 3 cannot be opened
  EXPECT_FALSE(it->next());  // and the walk is over
}

TEST(KeyListRead, LinearFallbackWhenAProbedNameIsEmpty) {
  FourKeys f;
  W16(f.b.at(f.keys[1]) + hive_record_nk::OFS_NAME_LENGTH, 0);  // "Beta" loses its name
  f.setList(f.b.writeList(LI, f.keys), 4);
  Ref<RegistryHiveObj> hive = f.open(Hive::modeReadOnly | Hive::modeLinearFallback);
  ASSERT_TRUE(hive);
  Platform::Log::Capture log;
  EXPECT_TRUE(hive->root()->key(str("alpha")));
  EXPECT_TRUE(log.contains("Can't get name of other key for binary search, using linear fallback"));
  EXPECT_TRUE(hive->root()->key(str("gamma")));
}

}  // namespace
}  // namespace hivekit::test
