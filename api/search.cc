// Patterns (a Pike machine over code points: every thread advances in
// step, so the time is the text's length times the program's size at
// most) and the search criteria built on them.
#include "hivekit/search.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <utility>

#include "platform/string.h"

namespace hivekit {

namespace detail {

// A set of code points as sorted, disjoint, inclusive ranges.
using Ranges = std::vector<std::pair<char32_t, char32_t>>;

struct Instruction {
  enum Op : std::uint8_t {
    character,
    any,
    set,
    split,
    jump,
    assert_start,
    assert_end,
    word,
    not_word,
    match
  };
  Instruction(Op o, bool n = false, char32_t ch = 0) : op(o), negated(n), c(ch) {}
  Op op;
  bool negated;                // set
  char32_t c;                  // character
  std::uint32_t x = 0, y = 0;  // split: both targets (x preferred); jump: x; set: index
};

struct PatternProgram {
  std::string expression;
  bool ignoreCase = false;
  std::vector<Instruction> code;
  std::vector<Ranges> sets;
};

}  // namespace detail

namespace {

using detail::Instruction;
using detail::PatternProgram;
using detail::Ranges;

constexpr size_t MAX_EXPRESSION = 4096;
constexpr size_t MAX_NESTING = 100;
constexpr size_t MAX_PROGRAM = 20000;
constexpr size_t MAX_FOLD_WORK = 1u << 21;
constexpr int MAX_COUNT = 1000;

char32_t fold(char32_t c) {
  return c < 0x10000 ? Platform::String::upcase(static_cast<char16_t>(c)) : c;
}

// The next code point of UTF-8 (or WTF-8) text; an invalid byte is
// U+FFFD and advances by one.
char32_t decode(std::string_view s, size_t& i) {
  const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned c = b(i);
  if (c < 0x80) {
    ++i;
    return c;
  }
  const auto cont = [&](size_t k) { return k < s.size() && (b(k) & 0xC0) == 0x80; };
  if (c >= 0xC2 && c < 0xE0 && cont(i + 1)) {
    const char32_t v = ((c & 0x1F) << 6) | (b(i + 1) & 0x3F);
    i += 2;
    return v;
  }
  if (c >= 0xE0 && c < 0xF0 && cont(i + 1) && cont(i + 2)) {
    const char32_t v = ((c & 0x0F) << 12) | ((b(i + 1) & 0x3F) << 6) | (b(i + 2) & 0x3F);
    if (v >= 0x800) {
      i += 3;
      return v;
    }
  }
  if (c >= 0xF0 && c < 0xF5 && cont(i + 1) && cont(i + 2) && cont(i + 3)) {
    const char32_t v =
        ((c & 0x07) << 18) | ((b(i + 1) & 0x3F) << 12) | ((b(i + 2) & 0x3F) << 6) | (b(i + 3) & 0x3F);
    if (v >= 0x10000 && v <= 0x10FFFF) {
      i += 4;
      return v;
    }
  }
  ++i;
  return 0xFFFD;
}

bool isWord(char32_t c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}
bool isLineBreak(char32_t c) {
  return c == '\n' || c == '\r' || c == 0x2028 || c == 0x2029;
}

void normalize(Ranges& r) {
  std::sort(r.begin(), r.end());
  Ranges out;
  for (const auto& p : r) {
    if (!out.empty() && p.first <= out.back().second + 1)
      out.back().second = std::max(out.back().second, p.second);
    else
      out.push_back(p);
  }
  r = std::move(out);
}

Ranges complement(Ranges r) {
  normalize(r);
  Ranges out;
  char32_t next = 0;
  for (const auto& [lo, hi] : r) {
    if (lo > next) out.push_back({next, lo - 1});
    next = hi + 1;
  }
  if (next <= 0x10FFFF) out.push_back({next, 0x10FFFF});
  return out;
}

const Ranges DIGITS = {{'0', '9'}};
const Ranges WORDS = {{'0', '9'}, {'A', 'Z'}, {'_', '_'}, {'a', 'z'}};
const Ranges SPACES = {{'\t', '\r'},     {' ', ' '},       {0xA0, 0xA0},     {0x1680, 0x1680},
                       {0x2000, 0x200A}, {0x2028, 0x2029}, {0x202F, 0x202F}, {0x205F, 0x205F},
                       {0x3000, 0x3000}, {0xFEFF, 0xFEFF}};

bool contains(const Ranges& r, char32_t c) {
  auto it = std::upper_bound(r.begin(), r.end(), std::pair<char32_t, char32_t>(c, 0x10FFFF));
  return it != r.begin() && std::prev(it)->second >= c;
}

// The parsed pattern: a tree of nodes in one vector.
struct Node {
  enum Kind { empty, character, any, set, start, end, word, not_word, concat, alternation, repeat };
  explicit Node(Kind k) : kind(k) {}
  Kind kind;
  char32_t c = 0;
  size_t setIndex = 0;
  bool negated = false;
  int min = 0, max = 0;  // repeat; max < 0 for no bound
  std::vector<size_t> children;
};

class Parser {
 public:
  Parser(std::string_view text, PatternProgram& program) : _text(text), _program(program) {}

