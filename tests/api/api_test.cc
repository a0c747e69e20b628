// The public API as a user meets it: reads of every storage form, data
// that outlives its hive, and the failures a user can run into, each with
// its code and a message naming the cause. Random changes through the API
// are atomic_test.cc's; the engine's own model test checks the bytes.
#include <hivekit/hivekit.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "gtest/gtest.h"
#include "tests/support/hives.h"
#include "tests/support/test_files.h"

namespace hivekit {
namespace {

namespace fs = std::filesystem;
using test::HiveBuilder;

using test::TempDir;

TEST(PublicApi, ReadsEveryFormAsStored) {
  HiveBuilder b(5);
  const auto root = b.root();
  const auto sw = b.key(root, u"Software");
  const auto app = b.key(sw, u"App");
  const std::u16string lone = std::u16string(u"Odd") + char16_t(0xD800);  // an unpaired surrogate
  b.key(sw, lone, test::NameForm::utf16);
  b.key(sw, u"a/b");
  b.value(app, u"", 1, test::sz(u"default"));
  b.value(app, u"Text", 2, test::sz(u"%SystemRoot%"));
  b.value(app, u"List", 7, [] {
    std::vector<test::u8> d = test::sz(u"one");
    for (auto s : {u"", u"three"}) {
      auto p = test::sz(s);
      d.insert(d.end(), p.begin(), p.end());
    }
    d.insert(d.end(), {0, 0});
    return d;
  }());
  b.value(app, u"Le", 4, {1, 2, 3, 4});
  b.value(app, u"Be", 5, {1, 2, 3, 4});
  b.value(app, u"Q", 11, {1, 0, 0, 0, 0, 0, 0, 0x80});
  std::vector<test::u8> big(40000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<test::u8>(i * 7);
  b.value(app, u"Big", 3, big);
  b.value(app, u"Link", 6, HiveBuilder::utf16le(u"\\Registry\\Machine"));
  TempDir dir;
  const std::string file = dir.write("reads", b.build());

  Result<Hive> hive = Hive::open(file);
  ASSERT_TRUE(hive.ok()) << hive.status().to_string();
  // Either separator, any letter case; a name holding "/" needs the
  // backslash form.
  Result<Key> key = hive->key("software/APP");
  ASSERT_TRUE(key.ok()) << key.status().to_string();
  EXPECT_EQ(key->path(), "\\Software\\App");
  EXPECT_EQ(*hive->key("\\Software\\App\\"), *key);
  EXPECT_TRUE(hive->key("\\Software\\a/b").ok());
  EXPECT_EQ(hive->key("Software/a/b").status().code(), Code::key_not_found);
  EXPECT_EQ(hive->key("Software\\\\App").status().code(), Code::invalid_argument);

  EXPECT_EQ(key->value("")->string().value(), "default");
  EXPECT_EQ(key->value("text")->string().value(), "%SystemRoot%");
  EXPECT_EQ(key->value("List")->multi_string().value(), (std::vector<std::string>{"one", "", "three"}));
  EXPECT_EQ(key->value("Le")->dword().value(), 0x04030201u);
  EXPECT_EQ(key->value("Be")->dword().value(), 0x01020304u);
  EXPECT_EQ(key->value("Q")->qword().value(), 0x8000000000000001ull);
  EXPECT_EQ(key->value("Link")->link().value(), "\\Registry\\Machine");
  Result<Bytes> data = key->value("Big")->data();
  ASSERT_TRUE(data.ok());
  EXPECT_TRUE(std::equal(data->begin(), data->end(), big.begin(), big.end(),
                         [](std::byte x, test::u8 y) { return std::to_integer<test::u8>(x) == y; }));
  EXPECT_EQ(key->value("Big")->string().status().code(), Code::wrong_type);
  // A piece across the fragments of its data, and one at and past its end.
  Result<Bytes> piece = key->value("Big")->read(16000, 1000);
  ASSERT_TRUE(piece.ok());
  EXPECT_TRUE(std::equal(piece->begin(), piece->end(), big.begin() + 16000, big.begin() + 17000,
                         [](std::byte x, test::u8 y) { return std::to_integer<test::u8>(x) == y; }));
  EXPECT_EQ(key->value("Big")->read(static_cast<std::uint32_t>(big.size()) - 1, 9)->size(), 1u);
  EXPECT_EQ(key->value("Big")->read(static_cast<std::uint32_t>(big.size()) + 5, 9)->size(), 0u);
  // The key as registry text in memory: UTF-16 behind its byte order mark.
  Result<std::string> text = export_reg_to_string(*key);
  ASSERT_TRUE(text.ok()) << text.status().to_string();
  EXPECT_EQ(text->rfind("\xFF\xFE", 0), 0u);
  EXPECT_EQ(key->value("Q")->dword().status().code(), Code::wrong_type);

  // A name that is not valid UTF-16 comes out as WTF-8 and finds its key again.
  std::string oddName;
  for (const Key& sub : hive->key("Software")->subkeys())
    if (sub.name_utf16() == lone) oddName = sub.name();
  ASSERT_FALSE(oddName.empty());
  Result<Key> odd = hive->key("Software")->subkey(oddName);
  ASSERT_TRUE(odd.ok()) << odd.status().to_string();
  EXPECT_EQ(odd->name_utf16(), lone);
  EXPECT_EQ(odd->parent()->name(), "Software");
}

// Data handed out lives on its own: a few bytes are copied into the Bytes,
// more keep the read-only hive's mapping alive. Copies, moves and swaps
// keep either right after the hive is closed and gone.
TEST(PublicApi, ValueDataOutlivesTheHive) {
  HiveBuilder b(5);
  const auto app = b.key(b.root(), u"App");
  const std::vector<test::u8> number = {1, 2, 3, 4};
  const std::vector<test::u8> text = test::sz(u"longer than the bytes kept in place");
  b.value(app, u"Le", 4, number);
  b.value(app, u"Text", 1, text);
  TempDir dir;
  const std::string file = dir.write("data", b.build());
  Bytes small, large;
  {
    Result<Hive> hive = Hive::open(file);
    ASSERT_TRUE(hive.ok()) << hive.status().to_string();
    Result<Key> key = hive->key("App");
    small = key->value("Le")->data().value();
    large = key->value("Text")->data().value();
    EXPECT_TRUE(hive->close().ok());
  }
  Bytes smallCopy = small, largeCopy(large);
  Bytes moved = std::move(smallCopy);
  moved.swap(largeCopy);  // moved holds the text, largeCopy the number
  auto holds = [](const Bytes& got, const std::vector<test::u8>& want) {
    return std::equal(got.begin(), got.end(), want.begin(), want.end(),
                      [](std::byte x, test::u8 y) { return std::to_integer<test::u8>(x) == y; });
  };
  EXPECT_TRUE(holds(small, number));
  EXPECT_TRUE(holds(largeCopy, number));
  EXPECT_NE(largeCopy.data(), small.data());
  EXPECT_TRUE(holds(large, text));
  EXPECT_TRUE(holds(moved, text));
}

// Each class of failure, with the code a program decides by and a message
// that names the cause.
TEST(PublicApi, FailuresNameTheirCause) {
  TempDir dir;
  HiveBuilder good(5);
  const auto r = good.root();
  good.value(good.key(r, u"K"), u"N", 4, {1, 0, 0, 0});
  const std::vector<test::u8> image = good.build();
  const std::string ok = dir.write("ok", image);
  std::vector<test::u8> bytes = image;
  bytes[0] = 'x';
  const std::string notHive = dir.write("nothive", bytes);
  const std::string truncated =
      dir.write("truncated", std::vector<test::u8>(image.begin(), image.begin() + 6000));
  HiveBuilder sum(5);
  sum.root();
  sum.corruptChecksum();
  const std::string badSum = dir.write("badsum", sum.build());
  HiveBuilder dirtyB(5);
  dirtyB.root();
  dirtyB.setSequence(7, 6);
  const std::string dirty = dir.write("dirty", dirtyB.build());

  struct Case {
    std::string path;
    Code code;
    std::string cause;
  };
  const Case cases[] = {
      {(dir.path("missing")).string(), Code::file_not_found, "no such file"},
      {dir.path().string(), Code::is_directory, "directory"},
      {notHive, Code::not_a_hive, "not a registry hive"},
      {truncated, Code::truncated, "truncated"},
      {badSum, Code::bad_checksum, "checksum"},
      {dirty, Code::dirty, "accept_dirty"},
  };
  for (const Case& c : cases) {
    Result<Hive> h = Hive::open(c.path);
    EXPECT_EQ(h.status().code(), c.code) << c.path << ": " << h.status().to_string();
    EXPECT_NE(h.status().message().find(c.cause), std::string::npos) << h.status().message();
    EXPECT_NE(h.status().message().find(c.path), std::string::npos) << h.status().message();
  }
  EXPECT_TRUE(Hive::open(dirty, {.accept_dirty = true}).ok());
  EXPECT_EQ(Hive::open(ok, {.writable = true, .in_memory = true}).status().code(), Code::invalid_argument);

  Result<Hive> ro = Hive::open(ok);
  ASSERT_TRUE(ro.ok());
  Key k = ro->key("K").value();
  const std::pair<Status, Code> calls[] = {
      {ro->key("K\\nope").status(), Code::key_not_found},  {k.value("nope").status(), Code::value_not_found},
      {k.value("N")->string().status(), Code::wrong_type}, {k.create_key("x").status(), Code::read_only},
      {k.value("N")->set_dword(1), Code::read_only},       {Key().subkeys().status(), Code::invalid_handle},
  };
  for (const auto& [status, code] : calls) EXPECT_EQ(status.code(), code) << status.to_string();
  EXPECT_NE(ro->key("K\\nope").status().message().find("K\\nope"), std::string::npos);

  // A writer excludes readers and other writers, in this process too.
  EXPECT_EQ(Hive::open(ok, {.writable = true}).status().code(), Code::in_use);
  ro = Hive();
  Result<Hive> rw = Hive::open(ok, {.writable = true});
  ASSERT_TRUE(rw.ok()) << rw.status().to_string();
  for (bool writable : {false, true}) {
    Result<Hive> second = Hive::open(ok, {.writable = writable});
    EXPECT_EQ(second.status().code(), Code::in_use);
    EXPECT_NE(second.status().message().find("in use by another process"), std::string::npos);
  }
  EXPECT_EQ(Hive::create(ok, {.overwrite = true}).status().code(), Code::in_use);
  Key w = rw->key("K").value();
  ASSERT_TRUE(w.create_key("Sub").ok());
  EXPECT_EQ(rw->root().delete_key("K").code(), Code::not_empty);
  EXPECT_EQ(w.create_key(std::string(256, 'x')).status().code(), Code::too_large);
  EXPECT_EQ(w.subkey("Sub")->move_to(w.subkey("Sub").value()).code(), Code::invalid_argument);
  ASSERT_TRUE(w.create_key("Other").ok());
  EXPECT_EQ(w.subkey("Other")->rename("sub").code(), Code::already_exists);
  // A handle follows its key through a change made through another one.
  const Key other = w.subkey("Other").value();
  ASSERT_TRUE(w.subkey("OTHER")->rename("\xC3\xA9t\xC3\xA9").ok());
  EXPECT_EQ(other.path(), "\\K\\\xC3\xA9t\xC3\xA9");
  ASSERT_TRUE(w.value("N")->set_dword(7).ok());
  EXPECT_EQ(w.value("n")->dword().value(), 7u);
  // Handles outlive the hive; their calls then say so.
  ASSERT_TRUE(rw->close().ok());
  EXPECT_EQ(w.subkeys().status().code(), Code::closed);
  EXPECT_EQ(w.name(), "");
  EXPECT_EQ(w.value("N").status().code(), Code::closed);
}

}  // namespace
}  // namespace hivekit
