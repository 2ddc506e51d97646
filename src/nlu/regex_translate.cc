#include "nlu/regex_translate.h"

#include <algorithm>
#include <bitset>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace rulenlu {
namespace {

// The standard library reads every pattern unit through the classic ctype facet: non-ASCII
// units narrow to the default and belong to no class.
char Narrow(char16_t c, char fallback) { return c < 0x80 ? static_cast<char>(c) : fallback; }
bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }
bool IsXDigit(char16_t c) {
  return IsDigit(c) || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
}
char16_t ToLower(char16_t c) { return c >= u'A' && c <= u'Z' ? c + (u'a' - u'A') : c; }
bool IsUpper(char16_t c) { return c >= u'A' && c <= u'Z'; }

using UnitSet = std::bitset<0x10000>;

// The classic "C" classes, as the standard traits answer them (all ASCII).
bool InClass(const std::string& name, unsigned c) {
  const bool digit = c >= '0' && c <= '9';
  const bool upper = c >= 'A' && c <= 'Z';
  const bool lower = c >= 'a' && c <= 'z';
  const bool alpha = upper || lower;
  const bool space = (c >= 9 && c <= 13) || c == 32;
  const bool graph = c >= 33 && c <= 126;
  if (name == "d" || name == "digit") return digit;
  if (name == "w") return digit || alpha || c == '_';
  if (name == "s" || name == "space") return space;
  if (name == "alnum") return digit || alpha;
  if (name == "alpha") return alpha;
  if (name == "blank") return c == 9 || c == 32;
  if (name == "cntrl") return c <= 31 || c == 127;
  if (name == "graph") return graph;
  if (name == "lower") return lower;
  if (name == "print") return c >= 32 && c <= 126;
  if (name == "punct") return graph && !digit && !alpha;
  if (name == "upper") return upper;
  if (name == "xdigit") return digit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  return false;
}

bool IsClassName(const std::string& name) {
  static const char* const kNames[] = {"d",     "w",     "s",     "alnum", "alpha",
                                       "blank", "cntrl", "digit", "graph", "lower",
                                       "print", "punct", "space", "upper", "xdigit"};
  for (const char* known : kNames) {
    if (name == known) return true;
  }
  return false;
}

// Adds the members of the class `name` (read case-insensitively, as the standard traits do) to
// `set`, or of its complement when `negate`. Throws when there is no such class.
void AddClass(std::u16string_view name, bool negate, UnitSet* set) {
  std::string narrow;
  for (char16_t c : name) narrow += Narrow(ToLower(c), '\0');
  if (!IsClassName(narrow)) throw RegexError("invalid character class in brackets");
  UnitSet members;
  for (unsigned c = 0; c < 0x80; ++c) members[c] = InClass(narrow, c);
  *set |= negate ? ~members : members;
}

// The unit a POSIX collating-element name stands for, or -1.
int CollatingElement(std::u16string_view name) {
  static const char* const kNames[128] = {"NUL",
                                          "SOH",
                                          "STX",
                                          "ETX",
                                          "EOT",
                                          "ENQ",
                                          "ACK",
                                          "alert",
                                          "backspace",
                                          "tab",
                                          "newline",
                                          "vertical-tab",
                                          "form-feed",
                                          "carriage-return",
                                          "SO",
                                          "SI",
                                          "DLE",
                                          "DC1",
                                          "DC2",
                                          "DC3",
                                          "DC4",
                                          "NAK",
                                          "SYN",
                                          "ETB",
                                          "CAN",
                                          "EM",
                                          "SUB",
                                          "ESC",
                                          "IS4",
                                          "IS3",
                                          "IS2",
                                          "IS1",
                                          "space",
                                          "exclamation-mark",
                                          "quotation-mark",
                                          "number-sign",
                                          "dollar-sign",
                                          "percent-sign",
                                          "ampersand",
                                          "apostrophe",
                                          "left-parenthesis",
                                          "right-parenthesis",
                                          "asterisk",
                                          "plus-sign",
                                          "comma",
                                          "hyphen",
                                          "period",
                                          "slash",
                                          "zero",
                                          "one",
                                          "two",
                                          "three",
                                          "four",
                                          "five",
                                          "six",
                                          "seven",
                                          "eight",
                                          "nine",
                                          "colon",
                                          "semicolon",
                                          "less-than-sign",
                                          "equals-sign",
                                          "greater-than-sign",
                                          "question-mark",
                                          "commercial-at",
                                          "A",
                                          "B",
                                          "C",
                                          "D",
                                          "E",
                                          "F",
                                          "G",
                                          "H",
                                          "I",
                                          "J",
                                          "K",
                                          "L",
                                          "M",
                                          "N",
                                          "O",
                                          "P",
                                          "Q",
                                          "R",
                                          "S",
                                          "T",
                                          "U",
                                          "V",
                                          "W",
                                          "X",
                                          "Y",
                                          "Z",
                                          "left-square-bracket",
                                          "backslash",
                                          "right-square-bracket",
                                          "circumflex",
                                          "underscore",
                                          "grave-accent",
                                          "a",
                                          "b",
                                          "c",
                                          "d",
                                          "e",
                                          "f",
                                          "g",
                                          "h",
                                          "i",
                                          "j",
                                          "k",
                                          "l",
                                          "m",
                                          "n",
                                          "o",
                                          "p",
                                          "q",
                                          "r",
                                          "s",
                                          "t",
                                          "u",
                                          "v",
                                          "w",
                                          "x",
                                          "y",
                                          "z",
                                          "left-curly-bracket",
                                          "vertical-line",
                                          "right-curly-bracket",
                                          "tilde",
                                          "DEL"};
  std::string narrow;
  for (char16_t c : name) narrow += Narrow(c, '\0');
  for (int i = 0; i < 128; ++i) {
    if (narrow == kNames[i]) return i;
  }
  return -1;
}