  Status parse(size_t& root) {
    Status s = alternation(root, 0);
    if (s && _at < _text.size()) return error("unmatched ')'");
    return s;
  }

  std::vector<Node> nodes;

 private:
  Status error(const std::string& what) const {
    return Status(Code::invalid_argument, "pattern " + std::string(_text.substr(0, 200)) + ": " + what +
                                              " at character " + std::to_string(_at + 1));
  }
  bool more() const { return _at < _text.size(); }
  char peek() const { return _text[_at]; }

  size_t add(Node n) {
    nodes.push_back(std::move(n));
    return nodes.size() - 1;
  }

  Status alternation(size_t& out, size_t depth) {
    if (depth > MAX_NESTING) return error("groups nested too deeply");
    Node alt(Node::alternation);
    while (true) {
      size_t branch = 0;
      if (Status s = concatenation(branch, depth); !s) return s;
      alt.children.push_back(branch);
      if (!more() || peek() != '|') break;
      ++_at;
    }
    out = alt.children.size() == 1 ? alt.children[0] : add(std::move(alt));
    return Status();
  }

  Status concatenation(size_t& out, size_t depth) {
    Node seq(Node::concat);
    while (more() && peek() != '|' && peek() != ')') {
      size_t atom;
      if (Status s = this->atom(atom, depth); !s) return s;
      if (Status s = quantifiers(atom); !s) return s;
      seq.children.push_back(atom);
    }
    out = add(std::move(seq));
    return Status();
  }

  // Reads {n}, {n,} or {n,m} at the cursor; false (cursor unchanged) when
  // the text there is not one, and then "{" is an ordinary character.
  bool counted(int& min, int& max) {
    size_t at = _at + 1;
    auto number = [&](int& v) {
      const size_t start = at;
      long long n = 0;
      while (at < _text.size() && _text[at] >= '0' && _text[at] <= '9' && at - start < 9)
        n = n * 10 + (_text[at++] - '0');
      v = static_cast<int>(std::min<long long>(n, MAX_COUNT + 1));
      return at > start;
    };
    if (!number(min)) return false;
    max = min;
    if (at < _text.size() && _text[at] == ',') {
      ++at;
      if (!number(max)) max = -1;
    }
    if (at >= _text.size() || _text[at] != '}') return false;
    _at = at + 1;
    return true;
  }

  Status quantifiers(size_t& atom) {
    while (more()) {
      int min, max;
      const char c = peek();
      if (c == '*') {
        min = 0, max = -1, ++_at;
      } else if (c == '+') {
        min = 1, max = -1, ++_at;
      } else if (c == '?') {
        min = 0, max = 1, ++_at;
      } else if (c == '{' && counted(min, max)) {
        if (min > MAX_COUNT || max > MAX_COUNT) return error("a repetition count above 1000");
        if (max >= 0 && max < min) return error("a repetition {n,m} with m below n");
      } else {
        return Status();
      }
      const Node::Kind kind = nodes[atom].kind;
      if (kind == Node::start || kind == Node::end || kind == Node::word || kind == Node::not_word)
        return error("a quantifier after an assertion");
      if (more() && peek() == '?') ++_at;  // lazy: the same matches
      Node r(Node::repeat);
      r.min = min;
      r.max = max;
      r.children.push_back(atom);
      atom = add(std::move(r));
    }
    return Status();
  }

