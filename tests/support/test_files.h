// Files for the tests: reading and writing them whole, a temporary folder
// of a test's own, and where the shared test data lives.
#pragma once

#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
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
inline std::vector<std::uint8_t> readBytes(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

template <class Bytes>
void writeFile(const std::filesystem::path& p, const Bytes& bytes) {
  std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// A folder under the system's temporary one, removed with all it holds.
class TempDir {
 public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hivekit-test-XXXXXX").string();
    if (::mkdtemp(tmpl.data())) _path = tmpl;
  }
  ~TempDir() {
    if (!_path.empty()) std::filesystem::remove_all(_path);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return _path; }
  std::filesystem::path path(const std::string& name) const { return _path / name; }
  // Writes the file `name` and returns its path.
  template <class Bytes>
  std::string write(const std::string& name, const Bytes& bytes) const {
    writeFile(_path / name, bytes);
    return (_path / name).string();
  }

 private:
  std::filesystem::path _path;
};

// The shared test data beside the project; tests that use it skip when it
// is absent, and never write below it.
inline std::filesystem::path testdata() {
  return std::filesystem::path(HIVEKIT_SOURCE_DIR) / ".." / "shared" / "testdata";
}
inline std::filesystem::path testHives() {
  return testdata() / "hives";
}

// "" when two texts are equal, else the first line where they differ.
inline std::string firstDifference(const std::string& expected, const std::string& actual) {
  size_t line = 1, at = 0;
  while (at < expected.size() && at < actual.size() && expected[at] == actual[at])
    line += expected[at++] == '\n';
  if (expected == actual) return "";
  auto lineAt = [&](const std::string& s) {
    const size_t start = s.rfind('\n', at == 0 ? 0 : at - 1);
    const size_t from = start == std::string::npos || at == 0 ? 0 : start + 1;
    return s.substr(from, s.find('\n', from) - from);
  };
  return "line " + std::to_string(line) + ":\n  expected: " + lineAt(expected) +
         "\n  actual:   " + lineAt(actual);
}

// What a shell command writes to its standard output, and its status.
inline std::string commandOutput(const std::string& command, int* status) {
  std::string out;
  *status = -1;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buffer[65536];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, p)) > 0;) out.append(buffer, n);
    *status = pclose(p);
  }
  return out;
}

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
  for (const auto& [path, lines] : files)
    command += std::string(lines ? " l:" : " d:") + "'" + path.string() + "'";
  int status = 0;
  const std::string out = commandOutput(command, &status);
  return status != 0 && out.empty() ? "python failed" : out;
}

}  // namespace hivekit::test
