// set_value HIVE KEYPATH NAME TEXT: sets a REG_SZ value, creating the key
// and the keys above it when missing, and writes the change to disk.
//
// Exit status: 0 written, 1 failure, 2 usage.
#include <hivekit/hivekit.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: set_value HIVE KEYPATH NAME TEXT\n";
    return 2;
  }
  auto hive = hivekit::Hive::open(argv[1], {.writable = true});
  if (!hive) {
    std::cerr << hive.status().message() << '\n';
    return 1;
  }
  auto key = hive->root().create_key(argv[2]);
  if (!key) {
    std::cerr << key.status().message() << '\n';
    return 1;
  }
  if (auto value = key->set_string(argv[3], argv[4]); !value) {
    std::cerr << value.status().message() << '\n';
    return 1;
  }
  // Closing flushes; its status says whether the change reached the disk.
  if (auto status = hive->close(); !status) {
    std::cerr << status.message() << '\n';
    return 1;
  }
  return 0;
}
