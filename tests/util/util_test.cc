// Path utilities: both path spellings, and opening and creating by path
// with the cleanup of a half-made path. Recursive deletion is the model
// test's, through cycles resource_bounds_test.cc's.
#include "hive/util/util.h"

#include <gtest/gtest.h>

#include <string>

#include "hive/format/errors.h"
#include "hive/hive_file.h"
#include "platform/error.h"
#include "tests/support/hives.h"

namespace hivekit::test {
namespace {

namespace Hive = Libraries::Files::Hive;
namespace Errors = Hive::Errors;
using Hive::Util;
using Interfaces::Config::Hive::Key;
using Platform::Ref;
using Platform::String;

std::string toWin(const char* s) {
  return Util::regPathToWindowsStyle(str(s))->toUtf8();
}
std::string fromWin(const char* s) {
  return Util::regPathFromWindowsStyle(str(s))->toUtf8();
}

Platform::u32 subkeyCount(const Ref<Key>& key) {
  return key->keyIterator()->count();
}

TEST(UtilPaths, ConvertBetweenSlashAndBackslashForms) {
  EXPECT_EQ(toWin("//a//b/"), "a\\b");
  EXPECT_EQ(toWin("a\\/b/c"), "a/b\\c");
  EXPECT_EQ(toWin("a\\"), "a");       // a trailing lone backslash vanishes
  EXPECT_EQ(toWin("a\\\\b"), "ab");   // so does an escaped backslash
  EXPECT_EQ(toWin("\\x/y"), "x\\y");  // an escaped ordinary character
  EXPECT_EQ(toWin(""), "");
  EXPECT_EQ(fromWin("\\a\\\\b/c\\"), "a/b\\/c");
  EXPECT_EQ(fromWin(""), "");
  EXPECT_EQ(Util::regPathToWindowsStyle(nullptr)->length(), 0u);
  // Names with slashes survive the way there and back.
  EXPECT_EQ(toWin(fromWin("x/y\\z").c_str()), "x/y\\z");
}

TEST(UtilPaths, OpenPathChecksItsArguments) {
  Ref<Hive::HiveFile> hive = newHive();
  ASSERT_TRUE(hive);
  Ref<Key> root = hive->root();
  ASSERT_TRUE(root->createKey(str("A")));
  ASSERT_TRUE(Util::openOrCreatePath(root, str("A/B/C")));

  EXPECT_EQ(Util::openPath(root, str("/")).get(), root.get());
  EXPECT_EQ(Util::openPath(root, str("//a/b/c/"))->name()->toUtf8(), "C");

  EXPECT_FALSE(Util::openPath(root, str("")));
  EXPECT_EQ(Platform::Error::get(), Errors::INVALID_ARGUMENT);
  EXPECT_FALSE(Util::openPath(nullptr, str("A")));
  EXPECT_EQ(Platform::Error::get(), Errors::NULL_ARGUMENT);
  EXPECT_FALSE(Util::openPath(root, str("A/X/C")));
  EXPECT_EQ(Platform::Error::get(), Errors::KEY_NOT_FOUND);
}

TEST(UtilPaths, OpenOrCreatePathRemovesWhatItMadeWhenALevelFails) {
  Ref<Hive::HiveFile> hive = newHive();
  ASSERT_TRUE(hive);
  Ref<Key> root = hive->root();
  ASSERT_TRUE(root->createKey(str("keep")));
  // A name of 300 characters cannot be stored: "y" fails after "x" was made.
  const std::string path = "keep/x/" + std::string(300, 'y') + "/z";
  EXPECT_FALSE(Util::openOrCreatePath(root, str(path.c_str())));
  EXPECT_EQ(Platform::Error::get(), Errors::INVALID_FILE);
  Ref<Key> keep = root->key(str("keep"));
  ASSERT_TRUE(keep);
  EXPECT_EQ(subkeyCount(keep), 0u);  // "x" is gone again, "keep" existed before
  EXPECT_EQ(subkeyCount(root), 1u);
}

}  // namespace
}  // namespace hivekit::test