// The number the standard library reads from `digits`: accumulated in a 64-bit long that wraps,
// then truncated to int. Computed here without signed overflow.
int32_t WrappedNumber(std::u16string_view digits, unsigned radix) {
  uint64_t value = 0;
  for (char16_t c : digits) {
    const unsigned digit = IsDigit(c) ? c - u'0' : ToLower(c) - u'a' + 10;
    value = value * radix + digit;
  }
  const uint32_t low = static_cast<uint32_t>(value);
  return low <= INT32_MAX ? static_cast<int32_t>(low)
                          : static_cast<int32_t>(low - 0x80000000u) + INT32_MIN;
}

enum class Token {
  kEof,
  kOrdChar,
  kHexNum,
  kBackref,
  kAnyChar,
  kLineBegin,
  kLineEnd,
  kClosure0,
  kClosure1,
  kOpt,
  kOr,
  kSubexprBegin,
  kNoGroupBegin,
  kLookaheadBegin,
  kSubexprEnd,
  kBracketBegin,
  kBracketNegBegin,
  kBracketEnd,
  kBracketDash,
  kCollSymbol,
  kClassName,
  kEquivName,
  kIntervalBegin,
  kIntervalEnd,
  kDupCount,
  kComma,
  kWordBound,
  kQuotedClass
};

// Splits a pattern into the standard library's tokens, one ahead, with its errors.
class Scanner {
 public:
  Scanner(std::u16string_view pattern, bool ecma) : p_(pattern), ecma_(ecma) { Advance(); }

  Token token() const { return token_; }
  const std::u16string& value() const { return value_; }

  void Advance() {
    if (i_ == p_.size()) {
      token_ = Token::kEof;
      return;
    }
    switch (state_) {
      case State::kNormal:
        ScanNormal();
        break;
      case State::kBracket:
        ScanBracket();
        break;
      case State::kBrace:
        ScanBrace();
        break;
    }
  }

 private:
  enum class State { kNormal, kBracket, kBrace };

  bool AtEnd() const { return i_ == p_.size(); }
  // The unit at the cursor; past the end, the NUL that ends the standard library's buffer.
  char16_t Peek() const { return AtEnd() ? u'\0' : p_[i_]; }
  void Set(Token token, char16_t c) {
    token_ = token;
    value_.assign(1, c);
  }

  void ScanNormal() {
    const char16_t c = p_[i_++];
    const char* special = ecma_ ? "^$\\.*+?()[]{}|" : ".[\\()*+?{|^$";
    const char narrow = Narrow(c, ' ');
    if (narrow != '\0' && std::strchr(special, narrow) == nullptr) {
      Set(Token::kOrdChar, c);
      return;
    }
    if (c == u'\\') {
      if (AtEnd()) throw RegexError("escape at the end of the pattern");
      ecma_ ? EatEscapeEcma() : EatEscapePosix();
      return;
    }
    if (c == u'(') {
      if (ecma_ && Peek() == u'?') {
        if (++i_ == p_.size()) throw RegexError("'(?' at the end of the pattern");
        const char16_t kind = p_[i_++];
        if (kind == u':') {
          token_ = Token::kNoGroupBegin;
        } else if (kind == u'=' || kind == u'!') {
          Set(Token::kLookaheadBegin, kind == u'=' ? u'p' : u'n');
        } else {
          throw RegexError("invalid '(?...)' group: only (?:, (?= and (?! are supported");
        }
      } else {
        token_ = Token::kSubexprBegin;
      }
    } else if (c == u')') {
      token_ = Token::kSubexprEnd;
    } else if (c == u'[') {
      state_ = State::kBracket;
      at_bracket_start_ = true;
      if (!AtEnd() && p_[i_] == u'^') {
        token_ = Token::kBracketNegBegin;
        ++i_;
      } else {
        token_ = Token::kBracketBegin;
      }
    } else if (c == u'{') {
      state_ = State::kBrace;
      token_ = Token::kIntervalBegin;
    } else if (c == u'\0') {
      if (!ecma_) throw RegexError("NUL in a POSIX pattern");
      Set(Token::kOrdChar, c);
    } else if (c == u']' || c == u'}') {
      Set(Token::kOrdChar, c);
    } else {
      switch (c) {
        case u'^':
          token_ = Token::kLineBegin;
          break;
        case u'$':
          token_ = Token::kLineEnd;
          break;
        case u'.':
          token_ = Token::kAnyChar;
          break;
        case u'*':
          token_ = Token::kClosure0;
          break;
        case u'+':
          token_ = Token::kClosure1;
          break;
        case u'?':
          token_ = Token::kOpt;
          break;
        default:
          token_ = Token::kOr;
          break;  // '|'
      }
    }
  }

  void ScanBracket() {
    const char16_t c = p_[i_++];
    if (c == u'-') {
      token_ = Token::kBracketDash;
    } else if (c == u'[') {
      if (AtEnd()) throw RegexError("unterminated '[[' in brackets");
      const char16_t kind = p_[i_];
      if (kind == u'.' || kind == u':' || kind == u'=') {
        ++i_;
        token_ = kind == u'.'   ? Token::kCollSymbol
                 : kind == u':' ? Token::kClassName
                                : Token::kEquivName;
        EatClass(kind);
      } else {
        Set(Token::kOrdChar, c);
      }
    } else if (c == u']' && (ecma_ || !at_bracket_start_)) {
      token_ = Token::kBracketEnd;
      state_ = State::kNormal;
    } else if (c == u'\\' && ecma_) {
      EatEscapeEcma();
    } else {
      Set(Token::kOrdChar, c);
    }
    at_bracket_start_ = false;
  }