  Status hexDigits(int count, char32_t& out) {
    out = 0;
    for (int i = 0; i < count; ++i) {
      if (!more() || !std::isxdigit(static_cast<unsigned char>(peek())))
        return error("a short \\x or \\u escape");
      const char c = _text[_at++];
      out = out * 16 + static_cast<char32_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
    }
    return Status();
  }

  // An escape after "\": a character in `c`, or a class in `ranges`
  // (`isSet`). `inClass`: inside [...], where \b is a backspace.
  Status escape(char32_t& c, Ranges& ranges, bool& isSet, Node::Kind& assertion, bool inClass) {
    isSet = false;
    assertion = Node::empty;
    if (!more()) return error("a pattern ending in \\");
    const char e = _text[_at++];
    // \d \w \s and their complements \D \W \S.
    static const std::pair<char, const Ranges*> CLASSES[] = {{'d', &DIGITS}, {'w', &WORDS}, {'s', &SPACES}};
    for (const auto& [letter, set] : CLASSES) {
      if (e != letter && e != letter - 'a' + 'A') continue;
      ranges = e == letter ? *set : complement(*set);
      isSet = true;
      return Status();
    }
    static constexpr std::pair<char, char32_t> CHARACTERS[] = {{'t', '\t'}, {'n', '\n'}, {'r', '\r'},
                                                               {'f', '\f'}, {'v', '\v'}, {'0', 0}};
    for (const auto& [letter, character] : CHARACTERS) {
      if (e != letter) continue;
      c = character;
      return Status();
    }
    switch (e) {
      case 'x':
        return hexDigits(2, c);
      case 'u':
        return hexDigits(4, c);
      case 'b':
        if (inClass)
          c = '\b';
        else
          assertion = Node::word;
        return Status();
      case 'B':
        if (inClass) return error("\\B inside [...]");
        assertion = Node::not_word;
        return Status();
      default:
        break;
    }
    if (e >= '1' && e <= '9') return error("back-references are not supported");
    if (std::isalnum(static_cast<unsigned char>(e))) return error(std::string("unknown escape \\") + e);
    --_at;
    c = decode(_text, _at);
    return Status();
  }

  Status characterClass(size_t& out) {
    Node n(Node::set);
    if (more() && peek() == '^') {
      n.negated = true;
      ++_at;
    }
    Ranges ranges;
    while (true) {
      if (!more()) return error("unmatched '['");
      if (peek() == ']') break;
      char32_t lo;
      bool loIsSet = false;
      if (Status s = classAtom(lo, ranges, loIsSet); !s) return s;
      if (!loIsSet && _at + 1 < _text.size() && peek() == '-' && _text[_at + 1] != ']') {
        ++_at;
        char32_t hi;
        bool hiIsSet = false;
        if (Status s = classAtom(hi, ranges, hiIsSet); !s) return s;
        if (hiIsSet) return error("a range ending in a class escape");
        if (hi < lo) return error("a range out of order");
        ranges.push_back({lo, hi});
      } else if (!loIsSet) {
        ranges.push_back({lo, lo});
      }
    }
    ++_at;  // ']'
    normalize(ranges);
    n.setIndex = _program.sets.size();
    _program.sets.push_back(std::move(ranges));
    out = add(std::move(n));
    return Status();
  }

  // One member of [...]: a character in `c`, or (isSet) ranges added to `into`.
  Status classAtom(char32_t& c, Ranges& into, bool& isSet) {
    isSet = false;
    if (peek() != '\\') {
      c = decode(_text, _at);
      return Status();
    }
    ++_at;
    Ranges r;
    Node::Kind assertion;
    if (Status s = escape(c, r, isSet, assertion, true); !s) return s;
    into.insert(into.end(), r.begin(), r.end());
    return Status();
  }

