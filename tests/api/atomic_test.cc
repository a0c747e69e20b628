// Every change is all or nothing: random changes through the public API,
// many of them made to fail by a file that may not grow (the process's
// file size limit: out of space for the hive and its log alike) or by data
// the hive's version cannot hold. After each failure the hive, as the API
// reads it, is exactly what it was before the call; a copy of the files
// opens as the last flush left them; and a failed flush is simply done
// again once there is room.
#include <hivekit/hivekit.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "gtest/gtest.h"
#include "tests/support/api_tree.h"

namespace hivekit {
namespace {

namespace fs = std::filesystem;

// Files may not grow beyond `limit` bytes while it lives.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t limit) {
    getrlimit(RLIMIT_FSIZE, &_saved);
    rlimit l = _saved;
    l.rlim_cur = limit;
    setrlimit(RLIMIT_FSIZE, &l);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &_saved); }

 private:
  rlimit _saved;
};

TEST(Atomicity, FailedChangesLeaveTheHiveAsItWas) {
  signal(SIGXFSZ, SIG_IGN);  // a write past the limit then fails with EFBIG
  std::string tmpl = (fs::temp_directory_path() / "hivekit-atomic-XXXXXX").string();
  ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
  const fs::path dir = tmpl, file = dir / "hive";
  // Version 1.3: no big-data records, so 1 MiB of data is more than a value holds.
  ASSERT_TRUE(Hive::create(file.string(), {.minor_version = 3}).ok());
  Result<Hive> hive = Hive::open(file.string(), {.writable = true, .fixed_time = 133537680000000000});
  ASSERT_TRUE(hive.ok()) << hive.status().to_string();

  std::mt19937 rng(4242);
  auto pick = [&](size_t n) { return rng() % n; };
  const char* const paths[] = {"a", "a\\b", "c", "c\\d\\e", "f"};
  const char* const names[] = {"x", "y", "z"};
  const size_t sizes[] = {2, 60, 5000, 40000, 120000};
  std::string flushed = test::apiTree(*hive);
  int failures = 0, failedFlushes = 0;

  // The files as they stand, copied and opened read-only with their logs.
  auto onDisk = [&]() {
    const fs::path copy = dir / "copy";
    fs::remove_all(copy);
    fs::create_directory(copy);
    for (const auto& e : fs::directory_iterator(dir))
      if (e.is_regular_file()) fs::copy_file(e.path(), copy / e.path().filename());
    Result<Hive> h = Hive::open((copy / "hive").string());
    return h ? test::apiTree(*h) : "does not open: " + h.status().to_string();
  };

  for (int step = 0; step < 160 && !::testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    Key key = hive->root().create_key(paths[pick(5)]).value();
    const std::string name = names[pick(3)];
    const std::string before = test::apiTree(*hive);
    const int kind = static_cast<int>(pick(9));
    // Half the steps run with no room to grow the file.
    const bool full = pick(2) == 0;
    Status s;
    {
      std::unique_ptr<FileSizeLimit> limit;
      if (full) limit = std::make_unique<FileSizeLimit>(fs::file_size(file));
      switch (kind) {
        case 0:
        case 1: {
          std::vector<std::byte> data(sizes[pick(5)], std::byte(step));
          s = key.set_value(name, static_cast<ValueType>(pick(12)), data).status();
          break;
        }
        case 2: {  // more than a 1.3 hive holds, over a value of another type or a new one
          (void)key.set_string(name, "text");
          const std::string at = test::apiTree(*hive);
          s = key.set_value(name, ValueType::binary, std::vector<std::byte>(1048576)).status();
          EXPECT_EQ(s.code(), Code::too_large) << s.to_string();
          EXPECT_EQ(test::apiTree(*hive), at) << "no half-made value, no changed type";
          s = key.set_value("new" + std::to_string(step), ValueType::binary, std::vector<std::byte>(1048576))
                  .status();
          EXPECT_EQ(test::apiTree(*hive), at);
          break;
        }
        case 3:
          s = key.create_key(std::string(200, 'k') + std::to_string(step) + "\\" + std::string(200, 'n'))
                  .status();
          break;
        case 4:
          s = key.delete_value(name);
          break;
        case 5:
          s = hive->root().delete_key(paths[pick(5)], true);
          break;
        case 6:
          s = key.rename(std::string(150 + pick(100), 'r'));
          break;
        case 7: {  // many keys and values from one file: all of them or none
          std::string text = "Windows Registry Editor Version 5.00\r\n";
          for (int k = 0; k < 40; ++k)
            text += "\r\n[ROOT\\i" + std::to_string(step) + "\\" + std::to_string(k) + "]\r\n\"v\"=\"" +
                    std::string(pick(3000), 'i') + "\"\r\n";
          s = import_reg_text(*hive, text);
          break;
        }
        default:
          if (Result<Value> v = key.value(name))
            s = v->set_multi_string(std::vector<std::string>{std::string(pick(30000), 'm')});
          break;
      }
    }
    if (kind != 2 && !s.ok()) {
      ++failures;
      ASSERT_EQ(test::apiTree(*hive), before) << "after a failed change: " << s.to_string();
    }
    if (step % 10 != 9) continue;
    // A flush with no room fails and leaves the last flush on disk; with
    // room it writes everything.
    if (pick(2) == 0) {
      const std::string now = test::apiTree(*hive);
      Status f;
      {
        FileSizeLimit limit(2048);  // not even the log's first entry fits
        f = hive->flush();
      }
      if (!f.ok()) {
        ++failedFlushes;
        EXPECT_EQ(test::apiTree(*hive), now);
        const std::string disk = onDisk();
        EXPECT_TRUE(disk == flushed || disk == now) << disk.substr(0, 300);
      }
    }
    ASSERT_TRUE(hive->flush().ok());
    flushed = test::apiTree(*hive);
    ASSERT_EQ(onDisk(), flushed);
  }
  EXPECT_GT(failures, 15) << "the limits must make changes fail";
  EXPECT_GT(failedFlushes, 3);
  ASSERT_TRUE(hive->close().ok());
  fs::remove_all(dir);
}

}  // namespace
}  // namespace hivekit