  void ScanBrace() {
    const char16_t c = p_[i_++];
    if (IsDigit(c)) {
      Set(Token::kDupCount, c);
      while (!AtEnd() && IsDigit(p_[i_])) value_ += p_[i_++];
    } else if (c == u',') {
      token_ = Token::kComma;
    } else if (c == u'}') {
      state_ = State::kNormal;
      token_ = Token::kIntervalEnd;
    } else {
      throw RegexError("invalid character in '{...}'");
    }
  }

  void EatEscapeEcma() {
    if (AtEnd()) throw RegexError("escape at the end of the pattern");
    const char16_t c = p_[i_++];
    static const char kEscapes[] = "0\0b\bf\fn\nr\rt\tv\v";
    const char narrow = Narrow(c, '\0');
    const char* found = nullptr;
    for (size_t k = 0; narrow != '\0' && k + 1 < sizeof kEscapes; k += 2) {
      if (kEscapes[k] == narrow) found = &kEscapes[k + 1];
    }
    if (found != nullptr && (c != u'b' || state_ == State::kBracket)) {
      Set(Token::kOrdChar, static_cast<char16_t>(*found));
    } else if (c == u'b' || c == u'B') {
      Set(Token::kWordBound, c == u'b' ? u'p' : u'n');
    } else if (c == u'd' || c == u'D' || c == u's' || c == u'S' || c == u'w' || c == u'W') {
      Set(Token::kQuotedClass, c);
    } else if (c == u'c') {
      if (AtEnd()) throw RegexError("'\\c' at the end of the pattern");
      Set(Token::kOrdChar, p_[i_++]);  // the standard library keeps the letter itself
    } else if (c == u'x' || c == u'u') {
      value_.clear();
      const int digits = c == u'x' ? 2 : 4;
      for (int k = 0; k < digits; ++k) {
        if (AtEnd() || !IsXDigit(p_[i_])) {
          throw RegexError(digits == 2 ? "'\\x' needs two hexadecimal digits"
                                       : "'\\u' needs four hexadecimal digits");
        }
        value_ += p_[i_++];
      }
      token_ = Token::kHexNum;
    } else if (IsDigit(c)) {
      Set(Token::kBackref, c);
      while (!AtEnd() && IsDigit(p_[i_])) value_ += p_[i_++];
    } else {
      Set(Token::kOrdChar, c);
    }
  }

  void EatEscapePosix() {
    const char16_t c = p_[i_];
    const char narrow = Narrow(c, '\0');
    if (narrow == '\0' || std::strchr(".[\\()*+?{|^$", narrow) == nullptr) {
      throw RegexError("a POSIX pattern may escape only . [ \\ ( ) * + ? { | ^ $");
    }
    Set(Token::kOrdChar, c);
    ++i_;
  }

  // Reads the name of [.name.], [:name:] or [=name=] up to its closing `kind` and ']'.
  void EatClass(char16_t kind) {
    value_.clear();
    while (!AtEnd() && p_[i_] != kind) value_ += p_[i_++];
    if (AtEnd() || p_[i_++] != kind || AtEnd() || p_[i_++] != u']') {
      throw RegexError("unterminated '[" + std::string(1, Narrow(kind, '?')) + "' in brackets");
    }
  }

  std::u16string_view p_;
  bool ecma_;
  size_t i_ = 0;
  State state_ = State::kNormal;
  bool at_bracket_start_ = false;
  Token token_ = Token::kEof;
  std::u16string value_;
};

using Node = RegexNode;

// Builds the expression tree the way the standard library's compiler walks the tokens, and
// counts the states of the automaton it would build, to reject exactly what it rejects.
class Parser {
 public:
  Parser(std::u16string_view pattern, bool ecma) : scanner_(pattern, ecma), ecma_(ecma) {
    // A literal's units and its sequence without regrowth; a long pattern may make few nodes.
    nodes_.reserve(std::min<size_t>(pattern.size() + 2, 1024));
  }

  size_t Parse() {
    AddStates(1);  // the whole match's group begins
    const size_t root = Disjunction();
    if (!Match(Token::kEof)) throw RegexError("unmatched ')' or misplaced quantifier");
    AddStates(2);  // it ends, and accepts
    return root;
  }

  const std::vector<Node>& nodes() const { return nodes_; }
  const std::vector<std::vector<std::pair<char16_t, char16_t>>>& sets() const { return sets_; }
  const std::vector<bool>& referenced() const { return referenced_; }

 private:
  bool Match(Token token) {
    if (scanner_.token() != token) return false;
    value_ = scanner_.value();
    scanner_.Advance();
    return true;
  }

  void AddStates(uint64_t count) {
    states_ += std::min<uint64_t>(count, kStdRegexStateLimit + 1);
    if (states_ > kStdRegexStateLimit) {
      throw RegexError("pattern too large: over " + std::to_string(kStdRegexStateLimit) +
                       " automaton states");
    }
  }

  size_t Add(Node node) {
    nodes_.push_back(std::move(node));
    return nodes_.size() - 1;
  }
  size_t Leaf(Node::Kind kind) {
    AddStates(1);
    Node node(kind);
    node.reach = 1;
    return Add(std::move(node));
  }

  size_t Disjunction() {
    std::vector<size_t> alternatives{Alternative()};
    uint64_t reach = nodes_[alternatives[0]].reach;
    while (Match(Token::kOr)) {
      alternatives.push_back(Alternative());
      AddStates(2);
      reach += nodes_[alternatives.back()].reach + 2;
    }
    if (alternatives.size() == 1) return alternatives[0];
    Node node(Node::kAlt);
    node.kids = std::move(alternatives);
    node.reach = reach;
    return Add(std::move(node));
  }

