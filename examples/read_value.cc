// read_value HIVE KEYPATH [NAME]: prints one value, decoded by its type
// (the key's default value when NAME is left out).
//
//   read_value SYSTEM 'ControlSet001\Control\ComputerName\ComputerName' ComputerName
//
// Exit status: 0 printed, 1 not found or unreadable, 2 usage.
#include <hivekit/hivekit.h>

#include <cstdio>
#include <iostream>

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::cerr << "usage: read_value HIVE KEYPATH [NAME]\n";
    return 2;
  }
  auto hive = hivekit::Hive::open(argv[1]);
  if (!hive) {
    std::cerr << hive.status().message() << '\n';
    return 1;
  }
  auto key = hive->key(argv[2]);
  if (!key) {
    std::cerr << key.status().message() << '\n';
    return 1;
  }
  auto value = key->value(argc == 4 ? argv[3] : "");
  if (!value) {
    std::cerr << value.status().message() << '\n';
    return 1;
  }
  using hivekit::ValueType;
  switch (value->type()) {
    case ValueType::sz:
    case ValueType::expand_sz:
      if (auto text = value->string()) std::cout << *text << '\n';
      break;
    case ValueType::multi_sz:
      if (auto list = value->multi_string())
        for (const std::string& s : *list) std::cout << s << '\n';
      break;
    case ValueType::dword:
    case ValueType::dword_big_endian:
      if (auto n = value->dword()) std::cout << *n << '\n';
      break;
    case ValueType::qword:
      if (auto n = value->qword()) std::cout << *n << '\n';
      break;
    default:
      if (auto data = value->data()) {
        for (std::byte b : *data) std::printf("%02x", static_cast<unsigned>(b));
        std::printf("\n");
      }
  }
  return 0;
}
