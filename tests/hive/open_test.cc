// Opening a hive: mode flags, base block checks, arguments, the path
// overload, names, and creating a new hive. The failures a user meets
// through the public API (a dirty hive without logs among them) are
// api_test.cc's.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "hive/format/errors.h"
#include "hive/key/key_obj.h"
#include "hive/registry_hive.h"
#include "platform/error.h"
#include "platform/file_stripe.h"
#include "platform/memory_stripe.h"
#include "tests/support/hives.h"
#include "tests/support/test_files.h"

namespace Libraries::Files::Hive {
namespace {

using hivekit::test::HiveBuilder;
using hivekit::test::openImage;
namespace fs = std::filesystem;

std::vector<u8> smallHive(u32 minor = 5) {
  HiveBuilder b(minor);
  u32 root = b.root();
  b.key(root, u"Software");
  return b.build();
}

// Opens and reports whether it worked, with the error code and whether the
// log holds `message`.
struct Attempt {
  bool opened;
  u32 error;
  bool logged;
};
Attempt attempt(std::vector<u8> image, u32 mode, const std::string& message) {
  Log::Capture capture(1);
  Error::set(0);
  Ref<RegistryHiveObj> hive = openImage(std::move(image), mode);
  return {static_cast<bool>(hive), Error::get(), capture.contains(message)};
}

TEST(OpenModes, UnsafeAndAcceptDirtyNeedReadOnly) {
  for (u32 mode : {0x4u, 0x10u, 0x14u, 0x16u}) {
    Attempt a = attempt(smallHive(), mode, "Invalid combination of mode flags: ");
    EXPECT_FALSE(a.opened) << mode;
    EXPECT_EQ(a.error, Errors::INVALID_ARGUMENT) << mode;
    EXPECT_TRUE(a.logged) << mode;
  }
  for (u32 mode : {0x0u, 0x1u, 0x2u, 0x5u, 0x11u, 0x15u, 0x21u, 0x8u}) {
    Ref<RegistryHiveObj> hive = openImage(smallHive(), mode);
    ASSERT_TRUE(hive) << mode;
    EXPECT_EQ(hive->mode(), mode);
    EXPECT_EQ(hive->readonly(), (mode & 1) != 0);
  }
}

TEST(OpenBaseBlock, EachCheckFailsWithItsMessage) {
  struct Case {
    const char* what;
    std::function<void(HiveBuilder&)> damage;
    const char* message;
  };
  const std::vector<Case> cases = {
      {"signature",
       [](HiveBuilder& b) {
         b.patch(0, {'r', 'e', 'g', 'x'});
       },
       "Wrong signature: "},
      {"length beyond file", [](HiveBuilder& b) { b.setHbinsSize(8192); }, "File too small, file size:    "},
      {"length wraps", [](HiveBuilder& b) { b.setHbinsSize(0xfffff000u); }, "minimum size: "},
      {"major 2", [](HiveBuilder& b) { b.setVersion(2, 5); },
       "Unsupported registry version, major=2 minor=5"},
      {"checksum", [](HiveBuilder& b) { b.corruptChecksum(); }, "Checksum wrong"},
      {"dirty", [](HiveBuilder& b) { b.setSequence(3, 2); },
       "Primary Sequence Number and Secondary Sequence Number are different"},
      {"root not nk", [](HiveBuilder& b) { b.setRootOffset(b.writeVk({})); }, "Root key not valid"},
      {"root mid-record", [](HiveBuilder& b) { b.setRootOffset(b.cell(64) + 8); }, "Record is not valid: "},
      {"root beyond hbins", [](HiveBuilder& b) { b.setRootOffset(0x100000); }, "Root key not valid"},
  };
  for (const Case& c : cases) {
    HiveBuilder b;
    b.root();
    c.damage(b);
    Attempt a = attempt(b.build(), 0, c.message);
    EXPECT_FALSE(a.opened) << c.what;
    EXPECT_TRUE(a.logged) << c.what;
    if (std::string(c.what).rfind("root", 0) == 0) {
      EXPECT_EQ(a.error, Errors::ROOT_INVALID) << c.what;
    }
  }
}

TEST(OpenBaseBlock, AnyMinorVersionOfMajorOneOpens) {
  HiveBuilder b;
  b.root();
  b.setVersion(1, 9);
  Ref<RegistryHiveObj> hive = openImage(b.build(), 0x1);
  ASSERT_TRUE(hive);
  EXPECT_EQ(hive->versionMajor(), 1u);
  EXPECT_EQ(hive->versionMinor(), 9u);
}

// A stripe of 2-byte elements.
class WideStripe : public MemoryStripe {
 public:
  u32 elementSize() const override { return 2; }
};

TEST(OpenArguments, NullAndWideStripesAreRefused) {
  Error::set(0);
  EXPECT_FALSE(HiveFile::open(Ref<Interfaces::Stripe>(), 0, latin1, nullptr));
  EXPECT_EQ(Error::get(), Errors::NULL_ARGUMENT);
  Error::set(0);
  EXPECT_FALSE(HiveFile::open(Ref<String>(), 0, latin1));
  EXPECT_EQ(Error::get(), Errors::NULL_ARGUMENT);

  Log::Capture capture(4);
  Error::set(0);
  EXPECT_FALSE(HiveFile::open(makeRef<WideStripe>(), 0, latin1, nullptr));
  EXPECT_EQ(Error::get(), Errors::NOT_SUPPORTED);
  EXPECT_TRUE(capture.contains("Stripe object with element size != 1 not supported"));
}

class OpenByPath : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::vector<u8>& bytes) { return temp.write(name, bytes); }
  hivekit::test::TempDir temp;
  const fs::path& dir = temp.path();
};