  size_t Alternative() {
    Node node(Node::kConcat);
    node.reach = 1;  // the empty sequence that ends it
    AddStates(1);
    size_t term;
    while (Term(&term)) {
      node.kids.push_back(term);
      node.reach += nodes_[term].reach;
    }
    return Add(std::move(node));
  }

  bool Term(size_t* out) {
    if (Assertion(out)) return true;
    if (!Atom(out)) return false;
    while (Quantifier(out)) {
    }
    return true;
  }

  void RejectInLookahead(const char* what) {
    if (!lookaheads_.empty()) {
      throw RegexError(std::string("not supported: ") + what +
                       " inside a lookahead (the standard library tests it against the "
                       "lookahead's start on a search's first attempt)");
    }
  }

  void Enter() {
    if (++depth_ > kMaxRegexNesting) {
      throw RegexError("groups nested more than " + std::to_string(kMaxRegexNesting) + " deep");
    }
  }

  bool Assertion(size_t* out) {
    if (Match(Token::kLineBegin)) {
      RejectInLookahead("'^'");
      *out = Leaf(Node::kLineBegin);
    } else if (Match(Token::kLineEnd)) {
      *out = Leaf(Node::kLineEnd);
    } else if (Match(Token::kWordBound)) {
      RejectInLookahead(value_[0] == u'p' ? "'\\b'" : "'\\B'");
      *out = Leaf(value_[0] == u'p' ? Node::kWordBound : Node::kNotWordBound);
    } else if (Match(Token::kLookaheadBegin)) {
      const bool negative = value_[0] == u'n';
      Enter();
      lookaheads_.push_back(lookahead_count_++);
      const size_t body = Disjunction();
      if (!Match(Token::kSubexprEnd)) throw RegexError("unmatched '(' of a lookahead");
      lookaheads_.pop_back();
      --depth_;
      AddStates(2);
      Node node(negative ? Node::kNegLookahead : Node::kLookahead);
      node.kids = {body};
      node.reach = nodes_[body].reach + 2;
      *out = Add(std::move(node));
    } else {
      return false;
    }
    return true;
  }

  bool TryChar(char16_t* unit) {
    if (Match(Token::kHexNum)) {
      *unit = static_cast<char16_t>(WrappedNumber(value_, 16));
    } else if (Match(Token::kOrdChar)) {
      *unit = value_[0];
    } else {
      return false;
    }
    return true;
  }

  size_t SetNode(const UnitSet& units) {
    // Runs of members, found a word at a time: sets span all 65,536 units.
    std::vector<std::pair<char16_t, char16_t>> ranges;
    const auto gaps = std::make_unique<UnitSet>(~units);
    for (size_t first = units._Find_first(); first < units.size();) {
      const size_t end = gaps->_Find_next(first);  // units.size() when the run reaches the end
      ranges.emplace_back(static_cast<char16_t>(first), static_cast<char16_t>(end - 1));
      if (end >= units.size()) break;
      first = units._Find_next(end);
    }
    sets_.push_back(std::move(ranges));
    const size_t node = Leaf(Node::kSet);
    nodes_[node].index = sets_.size() - 1;
    return node;
  }

  bool Atom(size_t* out) {
    char16_t unit;
    if (Match(Token::kAnyChar)) {
      // Unit sets live on the heap: Atom recurses once per nesting level, and a set on its
      // stack frame would make deep nesting take megabytes of a caller's stack.
      const auto any = std::make_unique<UnitSet>();
      any->set();
      if (ecma_) {
        for (char16_t c : {u'\n', u'\r', u'\u2028', u'\u2029'}) any->reset(c);
      } else {
        any->reset(0);
      }
      *out = SetNode(*any);
    } else if (TryChar(&unit)) {
      *out = Leaf(Node::kChar);
      nodes_[*out].unit = unit;
    } else if (Match(Token::kBackref)) {
      *out = Backref(WrappedNumber(value_, 10));
    } else if (Match(Token::kQuotedClass)) {
      const auto units = std::make_unique<UnitSet>();
      AddClass(value_, false, units.get());
      if (IsUpper(value_[0])) units->flip();
      *out = SetNode(*units);
    } else if (Match(Token::kNoGroupBegin)) {
      Enter();
      const size_t body = Disjunction();
      if (!Match(Token::kSubexprEnd)) throw RegexError("unmatched '('");
      --depth_;
      AddStates(1);
      Node node(Node::kNoGroup);
      node.kids = {body};
      node.reach = nodes_[body].reach + 1;
      *out = Add(std::move(node));
    } else if (Match(Token::kSubexprBegin)) {
      Enter();
      const size_t group = groups_.size() + 1;
      groups_.push_back({lookaheads_, true});
      const size_t body = Disjunction();
      if (!Match(Token::kSubexprEnd)) throw RegexError("unmatched '('");
      groups_[group - 1].open = false;
      --depth_;
      AddStates(2);
      Node node(Node::kGroup);
      node.index = group;
      node.kids = {body};
      node.reach = nodes_[body].reach + 2;
      *out = Add(std::move(node));
    } else {
      return Bracket(out);
    }
    return true;
  }

  size_t Backref(int32_t number) {
    // A negative number becomes a huge index, as in the standard library.
    const uint64_t index = number < 0 ? UINT64_MAX : static_cast<uint64_t>(number);
    if (index == 0 || index > groups_.size()) {
      throw RegexError(index == 0 ? "back-reference to the whole match"
                                  : "back-reference to a group that does not precede it");
    }
    const GroupInfo& group = groups_[index - 1];
    if (group.open) throw RegexError("back-reference to a group from inside it");
    for (size_t lookahead : group.lookaheads) {
      if (std::find(lookaheads_.begin(), lookaheads_.end(), lookahead) == lookaheads_.end()) {
        throw RegexError(
            "not supported: back-reference to a group inside a lookahead (the standard "
            "library keeps that group's text even after the lookahead fails)");
      }
    }
    if (referenced_.size() <= index) referenced_.resize(index + 1);
    referenced_[index] = true;
    const size_t node = Leaf(Node::kBackref);
    nodes_[node].index = index;
    return node;
  }