  Status atom(size_t& out, size_t depth) {
    const char c = peek();
    switch (c) {
      case '(': {
        ++_at;
        if (_text.substr(_at, 2) == "?:") {
          _at += 2;
        } else if (more() && peek() == '?') {
          return error("lookaround and named groups are not supported");
        }
        if (Status s = alternation(out, depth + 1); !s) return s;
        if (!more() || peek() != ')') return error("unmatched '('");
        ++_at;
        return Status();
      }
      case '[':
        ++_at;
        return characterClass(out);
      case '.':
        ++_at;
        out = add(Node(Node::any));
        return Status();
      case '^':
        ++_at;
        out = add(Node(Node::start));
        return Status();
      case '$':
        ++_at;
        out = add(Node(Node::end));
        return Status();
      case '*':
      case '+':
      case '?':
        return error("a quantifier with nothing before it");
      case '\\': {
        ++_at;
        char32_t ch;
        Ranges r;
        bool isSet;
        Node::Kind assertion;
        if (Status s = escape(ch, r, isSet, assertion, false); !s) return s;
        if (assertion != Node::empty) {
          out = add(Node(assertion));
        } else if (isSet) {
          Node n(Node::set);
          n.setIndex = _program.sets.size();
          _program.sets.push_back(std::move(r));
          out = add(std::move(n));
        } else {
          Node n(Node::character);
          n.c = ch;
          out = add(std::move(n));
        }
        return Status();
      }
      default: {
        Node n(Node::character);
        n.c = decode(_text, _at);
        out = add(std::move(n));
        return Status();
      }
    }
  }

  std::string_view _text;
  size_t _at = 0;
  PatternProgram& _program;
};

class Compiler {
 public:
  Compiler(const std::vector<Node>& nodes, PatternProgram& program) : _nodes(nodes), _p(program) {}

  bool emit(size_t n) {
    const Node& node = _nodes[n];
    switch (node.kind) {
      case Node::empty:
        return true;
      case Node::character:
        return put({Instruction::character, false, _p.ignoreCase ? fold(node.c) : node.c});
      case Node::any:
        return put({Instruction::any});
      case Node::set: {
        Instruction i{Instruction::set, node.negated};
        i.x = static_cast<std::uint32_t>(node.setIndex);
        return put(i);
      }
      case Node::start:
        return put({Instruction::assert_start});
      case Node::end:
        return put({Instruction::assert_end});
      case Node::word:
        return put({Instruction::word});
      case Node::not_word:
        return put({Instruction::not_word});
      case Node::concat:
        for (size_t child : node.children)
          if (!emit(child)) return false;
        return true;
      case Node::alternation: {
        // split L1, next; L1: branch; jump end; next: split ...
        std::vector<size_t> jumps;
        for (size_t k = 0; k < node.children.size(); ++k) {
          size_t split = SIZE_MAX;
          if (k + 1 < node.children.size()) {
            split = _p.code.size();
            if (!put({Instruction::split})) return false;
            _p.code[split].x = static_cast<std::uint32_t>(_p.code.size());
          }
          if (!emit(node.children[k])) return false;
          if (k + 1 < node.children.size()) {
            jumps.push_back(_p.code.size());
            if (!put({Instruction::jump})) return false;
            _p.code[split].y = static_cast<std::uint32_t>(_p.code.size());
          }
        }
        for (size_t j : jumps) _p.code[j].x = static_cast<std::uint32_t>(_p.code.size());
        return true;
      }
      case Node::repeat: {
        const size_t child = node.children[0];
        for (int k = 0; k < node.min; ++k)
          if (!emit(child)) return false;
        if (node.max < 0) {
          const size_t loop = _p.code.size();
          if (!put({Instruction::split})) return false;
          _p.code[loop].x = static_cast<std::uint32_t>(_p.code.size());
          if (!emit(child)) return false;
          Instruction back{Instruction::jump};
          back.x = static_cast<std::uint32_t>(loop);
          if (!put(back)) return false;
          _p.code[loop].y = static_cast<std::uint32_t>(_p.code.size());
          return true;
        }
        std::vector<size_t> splits;
        for (int k = node.min; k < node.max; ++k) {
          splits.push_back(_p.code.size());
          if (!put({Instruction::split})) return false;
          _p.code[splits.back()].x = static_cast<std::uint32_t>(_p.code.size());
          if (!emit(child)) return false;
        }
        for (size_t s : splits) _p.code[s].y = static_cast<std::uint32_t>(_p.code.size());
        return true;
      }
    }
    return false;
  }

  bool put(Instruction i) {
    if (_p.code.size() >= MAX_PROGRAM) return false;
    _p.code.push_back(i);
    return true;
  }

