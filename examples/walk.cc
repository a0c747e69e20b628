// walk HIVE: opens a hive read-only, visits every key and value, reads
// every value's data, and prints "KEYS VALUES BYTES".
//
// Exit status: 0 done, 1 the hive could not be opened or read, 2 usage.
#include <hivekit/hivekit.h>

#include <cstdint>
#include <iostream>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: walk HIVE\n";
    return 2;
  }
  auto hive = hivekit::Hive::open(argv[1]);
  if (!hive) {
    std::cerr << hive.status().message() << '\n';
    return 1;
  }
  std::uint64_t keys = 0, values = 0, bytes = 0;
  bool complete = true;
  // Depth first with a stack of keys still to visit: no recursion, so a
  // deep hive cannot exhaust the call stack.
  std::vector<hivekit::Key> pending{hive->root()};
  while (!pending.empty()) {
    hivekit::Key key = std::move(pending.back());
    pending.pop_back();
    ++keys;
    hivekit::Values vs = key.values();
    for (const hivekit::Value& v : vs) {
      auto data = v.data();
      complete = complete && data.ok();
      bytes += data->size();
      ++values;
    }
    hivekit::Subkeys subs = key.subkeys();
    for (const hivekit::Key& sub : subs) pending.push_back(sub);
    complete = complete && vs.status().ok() && subs.status().ok() && vs.skipped() == 0 && subs.skipped() == 0;
  }
  std::cout << keys << ' ' << values << ' ' << bytes << '\n';
  if (!complete) {
    std::cerr << "some keys or values could not be read\n";
    return 1;
  }
  return 0;
}