  bool Quantifier(size_t* out) {
    const Token token = scanner_.token();
    if (token != Token::kClosure0 && token != Token::kClosure1 && token != Token::kOpt &&
        token != Token::kIntervalBegin) {
      return false;  // most atoms: no node made
    }
    const uint64_t reach = nodes_[*out].reach;
    Node node(Node::kRepeat);
    node.kids = {*out};
    if (token == Token::kClosure0 || token == Token::kClosure1 || token == Token::kOpt) {
      Match(token);
      const char16_t kind = token == Token::kClosure0   ? u'*'
                            : token == Token::kClosure1 ? u'+'
                                                        : u'?';
      node.lazy = ecma_ && Match(Token::kOpt);
      node.min = kind == u'+' ? 1 : 0;
      node.infinite = kind != u'?';
      node.max = 1;
      const uint64_t added = kind == u'?' ? 2 : 1;
      AddStates(added);
      node.reach = reach + added;
    } else if (Match(Token::kIntervalBegin)) {
      if (!Match(Token::kDupCount)) throw RegexError("'{' without a count");
      const int64_t min = WrappedNumber(value_, 10);
      bool infinite = false;
      int64_t extra = 0;  // optional copies beyond the minimum
      if (Match(Token::kComma)) {
        if (Match(Token::kDupCount)) {
          extra = static_cast<int64_t>(WrappedNumber(value_, 10)) - min;
        } else {
          infinite = true;
        }
      }
      if (!Match(Token::kIntervalEnd)) throw RegexError("unterminated '{...}'");
      node.lazy = ecma_ && Match(Token::kOpt);
      // A negative (wrapped) minimum makes no copies, as in the standard library.
      const uint64_t copies = min < 0 ? 0 : static_cast<uint64_t>(min);
      const uint64_t cap = kStdRegexStateLimit + 1;
      uint64_t added = 1 + std::min(copies, cap) * reach;
      AddStates(added);
      if (infinite) {
        AddStates(reach + 1);
        added += reach + 1;
      } else {
        if (extra < 0) throw RegexError("'{m,n}' with n smaller than m");
        const uint64_t more = 1 + std::min(static_cast<uint64_t>(extra), cap) * (reach + 1);
        AddStates(more);
        added += more;
      }
      node.min = copies;
      node.max = copies + static_cast<uint64_t>(extra);
      node.infinite = infinite;
      node.reach = added;
    } else {
      return false;
    }
    *out = Add(std::move(node));
    return true;
  }

  bool Bracket(size_t* out) {
    const bool negative = Match(Token::kBracketNegBegin);
    if (!negative && !Match(Token::kBracketBegin)) return false;
    const auto owned = std::make_unique<UnitSet>();  // on the heap, as in Atom
    UnitSet& units = *owned;
    last_ = Last::kNone;
    char16_t unit;
    if (TryChar(&unit)) {
      SetLast(unit);
    } else if (Match(Token::kBracketDash)) {
      SetLast(u'-');  // a leading '-' is a plain unit
    }
    while (ExpressionTerm(&units)) {
    }
    if (last_ == Last::kChar) units.set(last_unit_);
    if (negative) units.flip();
    *out = SetNode(units);
    return true;
  }

  void SetLast(char16_t unit) {
    last_ = Last::kChar;
    last_unit_ = unit;
  }
  void PushUnit(UnitSet* units, char16_t unit) {
    if (last_ == Last::kChar) units->set(last_unit_);
    SetLast(unit);
  }
  void PushClass(UnitSet* units) {
    if (last_ == Last::kChar) units->set(last_unit_);
    last_ = Last::kClass;
  }
  void AddRange(UnitSet* units, char16_t first, char16_t last) {
    if (first > last) throw RegexError("range out of order in brackets");
    for (unsigned c = first; c <= last; ++c) units->set(c);
    last_ = Last::kNone;
  }

  bool ExpressionTerm(UnitSet* units) {
    if (Match(Token::kBracketEnd)) return false;
    char16_t unit;
    if (Match(Token::kCollSymbol)) {
      const int element = CollatingElement(value_);
      if (element < 0) throw RegexError("invalid collating element in brackets");
      units->set(static_cast<size_t>(element));
      PushUnit(units, static_cast<char16_t>(element));
    } else if (Match(Token::kEquivName)) {
      PushClass(units);
      const int element = CollatingElement(value_);
      if (element < 0) throw RegexError("invalid equivalence class in brackets");
      for (unsigned c = 0; c < 0x80; ++c) {
        if (ToLower(static_cast<char16_t>(c)) == ToLower(static_cast<char16_t>(element))) {
          units->set(c);
        }
      }
    } else if (Match(Token::kClassName)) {
      PushClass(units);
      AddClass(value_, false, units);
    } else if (TryChar(&unit)) {
      PushUnit(units, unit);
    } else if (Match(Token::kBracketDash)) {
      if (Match(Token::kBracketEnd)) {
        PushUnit(units, u'-');  // "-]": a plain '-'
        return false;
      }
      if (last_ == Last::kClass) throw RegexError("a range in brackets starts at a class");
      if (last_ == Last::kChar) {
        if (TryChar(&unit)) {
          AddRange(units, last_unit_, unit);
        } else if (Match(Token::kBracketDash)) {
          AddRange(units, last_unit_, u'-');
        } else {
          throw RegexError("a range in brackets ends at a class");
        }
      } else if (ecma_) {
        PushUnit(units, u'-');
      } else {
        throw RegexError("misplaced '-' in POSIX brackets");
      }
    } else if (Match(Token::kQuotedClass)) {
      PushClass(units);
      AddClass(value_, IsUpper(value_[0]), units);
    } else {
      throw RegexError("unexpected item in brackets");
    }
    return true;
  }

