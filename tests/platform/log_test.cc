#include "platform/log.h"

#include <gtest/gtest.h>

#include "platform/check.h"

namespace {

const Platform::Log::Channel testLog("Test");

namespace Outer {
struct Thing {
  int work(int v) {
    HK_ASSERT(testLog, v > 0, -1);
    return v;
  }
};
}  // namespace Outer

TEST(LogTest, CaptureSeesMessagesAtOrAboveItsLevel) {
  Platform::Log::Capture capture(3);
  HK_LOG(testLog, 1) << "trace " << 1;
  HK_LOG(testLog, 4) << "failure at " << Platform::Log::hex(0x1a2b);
  // Each kind of piece renders as a stream would render it.
  HK_LOG(testLog, 3) << -5 << ' ' << static_cast<Platform::u8>('A') << ' ' << 4000000000u << ' ' << true
                     << ' ' << std::u16string(u"\u00e9") << ' ' << 1.5 << ' ' << std::string_view("sv")
                     << std::string("!") << Platform::Log::hex(0);
  auto messages = capture.messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].channel, "Test");
  EXPECT_EQ(messages[0].level, 4);
  EXPECT_EQ(messages[0].text, "failure at 0x1a2b");
  EXPECT_EQ(messages[1].text, "-5 A 4000000000 1 \xc3\xa9 1.5 sv!0x0");
}

TEST(LogTest, AssertionNamesConditionLineAndQualifiedFunction) {
  Platform::Log::Capture capture(4);
  Outer::Thing t;
  EXPECT_EQ(t.work(0), -1);
  auto messages = capture.messages();
  ASSERT_EQ(messages.size(), 1u);
  const std::string& m = messages[0].text;
  EXPECT_EQ(m.rfind("ASSERT CONDITION v > 0 FAILED IN LINE ", 0), 0u) << m;
  EXPECT_NE(m.find(", FUNCTION {anonymous}::Outer::Thing::work"), std::string::npos) << m;
}

TEST(LogTest, QualifiedNameDropsReturnTypeAndArguments) {
  EXPECT_EQ(
      Platform::qualifiedFunctionName("bool Libraries::Files::Hive::RegistryHiveObj::writeRecord(u32, const "
                                      "void*, u32, u32)"),
      "Libraries::Files::Hive::RegistryHiveObj::writeRecord");
  EXPECT_EQ(
      Platform::qualifiedFunctionName("Libraries::Files::Hive::KeyObj::KeyObj(Ref<RegistryHiveObj>, u32)"),
      "Libraries::Files::Hive::KeyObj::KeyObj");
  EXPECT_EQ(Platform::qualifiedFunctionName("std::vector<int, std::allocator<int> > A::f()"), "A::f");
}

}  // namespace