 private:
  const std::vector<Node>& _nodes;
  PatternProgram& _p;
};

// Adds to every set the upper-case forms of its members, so that a folded
// character of the text is tested against it. False when the sets are too
// large for that.
bool foldSets(PatternProgram& p) {
  // The characters below U+10000 whose upper-case form differs, with it,
  // in order: a set takes the images of those it holds, found by search
  // rather than by folding each of its members.
  static const std::vector<std::pair<char32_t, char32_t>> cased = [] {
    std::vector<std::pair<char32_t, char32_t>> v;
    for (char32_t c = 0; c < 0x10000; ++c)
      if (fold(c) != c) v.push_back({c, fold(c)});
    return v;
  }();
  size_t work = 0;  // members looked at, as if folded one by one
  for (Ranges& r : p.sets) {
    Ranges images;
    for (const auto& [lo, hi] : r) {
      if (lo >= 0x10000 || hi < lo) continue;
      const char32_t top = std::min<char32_t>(hi, 0xFFFF);
      work += top - lo + 1;
      if (work > MAX_FOLD_WORK) return false;
      auto it = std::lower_bound(cased.begin(), cased.end(), std::pair<char32_t, char32_t>{lo, 0});
      // An image inside the range is there already: a wide set (a negated
      // one, \W) would otherwise add and sort a thousand of them.
      for (; it != cased.end() && it->first <= top; ++it)
        if (it->second < lo || it->second > hi) images.push_back({it->second, it->second});
    }
    r.insert(r.end(), images.begin(), images.end());
    normalize(r);
  }
  return true;
}

// The threads of one step: program counters, each at most once.
class ThreadList {
 public:
  explicit ThreadList(size_t size) : _mark(size, 0) {}
  void clear() {
    ++_generation;
    _pcs.clear();
  }
  bool insert(std::uint32_t pc) {
    if (_mark[pc] == _generation) return false;
    _mark[pc] = _generation;
    _pcs.push_back(pc);
    return true;
  }
  const std::vector<std::uint32_t>& pcs() const { return _pcs; }

