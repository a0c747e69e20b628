// The public API as a user meets it: reads of every storage form, random
// changes checked against a model and the file's bytes, and the failures a
// user can run into, each with its code and a message naming the cause.
#include <hivekit/hivekit.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "gtest/gtest.h"
#include "tests/model/hive_model.h"
#include "tests/support/hive_builder.h"
#include "tests/support/test_files.h"

namespace hivekit {
namespace {

namespace fs = std::filesystem;
using model::Listing;
using model::MKey;
using model::MValue;
using test::HiveBuilder;

struct TempDir {
  fs::path path;
  TempDir() {
    std::string tmpl = (fs::temp_directory_path() / "hivekit-api-XXXXXX").string();
    path = ::mkdtemp(tmpl.data());
  }
  ~TempDir() { fs::remove_all(path); }
  std::string write(const std::string& name, const std::vector<test::u8>& bytes) const {
    const fs::path p = path / name;
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return p.string();
  }
};

std::vector<test::u8> utf16z(std::u16string_view s) {
  std::vector<test::u8> out = HiveBuilder::utf16le(std::u16string(s));
  out.insert(out.end(), {0, 0});
  return out;
}

// The tree below `key` through the public API, in the model's listing form.
void apiListing(const Key& key, const std::string& path, Listing& out) {
  Subkeys subkeys = key.subkeys();
  Values values = key.values();
  out.push_back(model::keyLine(path, subkeys.size(), values.size()));
  for (const Value& v : values) {
    MValue m{v.name_utf16(), static_cast<test::u32>(v.type()), {}};
    Result<Bytes> data = v.data();
    EXPECT_TRUE(data.ok()) << data.status().to_string();
    for (std::byte b : *data) m.data.push_back(static_cast<test::u8>(b));
    out.push_back(model::valueLine(path, m));
  }
  for (const Key& sub : subkeys) apiListing(sub, path + "\\" + model::utf8(sub.name_utf16()), out);
  EXPECT_EQ(subkeys.skipped() + values.skipped(), 0u);
}

TEST(PublicApi, ReadsEveryFormAsStored) {
  HiveBuilder b(5);
  const auto root = b.root();
  const auto sw = b.key(root, u"Software");
  const auto app = b.key(sw, u"App");
  const std::u16string lone = std::u16string(u"Odd") + char16_t(0xD800);  // an unpaired surrogate
  b.key(sw, lone, test::NameForm::utf16);
  b.key(sw, u"a/b");
  b.value(app, u"", 1, utf16z(u"default"));
  b.value(app, u"Text", 2, utf16z(u"%SystemRoot%"));
  b.value(app, u"List", 7, [] {
    std::vector<test::u8> d = utf16z(u"one");
    for (auto s : {u"", u"three"}) {
      auto p = utf16z(s);
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
  const std::vector<test::u8> text = utf16z(u"longer than the bytes kept in place");
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

// Random changes through the API, checked against the model after each
// step and, after every flush, against the file's bytes read without the
// library (no leaked records, lists and counts sound).
TEST(PublicApi, RandomChangesMatchTheModel) {
  TempDir dir;
  const std::string file = (dir.path / "model").string();
  ASSERT_TRUE(Hive::create(file).ok());
  Result<Hive> hive = Hive::open(file, {.writable = true});
  ASSERT_TRUE(hive.ok()) << hive.status().to_string();
  MKey tree{u"", {}, {}};
  std::mt19937 rng(20261123);
  const std::u16string names[] = {u"alpha", u"Beta", u"gamma", u"\u00e9t\u00e9", u"\u4e2d\u6587", u"ALPHA2"};
  auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };

  // A random existing key: its path and the model node.
  auto randomKey = [&](bool allowRoot) {
    std::vector<std::pair<std::u16string, MKey*>> all;
    std::function<void(MKey&, const std::u16string&)> gather = [&](MKey& k, const std::u16string& p) {
      if (allowRoot || !p.empty()) all.emplace_back(p, &k);
      for (auto& [n, s] : k.subkeys) gather(s, p + u"\\" + n);
    };
    gather(tree, u"");
    return all.empty() ? std::pair<std::u16string, MKey*>{u"", nullptr} : all[pick(all.size())];
  };
  auto keyAt = [&](const std::u16string& p) {
    Result<Key> k = hive->key(model::utf8(p));
    EXPECT_TRUE(k.ok()) << model::utf8(p) << ": " << k.status().to_string();
    return k.value();
  };

  for (int step = 0; step < 400; ++step) {
    auto [path, node] = randomKey(true);
    Key key = keyAt(path);
    const std::u16string name = names[pick(std::size(names))];
    const std::string name8 = model::utf8(name);
    // Weighted so that the tree grows: creations and values outnumber deletes.
    static const int kinds[] = {0, 0, 0, 1, 2, 2, 2, 3, 4, 5, 6};
    switch (kinds[pick(std::size(kinds))]) {
      case 0: {  // create a key (existing is fine)
        ASSERT_TRUE(key.create_key(name8).ok());
        if (!model::findKey(*node, name)) model::insertKey(*node, name);
        break;
      }
      case 1: {  // create two levels at once
        const std::u16string second = names[pick(std::size(names))];
        ASSERT_TRUE(key.create_key(name8 + "/" + model::utf8(second)).ok());
        MKey* mid = model::findKey(*node, name);
        if (!mid) mid = &model::insertKey(*node, name);
        if (!model::findKey(*mid, second)) model::insertKey(*mid, second);
        break;
      }
      case 2: {  // set a value of a random type and size
        static const test::u32 sizes[] = {0, 3, 4, 8, 100, 16344, 20000};
        std::vector<test::u8> d(sizes[pick(std::size(sizes))]);
        for (auto& x : d) x = static_cast<test::u8>(rng());
        const test::u32 type = static_cast<test::u32>(pick(12));
        ASSERT_TRUE(key.set_value(name8, static_cast<ValueType>(type), std::as_bytes(std::span(d))).ok());
        if (MValue* v = model::findValue(*node, name))
          *v = MValue{v->name, type, d};
        else
          node->values.push_back(MValue{name, type, d});
        break;
      }
      case 3: {  // delete a value, present or not
        const Status s = key.delete_value(name8);
        MValue* v = model::findValue(*node, name);
        ASSERT_EQ(s.code(), v ? Code::ok : Code::value_not_found) << s.to_string();
        if (v) node->values.erase(node->values.begin() + (v - node->values.data()));
        break;
      }
      case 4: {  // delete a key with everything below it
        if (path.empty() || pick(3) != 0) break;
        const size_t cut = path.rfind(u'\\');
        MKey* parent = &tree;
        for (size_t at = 1; at < cut;) {
          const size_t next = std::min(path.find(u'\\', at), cut);
          parent = model::findKey(*parent, path.substr(at, next - at));
          at = next + 1;
        }
        ASSERT_TRUE(keyAt(path.substr(0, cut)).delete_key(model::utf8(path.substr(cut + 1)), true).ok());
        parent->subkeys.erase(path.substr(cut + 1));
        break;
      }
      case 5: {  // rename a key; a sibling of that name is refused
        if (path.empty()) break;
        const size_t cut = path.rfind(u'\\');
        MKey* parent = &tree;
        for (size_t at = 1; at < cut;) {
          const size_t next = std::min(path.find(u'\\', at), cut);
          parent = model::findKey(*parent, path.substr(at, next - at));
          at = next + 1;
        }
        const std::u16string old = path.substr(cut + 1);
        const Status s = key.rename(name8);
        if (model::findKey(*parent, name)) {
          ASSERT_EQ(s.code(), model::compareNames(old, name) == 0 ? s.code() : Code::already_exists);
          break;
        }
        ASSERT_TRUE(s.ok()) << s.to_string();
        MKey moved = std::move(parent->subkeys.at(old));
        parent->subkeys.erase(old);
        moved.name = name;
        parent->subkeys.emplace(name, std::move(moved));
        EXPECT_EQ(key.name(), name8);  // the handle follows its key
        break;
      }
      case 6: {  // set through a value handle: type and data at once
        Result<Value> v = key.value(name8);
        if (!v) {
          ASSERT_EQ(v.status().code(), Code::value_not_found);
          break;
        }
        ASSERT_TRUE(v->set_dword(static_cast<test::u32>(step)).ok());
        *model::findValue(*node, name) = MValue{model::findValue(*node, name)->name, 4,
                                                {static_cast<test::u8>(step), static_cast<test::u8>(step >> 8), 0, 0}};
        break;
      }
    }
    if (step % 4 != 3) continue;
    Listing actual;
    apiListing(hive->root(), "", actual);
    ASSERT_EQ(model::diff(tree, actual), "") << "after step " << step;
    if (step % 100 == 99) {
      ASSERT_TRUE(hive->close().ok());
      model::RawReport report;
      Listing raw;
      const std::string bytes = test::readFile(file);
      model::RawReader(std::vector<test::u8>(bytes.begin(), bytes.end()), report).read(raw);
      ASSERT_EQ(report.error, "") << "after step " << step;
      ASSERT_EQ(model::diff(tree, raw), "") << "after step " << step;
      hive = Hive::open(file, {.writable = true});
      ASSERT_TRUE(hive.ok()) << hive.status().to_string();
    }
  }
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
  const std::string truncated = dir.write("truncated", std::vector<test::u8>(image.begin(), image.begin() + 6000));
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
      {(dir.path / "missing").string(), Code::file_not_found, "no such file"},
      {dir.path.string(), Code::is_directory, "directory"},
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
      {ro->key("K\\nope").status(), Code::key_not_found},
      {k.value("nope").status(), Code::value_not_found},
      {k.value("N")->string().status(), Code::wrong_type},
      {k.create_key("x").status(), Code::read_only},
      {k.value("N")->set_dword(1), Code::read_only},
      {Key().subkeys().status(), Code::invalid_handle},
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
  // Handles outlive the hive; their calls then say so.
  ASSERT_TRUE(rw->close().ok());
  EXPECT_EQ(w.subkeys().status().code(), Code::closed);
  EXPECT_EQ(w.name(), "");
  EXPECT_EQ(w.value("N").status().code(), Code::closed);
}

}  // namespace
}  // namespace hivekit