  struct GroupInfo {
    std::vector<size_t> lookaheads;  // the lookaheads the group stands in
    bool open;
  };

  Scanner scanner_;
  bool ecma_;
  std::u16string value_;
  std::vector<Node> nodes_;
  std::vector<std::vector<std::pair<char16_t, char16_t>>> sets_;
  std::vector<GroupInfo> groups_;
  std::vector<bool> referenced_;
  std::vector<size_t> lookaheads_;
  size_t lookahead_count_ = 0;
  size_t depth_ = 0;
  uint64_t states_ = 0;
  // The last single unit of a bracket, which may start a range.
  enum class Last { kNone, kChar, kClass } last_ = Last::kNone;
  char16_t last_unit_ = 0;
};

void AppendHex(unsigned unit, std::string* out) {
  char digits[8];
  char* end = std::to_chars(digits, digits + sizeof digits, unit, 16).ptr;
  *out += "\\x{";
  out->append(digits, static_cast<size_t>(end - digits));
  *out += '}';
}

bool IsAsciiAlnum(unsigned c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

void AppendUnit(unsigned unit, std::string* out) {
  if (IsAsciiAlnum(unit)) {
    *out += static_cast<char>(unit);
  } else {
    AppendHex(unit, out);
  }
}

// PCRE2 takes counts up to this.
constexpr uint64_t kMaxPcreCount = 65535;

// Writes the tree as PCRE2 syntax.
class Emitter {
 public:
  explicit Emitter(const Parser& parser) : nodes_(parser.nodes()), sets_(parser.sets()) {
    // Only back-referenced groups capture; they keep their order.
    const std::vector<bool>& referenced = parser.referenced();
    numbers_.assign(referenced.size(), 0);
    for (size_t group = 1; group < referenced.size(); ++group) {
      if (referenced[group]) numbers_[group] = ++captures_;
    }
  }

  size_t captures() const { return captures_; }

  void Emit(size_t index, std::string* out) const {
    const Node& node = nodes_[index];
    switch (node.kind) {
      case Node::kChar:
        AppendUnit(node.unit, out);
        break;
      case Node::kSet:
        EmitSet(sets_[node.index], out);
        break;
      case Node::kBackref:
        *out += "\\g{" + std::to_string(numbers_[node.index]) + "}";
        break;
      case Node::kLineBegin:
        *out += "\\A";
        break;
      case Node::kLineEnd:
        *out += "\\z";
        break;
      case Node::kWordBound:
        *out += "\\b";
        break;
      case Node::kNotWordBound:
        *out += "\\B";
        break;
      case Node::kLookahead:
      case Node::kNegLookahead:
        *out += node.kind == Node::kLookahead ? "(?=" : "(?!";
        Emit(node.kids[0], out);
        *out += ")";
        break;
      case Node::kGroup:
      case Node::kNoGroup:
        *out +=
            node.kind == Node::kGroup && node.index < numbers_.size() && numbers_[node.index] != 0
                ? "("
                : "(?:";
        Emit(node.kids[0], out);
        *out += ")";
        break;
      case Node::kConcat:
        for (size_t kid : node.kids) Emit(kid, out);
        break;
      case Node::kAlt:
        for (size_t k = 0; k < node.kids.size(); ++k) {
          if (k > 0) *out += "|";
          Emit(node.kids[k], out);
        }
        break;
      case Node::kRepeat:
        EmitRepeat(node, out);
        break;
    }
  }

 private:
  void EmitSet(const std::vector<std::pair<char16_t, char16_t>>& ranges, std::string* out) const {
    if (ranges.empty() || (ranges[0].first == 0 && ranges[0].second == 0xffff)) {
      *out += ranges.empty() ? "[^\\x{0}-\\x{ffff}]" : "[\\x{0}-\\x{ffff}]";
      return;
    }
    if (ranges.size() == 1 && ranges[0].first == ranges[0].second) {
      AppendUnit(ranges[0].first, out);
      return;
    }
    // The complement, when it is shorter to write.
    std::vector<std::pair<unsigned, unsigned>> complement;
    unsigned next = 0;
    for (const auto& [first, last] : ranges) {
      if (first > next) complement.emplace_back(next, first - 1u);
      next = last + 1u;
    }
    if (next <= 0xffff) complement.emplace_back(next, 0xffffu);
    const bool negate = complement.size() < ranges.size();
    *out += negate ? "[^" : "[";
    auto append_range = [&](unsigned first, unsigned last) {
      AppendUnit(first, out);
      if (last > first + 1) *out += "-";
      if (last > first) AppendUnit(last, out);
    };
    if (negate) {
      for (const auto& [first, last] : complement) append_range(first, last);
    } else {
      for (const auto& [first, last] : ranges) append_range(first, last);
    }
    *out += "]";
  }

  void EmitAtom(size_t index, std::string* out) const {
    if (nodes_[index].kind == Node::kRepeat) {
      *out += "(?:";
      Emit(index, out);
      *out += ")";
    } else {
      Emit(index, out);
    }
  }

  static void AppendCount(uint64_t min, uint64_t max, bool infinite, bool lazy, std::string* out) {
    if (infinite && min <= 1) {
      *out += min == 0 ? "*" : "+";
    } else if (!infinite && min == 0 && max == 1) {
      *out += "?";
    } else if (infinite) {
      *out += "{" + std::to_string(min) + ",}";
    } else if (min == max) {
      *out += "{" + std::to_string(min) + "}";
    } else {
      *out += "{" + std::to_string(min) + "," + std::to_string(max) + "}";
    }
    if (lazy) *out += "?";
  }

  bool HasCapture(size_t index) const {
    const Node& node = nodes_[index];
    if (node.kind == Node::kGroup && node.index < numbers_.size() && numbers_[node.index] != 0) {
      return true;
    }
    for (size_t kid : node.kids) {
      if (HasCapture(kid)) return true;
    }
    return false;
  }

  void EmitRepeat(const Node& node, std::string* out) const {
    uint64_t min = node.min;
    uint64_t max = node.max;
    if (!node.infinite && max == 0) {
      // Matches empty text. Written out, since PCRE2 takes (?:a|\A){0}b for anchored; a
      // referenced group inside keeps its number and never takes part.
      if (HasCapture(node.kids[0])) {
        *out += "(?:(*FAIL)";
        Emit(node.kids[0], out);
        *out += ")?";
      }
      return;
    }
    // Counts beyond PCRE2's bound: only a single unit, class or reference fits the standard
    // library's state limit that often, so repeating it in pieces changes nothing.
    while (min > kMaxPcreCount) {
      EmitAtom(node.kids[0], out);
      AppendCount(kMaxPcreCount, kMaxPcreCount, false, false, out);
      min -= kMaxPcreCount;
      max -= kMaxPcreCount;
    }
    if (!node.infinite && max > kMaxPcreCount) {
      throw RegexError("not supported: a repeat count above " + std::to_string(kMaxPcreCount));
    }
    EmitAtom(node.kids[0], out);
    AppendCount(min, max, node.infinite, node.lazy, out);
  }

  const std::vector<Node>& nodes_;
  const std::vector<std::vector<std::pair<char16_t, char16_t>>>& sets_;
  std::vector<size_t> numbers_;
  size_t captures_ = 0;
};

}  // namespace