 private:
  std::vector<std::uint64_t> _mark;
  std::uint64_t _generation = 1;
  std::vector<std::uint32_t> _pcs;
};

}  // namespace

Pattern::Pattern() {
  static const std::shared_ptr<const PatternProgram> everything = [] {
    auto p = std::make_shared<PatternProgram>();
    p->code.push_back({Instruction::match});
    return std::shared_ptr<const PatternProgram>(std::move(p));
  }();
  program_ = everything;
}

const std::string& Pattern::expression() const noexcept {
  return program_->expression;
}

Result<Pattern> Pattern::compile(std::string_view expression, bool ignore_case) {
  if (expression.size() > MAX_EXPRESSION) return Status(Code::too_large, "a pattern of more than 4096 bytes");
  auto program = std::make_shared<PatternProgram>();
  program->expression = std::string(expression);
  program->ignoreCase = ignore_case;
  Parser parser(expression, *program);
  size_t root = 0;
  if (Status s = parser.parse(root); !s) return s;
  if (ignore_case && !foldSets(*program))
    return Status(Code::too_large, "pattern " + std::string(expression.substr(0, 200)) +
                                       ": character classes too large to ignore letter case");
  Compiler compiler(parser.nodes, *program);
  if (!compiler.emit(root) || !compiler.put({Instruction::match}))
    return Status(Code::too_large, "pattern " + std::string(expression.substr(0, 200)) +
                                       ": its repetitions expand to more than the matcher takes");
  Pattern p;
  p.program_ = std::move(program);
  return p;
}

Result<bool> Pattern::search(std::string_view text) const {
  const PatternProgram& p = *program_;
  const std::vector<Instruction>& code = p.code;
  if (code.size() == 1) return true;  // matches everything
  const std::uint64_t budget = (1u << 22) + 32 * static_cast<std::uint64_t>(text.size());
  std::uint64_t steps = 0;
  ThreadList here(code.size());
  // Threads that read the last character and go on at these instructions.
  std::vector<std::uint32_t> carried, work;
  char32_t previous = 0;  // before the start: no word character
  for (size_t at = 0;;) {
    const bool atStart = at == 0, atEnd = at >= text.size();
    size_t after = at;
    const char32_t c = atEnd ? 0 : decode(text, after);
    // Every thread carried over, and a new one: the pattern may match
    // anywhere. Jumps, splits and assertions are followed here, each
    // instruction at most once per position.
    here.clear();
    carried.push_back(0);
    for (std::uint32_t start : carried) {
      work.push_back(start);
      while (!work.empty()) {
        const std::uint32_t pc = work.back();
        work.pop_back();
        if (++steps > budget) return Status(Code::too_large, "the text is too long for this pattern");
        if (!here.insert(pc)) continue;
        const Instruction& in = code[pc];
        switch (in.op) {
          case Instruction::jump:
            work.push_back(in.x);
            break;
          case Instruction::split:
            work.push_back(in.y);
            work.push_back(in.x);
            break;
          case Instruction::assert_start:
            if (atStart) work.push_back(pc + 1);
            break;
          case Instruction::assert_end:
            if (atEnd) work.push_back(pc + 1);
            break;
          case Instruction::word:
          case Instruction::not_word:
            if ((isWord(previous) != (!atEnd && isWord(c))) == (in.op == Instruction::word))
              work.push_back(pc + 1);
            break;
          case Instruction::match:
            return true;
          default:
            break;
        }
      }
    }
    if (atEnd) return false;
    const char32_t folded = p.ignoreCase ? fold(c) : c;
    carried.clear();
    for (std::uint32_t pc : here.pcs()) {
      const Instruction& in = code[pc];
      bool ok = false;
      if (in.op == Instruction::character)
        ok = folded == in.c;
      else if (in.op == Instruction::any)
        ok = !isLineBreak(c);
      else if (in.op == Instruction::set)
        ok = contains(p.sets[in.x], folded) != in.negated;
      if (ok) carried.push_back(pc + 1);
    }
    previous = c;
    at = after;
  }
}

Result<bool> SearchCriteria::key_matches(const Key& key) const {
  if (since || until) {
    const FileTime t = key.last_write();
    if ((since && t < *since) || (until && t > *until)) return false;
  }
  if (key_name) return key_name->search(key.name());
  return true;
}

namespace {

void appendHex(std::string& out, const std::byte* data, size_t n) {
  static constexpr char HEX[] = "0123456789abcdef";
  for (size_t i = 0; i < n; ++i) {
    const unsigned b = std::to_integer<unsigned>(data[i]);
    out += HEX[b >> 4];
    out += HEX[b & 15];
  }
}

}  // namespace

Result<bool> SearchCriteria::value_matches(const Value& value) const {
  const ValueType type = value.type();
  if (!types.empty() && std::find(types.begin(), types.end(), type) == types.end()) return false;
  if (value_name) {
    Result<bool> m = value_name->search(value.name());
    if (!m || !*m) return m;
  }
  if (!data) return true;
  // The texts the data is matched as, by the value's typed reads; the
  // bytes in hex when there is none or it fails.
  std::vector<std::string> texts;
  auto number = [&](std::uint64_t v) {
    texts.push_back(std::to_string(v));
    char b[24];
    std::snprintf(b, sizeof b, "0x%llx", static_cast<unsigned long long>(v));
    texts.push_back(b);
  };
  if (value.size() <= MAX_DATA_BYTES) {
    switch (type) {
      case ValueType::sz:
      case ValueType::expand_sz:
        if (Result<std::string> t = value.string()) texts.push_back(std::move(*t));
        break;
      case ValueType::link:
        if (Result<std::string> t = value.link()) texts.push_back(std::move(*t));
        break;
      case ValueType::multi_sz:
        if (Result<std::vector<std::string>> list = value.multi_string()) texts = std::move(*list);
        if (texts.empty()) texts.emplace_back();  // the empty list
        break;
      case ValueType::dword:
      case ValueType::dword_big_endian:
        if (Result<std::uint32_t> n = value.dword()) number(*n);
        break;
      case ValueType::qword:
        if (Result<std::uint64_t> n = value.qword()) number(*n);
        break;
      default:
        break;
    }
  }
  if (texts.empty()) {
    Result<Bytes> bytes = value.data();
    if (!bytes) return bytes.status();
    texts.emplace_back();
    appendHex(texts.back(), bytes->data(), std::min<size_t>(bytes->size(), MAX_DATA_BYTES));
  }
  for (const std::string& t : texts) {
    Result<bool> m = data->search(std::string_view(t).substr(0, 2 * size_t{MAX_DATA_BYTES}));
    if (!m || *m) return m;
  }
  return false;
}

}  // namespace hivekit
