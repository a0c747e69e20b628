// Small file helpers shared by the tests that run the tool as a process.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace hivekit::test {

// The whole file as bytes; empty when it cannot be read.
inline std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace hivekit::test
