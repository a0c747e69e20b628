// Small file helpers shared by the tests that run the tool as a process.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace hivekit::test {

// The whole file as bytes; empty when it cannot be read.
inline std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace hivekit::test

namespace hivekit::test {

// Python's JSON parser on files the tool wrote: each (path, lines) is one
// document, or with `lines` one document per line (JSON Lines); files must
// be strict UTF-8. Returns "" when all parse, the complaints otherwise, and
// "no python" when /usr/bin/python3 is missing (callers skip).
inline std::string jsonProblems(const std::vector<std::pair<std::filesystem::path, bool>>& files) {
  if (!std::filesystem::exists("/usr/bin/python3")) return "no python";
  std::string command =
      "/usr/bin/python3 -c 'import json,sys\n"
      "for arg in sys.argv[1:]:\n"
      "  lines, path = arg[0] == \"l\", arg[2:]\n"
      "  try:\n"
      "    text = open(path, encoding=\"utf-8\").read()\n"
      "    for doc in (text.splitlines() if lines else [text]): json.loads(doc)\n"
      "  except Exception as e: print(path, e)\n"
      "'";
  for (const auto& [path, lines] : files) command += std::string(lines ? " l:" : " d:") + "'" + path.string() + "'";
  std::string out;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, p)) > 0) out.append(buffer, n);
    if (pclose(p) != 0 && out.empty()) out = "python failed";
  }
  return out;
}

}  // namespace hivekit::test
