// Export, then import into a new hive, gives back every key and value: for
// each shared test hive that an independent reader lists, typed and
// binary-only, the listing of the new hive equals the original's apart
// from last write times. Skipped without ../shared/testdata.
//
// Left out: hives whose damage no new hive can repeat (a key name holding
// a line break, which registry text cannot carry; two subkeys of one name;
// a subkey list out of order, where a new hive's lists are sorted).
#include "tests/cli/cli_fixture.h"

namespace hivekit::cli_test {
namespace {

// A listing without the last write time of its key lines.
std::string withoutTimes(const std::string& listing) {
  std::string out;
  std::istringstream in(listing);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("K\t", 0) == 0) {
      const size_t time = line.find('\t', 2);
      line.erase(time, line.find('\t', time + 1) - time);
    }
    out += line + '\n';
  }
  return out;
}

std::vector<fs::path> sharedHives() {
  std::vector<fs::path> hives;
  if (!fs::is_directory(testdata() / "expected")) return hives;
  for (const auto& [hive, listing] : listings(false)) {
    const std::string name = hive.filename().string();
    if (name != "BogusKeyNamesHive" && name != "DuplicateSubkeysHive" && name != "WrongOrderHive")
      hives.push_back(hive);
  }
  return hives;
}

class RegRoundTrip : public CliTest, public ::testing::WithParamInterface<fs::path> {};

TEST_P(RegRoundTrip, ListingSurvivesExportAndImport) {
  const std::string hive = GetParam().string();
  const Result original = hivekit({"dump", "--dirty", "--no-logs", hive});
  ASSERT_EQ(original.status, 0) << original.err;
  for (const bool binaryOnly : {false, true}) {
    SCOPED_TRACE(binaryOnly ? "binary-only" : "typed");
    const std::string reg = path("out.reg").string(), copy = path("copy").string();
    std::vector<std::string> exportArgs = {"export", "--dirty", "--no-logs", hive, "-o", reg};
    if (binaryOnly) exportArgs.push_back("--binary-only");
    Result r = hivekit(exportArgs);
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(hivekit({"new", copy, "--force"}).status, 0);
    r = hivekit({"import", copy, reg});
    ASSERT_EQ(r.status, 0) << r.err;
    r = hivekit({"dump", copy});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(withoutTimes(r.out), withoutTimes(original.out));
  }
}

INSTANTIATE_TEST_SUITE_P(SharedHives, RegRoundTrip, ::testing::ValuesIn(sharedHives()),
                         [](const ::testing::TestParamInfo<fs::path>& info) {
                           std::string name = fs::relative(info.param, testdata() / "hives").string();
                           for (char& c : name)
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           return name;
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(RegRoundTrip);

}  // namespace
}  // namespace hivekit::cli_test