TranslatedRegex TranslateRegex(std::u16string_view pattern, RegexGrammar grammar) {
  if (pattern.size() > kMaxRegexPatternLength) {
    throw RegexError("pattern longer than " + std::to_string(kMaxRegexPatternLength) + " units");
  }
  Parser parser(pattern, grammar == RegexGrammar::kEcmaScript);
  const size_t root = parser.Parse();
  const Emitter emitter(parser);
  TranslatedRegex result;
  emitter.Emit(root, &result.pcre);
  result.capture_count = emitter.captures();
  result.tree.nodes = parser.nodes();
  result.tree.sets = parser.sets();
  result.tree.root = root;
  return result;
}

namespace {

uint64_t SaturatedAdd(uint64_t a, uint64_t b) {
  return a > LengthRange::kUnbounded - b ? LengthRange::kUnbounded : a + b;
}
uint64_t SaturatedTimes(uint64_t a, uint64_t b) {
  return a != 0 && b > LengthRange::kUnbounded / a ? LengthRange::kUnbounded : a * b;
}

LengthRange LengthsFrom(const RegexTree& tree, size_t index) {
  const RegexNode& node = tree.nodes[index];
  switch (node.kind) {
    case RegexNode::kChar:
    case RegexNode::kSet:
      return {1, 1};
    case RegexNode::kGroup:
    case RegexNode::kNoGroup:
      return LengthsFrom(tree, node.kids[0]);
    case RegexNode::kConcat: {
      LengthRange sum;
      for (const size_t kid : node.kids) {
        const LengthRange range = LengthsFrom(tree, kid);
        sum = {SaturatedAdd(sum.least, range.least), SaturatedAdd(sum.most, range.most)};
      }
      return sum;
    }
    case RegexNode::kAlt: {
      if (node.kids.empty()) return {0, 0};
      LengthRange all = {LengthRange::kUnbounded, 0};
      for (const size_t kid : node.kids) {
        const LengthRange range = LengthsFrom(tree, kid);
        all = {std::min(all.least, range.least), std::max(all.most, range.most)};
      }
      return all;
    }
    case RegexNode::kRepeat: {
      const LengthRange once = LengthsFrom(tree, node.kids[0]);
      return {SaturatedTimes(once.least, node.min),
              node.infinite ? (once.most == 0 ? 0 : LengthRange::kUnbounded)
                            : SaturatedTimes(once.most, node.max)};
    }
    case RegexNode::kLineBegin:
    case RegexNode::kLineEnd:
    case RegexNode::kWordBound:
    case RegexNode::kNotWordBound:
    case RegexNode::kLookahead:
    case RegexNode::kNegLookahead:
      return {0, 0};
    default:  // a back-reference matches what its group did: any length
      return {0, LengthRange::kUnbounded};
  }
}

// The texts `index` matches, into `*out`, within the bounds of FiniteMatches.
class FiniteTexts {
 public:
  FiniteTexts(const RegexTree& tree, size_t most, size_t most_units)
      : tree_(tree), most_(most), most_units_(most_units) {}

