// Reads a pattern exactly as the standard library's std::wregex compiler does (libstdc++ 12,
// strict ISO mode, classic "C" rules, one UTF-16 unit per element) and writes the same
// expression in PCRE2's syntax for its 16-bit library without UTF: explicit classes, \A and \z
// anchors, \x{h} escapes, no option-dependent construct. Internal to the regex backend.
#ifndef RULENLU_NLU_REGEX_TRANSLATE_H_
#define RULENLU_NLU_REGEX_TRANSLATE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nlu/regex.h"

namespace rulenlu {

// NFA states the standard library allows in one compiled expression.
inline constexpr size_t kStdRegexStateLimit = 100000;

// One element of a pattern's expression tree.
struct RegexNode {
  enum Kind : uint8_t {
    kChar,
    kSet,
    kBackref,
    kLineBegin,
    kLineEnd,
    kWordBound,
    kNotWordBound,
    kLookahead,
    kNegLookahead,
    kGroup,
    kNoGroup,
    kConcat,
    kAlt,
    kRepeat
  };
  explicit RegexNode(Kind node_kind) : kind(node_kind) {}
  Kind kind;
  char16_t unit = 0;  // kChar
  size_t index = 0;   // kSet: set number; kGroup, kBackref: group number
  uint64_t min = 0;   // kRepeat
  uint64_t max = 0;   // kRepeat, when not `infinite`
  bool infinite = false;
  bool lazy = false;
  uint64_t reach = 0;  // NFA states a copy of this expression takes in the standard library
  std::vector<size_t> kids;
};

// A pattern as the standard library reads it: nodes[root] is the whole expression; a kSet
// node matches one unit in one of the ranges sets[index] (inclusive; none: nothing).
struct RegexTree {
  std::vector<RegexNode> nodes;
  std::vector<std::vector<std::pair<char16_t, char16_t>>> sets;
  size_t root = 0;
};

// The lengths, in units, of the texts a tree can match.
struct LengthRange {
  static constexpr uint64_t kUnbounded = UINT64_MAX;
  uint64_t least = 0;
  uint64_t most = 0;  // kUnbounded: no bound
};

// Bounds on the length of every text `tree` matches whole: none is shorter than `least` or
// longer than `most` (a back-reference counts as any length).
LengthRange MatchLengths(const RegexTree& tree);

// True when every text `tree` matches whole contains `text`; false when some does not, or when
// that is not known.
bool AlwaysContains(const RegexTree& tree, std::u16string_view text);

// Sets `*texts` to every text that `tree` matches whole (in no particular order, perhaps with
// repeats) and returns true, when there are at most `most` of them, each at most
// `most_units` long; otherwise returns false. Trees with anchors, word bounds, lookaheads or
// back-references give false.
bool FiniteMatches(const RegexTree& tree, size_t most, size_t most_units,
                   std::vector<std::u16string>* texts);

struct TranslatedRegex {
  std::string pcre;          // ASCII PCRE2 pattern, unanchored; matches what `pattern` matches
  size_t capture_count = 0;  // capturing groups kept in `pcre` (only back-referenced ones)
  RegexTree tree;
};

// Translates `pattern`. Throws RegexError, with a reason, for every pattern the standard library
// rejects (including those over its kStdRegexStateLimit automaton states), for patterns beyond
// kMaxRegexPatternLength or kMaxRegexNesting, and for the two ECMAScript constructs whose
// standard behaviour PCRE2 cannot reproduce: `^`, `\b` or `\B` inside a lookahead, and a
// back-reference to a group inside a lookahead it is not itself in. The result may still be too
// large or too deeply nested for PCRE2 to compile; the caller reports that.
TranslatedRegex TranslateRegex(std::u16string_view pattern, RegexGrammar grammar);

}  // namespace rulenlu

#endif  // RULENLU_NLU_REGEX_TRANSLATE_H_
