#include "platform/ini_parser.h"

#include "platform/log.h"

namespace Platform {

namespace {

const Log::Channel kLog("IniParser");

bool isBlank(char16_t c) {
  return c == u' ' || c == u'\t';
}

// Bounds of `s` without leading and trailing blanks.
void trim(const std::u16string& s, size_t& begin, size_t& end) {
  begin = 0;
  end = s.size();
  while (begin < end && isBlank(s[begin])) ++begin;
  while (end > begin && isBlank(s[end - 1])) --end;
}

// Splits a trimmed entry line into name and start of data. Returns false
// when the line is malformed.
bool splitEntry(const std::u16string& s, size_t begin, size_t end, std::u16string& name, bool& quoted,
                size_t& dataStart) {
  if (s[begin] != u'"') {
    size_t eq = s.find(u'=', begin);
    size_t nameEnd = eq;
    while (nameEnd > begin && isBlank(s[nameEnd - 1])) --nameEnd;
    if (nameEnd == begin) return false;
    name.assign(s, begin, nameEnd - begin);
    quoted = false;
    dataStart = eq + 1;
    return true;
  }
  quoted = true;
  name.clear();
  size_t i = begin + 1;
  while (i < end && s[i] != u'"') {
    if (s[i] == u'\\' && i + 1 < end && (s[i + 1] == u'\\' || s[i + 1] == u'"')) ++i;
    name.push_back(s[i]);
    ++i;
  }
  if (i < end) {
    size_t j = i + 1;
    while (j < end && isBlank(s[j])) ++j;
    if (j < end && s[j] == u'=') {
      dataStart = j + 1;
      return true;
    }
  }
  // Literal reading: the name runs up to the last quote directly before '='.
  size_t q = s.rfind(u"\"=", end);
  if (q == std::u16string::npos || q <= begin) return false;
  name.assign(s, begin + 1, q - begin - 1);
  dataStart = q + 2;
  return true;
}

}  // namespace

int IniParser::parse(CharReader& reader, IniParserInterface& handler, u64* failedLine) {
  std::u16string line;
  std::u16string more;
  std::u16string name;
  std::u16string data;
  u64 lineNo = 0;

  auto fail = [&](int code, u64 at, const char* what) {
    if (failedLine) *failedLine = at;
    HK_LOG(kLog, code == CALLBACK_FAILED ? 2 : 3) << what << " in line " << at;
    return code;
  };

  while (reader.readLine(line)) {
    const u64 start = ++lineNo;
    size_t b, e;
    trim(line, b, e);
    if (b == e || line[b] == u';') continue;

    if (line[b] == u'[') {
      size_t close = line.rfind(u']', e - 1);
      if (close == std::u16string::npos || close <= b) return fail(MALFORMED, start, "Section without ']'");
      if (!handler.section(line.substr(b + 1, close - b - 1)))
        return fail(CALLBACK_FAILED, start, "Section refused");
      continue;
    }

    if (line[b] != u'"' && line.find(u'=', b) >= e) {
      if (!handler.other(line.substr(b, e - b))) return fail(CALLBACK_FAILED, start, "Line refused");
      continue;
    }

    bool quoted;
    size_t dataStart;
    if (!splitEntry(line, b, e, name, quoted, dataStart)) return fail(MALFORMED, start, "Malformed entry");
    while (dataStart < e && isBlank(line[dataStart])) ++dataStart;
    data.assign(line, dataStart, e - dataStart);

    // Appending to `data` keeps a long run of continued lines linear.
    while (!data.empty() && data.back() == u'\\' && data.front() != u'"') {
      data.pop_back();
      if (!reader.readLine(more)) break;
      ++lineNo;
      size_t mb, me;
      trim(more, mb, me);
      data.append(more, mb, me - mb);
    }
    if (reader.failed()) return fail(READ_ERROR, lineNo + 1, "Read error");

    if (!handler.entry(name, quoted, data)) return fail(CALLBACK_FAILED, start, "Entry refused");
  }
  if (reader.failed()) return fail(READ_ERROR, lineNo + 1, "Read error");
  return OK;
}

}  // namespace Platform
