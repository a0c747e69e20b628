#include "platform/check.h"

#include <cstring>

namespace Platform {

std::string qualifiedFunctionName(const char* pretty) {
  std::string s(pretty);
  // Cut the argument list: the first '(' that is not part of "operator()".
  size_t paren = s.find('(');
  if (paren == std::string::npos) return s;
  std::string head = s.substr(0, paren);
  // The name is the last blank-separated word before the argument list;
  // template arguments may contain blanks, so skip over <...>.
  int depth = 0;
  size_t start = 0;
  for (size_t i = 0; i < head.size(); ++i) {
    char c = head[i];
    if (c == '<') ++depth;
    else if (c == '>') --depth;
    else if (c == ' ' && depth == 0) start = i + 1;
  }
  return head.substr(start);
}

void assertFailed(const Log::Channel& channel, const char* condition, int line, const char* pretty) {
  HK_LOG(channel, 4) << "ASSERT CONDITION " << condition << " FAILED IN LINE " << line << ", FUNCTION "
                     << qualifiedFunctionName(pretty);
}

}  // namespace Platform