  bool From(size_t index, std::vector<std::u16string>* out) const {
    const RegexNode& node = tree_.nodes[index];
    switch (node.kind) {
      case RegexNode::kChar:
        *out = {std::u16string(1, node.unit)};
        return true;
      case RegexNode::kSet: {
        out->clear();
        for (const auto& [first, last] : tree_.sets[node.index]) {
          for (uint32_t unit = first; unit <= last; ++unit) {
            if (out->size() == most_) return false;
            out->emplace_back(1, static_cast<char16_t>(unit));
          }
        }
        return true;
      }
      case RegexNode::kGroup:
      case RegexNode::kNoGroup:
        return From(node.kids[0], out);
      case RegexNode::kConcat:
        *out = {std::u16string()};
        for (const size_t kid : node.kids) {
          const RegexNode& part = tree_.nodes[kid];
          if (part.kind == RegexNode::kChar) {
            if (!Extend(std::u16string_view(&part.unit, 1), out)) return false;
            continue;
          }
          std::vector<std::u16string> next;
          if (!From(kid, &next) || !Append(next, out)) return false;
        }
        return true;
      case RegexNode::kAlt: {
        out->clear();
        if (node.kids.empty()) return false;
        for (const size_t kid : node.kids) {
          std::vector<std::u16string> next;
          if (!From(kid, &next) || out->size() + next.size() > most_) return false;
          out->insert(out->end(), next.begin(), next.end());
        }
        return true;
      }
      case RegexNode::kRepeat: {
        std::vector<std::u16string> once;
        if (node.infinite || node.max > most_units_ || !From(node.kids[0], &once)) return false;
        // The texts of min copies, then of each further copy up to max.
        *out = {std::u16string()};
        for (uint64_t i = 0; i < node.min; ++i) {
          if (!Append(once, out)) return false;
        }
        std::vector<std::u16string> longer = *out;
        for (uint64_t i = node.min; i < node.max; ++i) {
          if (!Append(once, &longer) || out->size() + longer.size() > most_) return false;
          out->insert(out->end(), longer.begin(), longer.end());
        }
        return true;
      }
      default:  // anchors, word bounds, lookaheads, back-references
        return false;
    }
  }

 private:
  // `*texts` followed by each of `next`.
  bool Append(const std::vector<std::u16string>& next, std::vector<std::u16string>* texts) const {
    if (texts->size() * next.size() > most_) return false;
    if (next.size() == 1) return Extend(next[0], texts);
    std::vector<std::u16string> joined;
    joined.reserve(texts->size() * next.size());
    for (const std::u16string& text : *texts) {
      for (const std::u16string& tail : next) {
        if (text.size() + tail.size() > most_units_) return false;
        joined.push_back(text + tail);
      }
    }
    texts->swap(joined);
    return true;
  }

  // Each of `*texts` followed by `tail`, where it stands: most steps of a literal rule.
  bool Extend(std::u16string_view tail, std::vector<std::u16string>* texts) const {
    for (std::u16string& text : *texts) {
      if (text.size() + tail.size() > most_units_) return false;
      text += tail;
    }
    return true;
  }

  const RegexTree& tree_;
  size_t most_;
  size_t most_units_;
};

// The text `index` matches when it matches one text only and reads a unit wherever it moves
// (no anchor, bound or lookahead); nothing otherwise, or when that text would be long.
std::optional<std::u16string> OnlyTextFrom(const RegexTree& tree, size_t index) {
  constexpr size_t kMostUnits = 4096;
  const RegexNode& node = tree.nodes[index];
  switch (node.kind) {
    case RegexNode::kChar:
      return std::u16string(1, node.unit);
    case RegexNode::kSet: {
      const auto& ranges = tree.sets[node.index];
      if (ranges.size() != 1 || ranges[0].first != ranges[0].second) return std::nullopt;
      return std::u16string(1, ranges[0].first);
    }
    case RegexNode::kGroup:
    case RegexNode::kNoGroup:
      return OnlyTextFrom(tree, node.kids[0]);
    case RegexNode::kConcat: {
      std::u16string all;
      for (const size_t kid : node.kids) {
        const std::optional<std::u16string> text = OnlyTextFrom(tree, kid);
        if (!text.has_value() || all.size() + text->size() > kMostUnits) return std::nullopt;
        all += *text;
      }
      return all;
    }
    case RegexNode::kAlt:
      if (node.kids.size() != 1) return std::nullopt;
      return OnlyTextFrom(tree, node.kids[0]);
    case RegexNode::kRepeat: {
      if (node.infinite || node.min != node.max) return std::nullopt;
      const std::optional<std::u16string> once = OnlyTextFrom(tree, node.kids[0]);
      if (!once.has_value() || (!once->empty() && node.min > kMostUnits / once->size())) {
        return std::nullopt;
      }
      std::u16string all;
      for (uint64_t i = 0; i < node.min; ++i) all += *once;
      return all;
    }
    default:
      return std::nullopt;
  }
}

bool ContainsFrom(const RegexTree& tree, size_t index, std::u16string_view text) {
  const RegexNode& node = tree.nodes[index];
  switch (node.kind) {
    case RegexNode::kGroup:
    case RegexNode::kNoGroup:
      return ContainsFrom(tree, node.kids[0], text);
    case RegexNode::kConcat: {
      // Runs of kids that match one text each are read together: a text may span them.
      std::u16string run;
      for (const size_t kid : node.kids) {
        const std::optional<std::u16string> only = OnlyTextFrom(tree, kid);
        if (only.has_value()) {
          run += *only;
          continue;
        }
        if (run.find(text) != std::u16string::npos || ContainsFrom(tree, kid, text)) return true;
        run.clear();
      }
      return run.find(text) != std::u16string::npos;
    }
    case RegexNode::kAlt:
      if (node.kids.empty()) return false;
      for (const size_t kid : node.kids) {
        if (!ContainsFrom(tree, kid, text)) return false;
      }
      return true;
    case RegexNode::kRepeat:
      if (node.min >= 1 && ContainsFrom(tree, node.kids[0], text)) return true;
      [[fallthrough]];
    default: {
      const std::optional<std::u16string> only = OnlyTextFrom(tree, index);
      return only.has_value() && only->find(text) != std::u16string::npos;
    }
  }
}

}  // namespace

LengthRange MatchLengths(const RegexTree& tree) { return LengthsFrom(tree, tree.root); }

bool AlwaysContains(const RegexTree& tree, std::u16string_view text) {
  return text.empty() || ContainsFrom(tree, tree.root, text);
}

bool FiniteMatches(const RegexTree& tree, size_t most, size_t most_units,
                   std::vector<std::u16string>* texts) {
  return FiniteTexts(tree, most, most_units).From(tree.root, texts);
}

}  // namespace rulenlu