TEST_F(OpenByPath, MissingEmptyAndDirectoryFailCleanly) {
  for (const std::string& path : {(dir / "absent").string(), write("empty", {}), dir.string()}) {
    Log::Capture capture(4);
    EXPECT_FALSE(HiveFile::open(String::create(path), 0x1, latin1)) << path;
    EXPECT_FALSE(capture.messages().empty()) << path;
  }
}

TEST(LogFileNames, AppendTheSuffixesAndRefuseNoName) {
  HiveFile::LogFileNames names;
  ASSERT_TRUE(HiveFile::getLogFileNames(String::create("/x/SYSTEM"), names));
  EXPECT_TRUE(names.log2->equal("/x/SYSTEM.LOG2"));
  EXPECT_FALSE(HiveFile::getLogFileNames(nullptr, names));
  EXPECT_EQ(Error::get(), Errors::NULL_ARGUMENT);
  EXPECT_FALSE(HiveFile::getLogFileNames(String::empty(), names));
  EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);
}

TEST(RootAndPath, SameRootObjectWhileHeldAndPathsDescend) {
  HiveBuilder b;
  u32 root = b.root();
  u32 sw = b.key(root, u"Software");
  b.key(sw, u"Vendor");
  Ref<RegistryHiveObj> hive = openImage(b.build(), 0x1);
  ASSERT_TRUE(hive);
  Ref<KeyObj> first = hive->rootObj();
  EXPECT_EQ(first, hive->rootObj());
  EXPECT_TRUE(first->name()->isEmpty());
  EXPECT_EQ(hive->path(nullptr).get(), first.get());
  EXPECT_EQ(hive->path(String::create("")).get(), first.get());
  Ref<Key> vendor = hive->path(String::create(" \\software/VENDOR\\ "));
  ASSERT_TRUE(vendor);
  EXPECT_TRUE(vendor->name()->equal("Vendor"));
  EXPECT_FALSE(hive->path(String::create("Software\\Missing\\Vendor")));
}

TEST(Names, CodepageDecidesTheStoredForm) {
  const auto stored = [](HiveCodepage cp, const std::u16string& name, bool& ascii) {
    Ref<RegistryHiveObj> hive = openImage(smallHive(), 0x1, nullptr, cp);
    std::vector<u8> out;
    u64 length = 0;
    EXPECT_TRUE(hive->stringToRegName(String::fromUtf16(name), out, length, ascii));
    return std::vector<u8>(out.begin(), out.begin() + length);
  };
  bool ascii = false;
  for (HiveCodepage cp : {HiveCodepage::ascii, latin1, windows1250, windows1252}) {
    EXPECT_EQ(stored(cp, u"Run", ascii), (std::vector<u8>{'R', 'u', 'n'}));
    EXPECT_TRUE(ascii);
  }
  EXPECT_EQ(stored(latin1, u"\u00e4", ascii), std::vector<u8>{0xe4});
  EXPECT_TRUE(ascii);
  EXPECT_EQ(stored(windows1252, u"\u20ac", ascii), std::vector<u8>{0x80});
  EXPECT_TRUE(ascii);
  EXPECT_EQ(stored(HiveCodepage::ascii, u"\u00e4", ascii), (std::vector<u8>{0xe4, 0x00}));
  EXPECT_FALSE(ascii);

  Ref<RegistryHiveObj> hive = openImage(smallHive(), 0x1, nullptr, windows1252);
  Ref<String> back;
  const u8 bytes[] = {'a', 0x80};
  EXPECT_TRUE(hive->regNameToString(bytes, 2, true, back));
  EXPECT_EQ(back->units(), u"a\u20ac");
  const u8 wide[] = {0x41, 0x00, 0xac, 0x20, 0x42};
  EXPECT_TRUE(hive->regNameToString(wide, 5, false, back));
  EXPECT_EQ(back->units(), u"A\u20ac") << "an odd length drops the last byte";
}

TEST(Create, RefusesBadMinorAndUsedStripes) {
  Error::set(0);
  EXPECT_FALSE(HiveFile::create(MemoryStripe::create(), 4, latin1, nullptr));
  EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);
  Error::set(0);
  EXPECT_FALSE(HiveFile::create(MemoryStripe::create({1, 2, 3}), 5, latin1, nullptr));
  EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);
  Error::set(0);
  EXPECT_FALSE(HiveFile::create(Ref<Interfaces::Stripe>(), 5, latin1, nullptr));
  EXPECT_EQ(Error::get(), Errors::NULL_ARGUMENT);
}

TEST_F(OpenByPath, CreateWritesTheFileWithItsNameInTheBaseBlock) {
  const std::string path = (dir / "a-rather-long-name-for-a-new-hive.dat").string();
  write("a-rather-long-name-for-a-new-hive.dat", {9, 9, 9});  // truncated by create
  {
    Ref<HiveFile> hive = HiveFile::create(String::create(path), 5, latin1);
    ASSERT_TRUE(hive);
  }
  Ref<HiveFile> reopened = HiveFile::open(String::create(path), 0x1, latin1);
  ASSERT_TRUE(reopened);
  auto* obj = static_cast<RegistryHiveObj*>(reopened.get());
  const std::u16string utf16 = String::create(path)->units();
  EXPECT_EQ(obj->fullFileName(), utf16.substr(utf16.size() - 31));
  EXPECT_EQ(obj->fileName(), std::u16string(u"er-long-name-for-a-new-hive.dat"));
}

}  // namespace
}  // namespace Libraries::Files::Hive
