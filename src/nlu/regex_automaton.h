// Deterministic automata over a pattern's expression tree, each answering one question in one
// pass over the text: which of many POSIX patterns is the first to match a whole text, and
// where in a text matches of many ECMAScript patterns begin. Internal to the regex backend.
#ifndef RULENLU_NLU_REGEX_AUTOMATON_H_
#define RULENLU_NLU_REGEX_AUTOMATON_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "nlu/regex_translate.h"

namespace rulenlu {

// Units sorted into the classes that some patterns cannot tell apart.
class UnitClasses {
 public:
  uint32_t operator()(char16_t unit) const { return blocks_[block_of_[unit >> 8] + (unit & 0xff)]; }
  size_t size() const { return count_; }

 private:
  friend class AutomatonBuilder;
  // Blocks of 256 units that are alike are stored once.
  std::vector<uint32_t> block_of_;
  std::vector<uint16_t> blocks_;
  size_t count_ = 0;
};

class RuleAutomaton {
 public:
  static constexpr size_t kNoMatch = SIZE_MAX;

  // The automaton of `patterns` (whole matches of the POSIX trees; a null entry takes no part),
  // or nothing when a pattern holds what an automaton cannot decide (a back-reference, a word
  // boundary or a lookahead) or when the automaton would be too large (more than `max_cells`
  // transitions, or patterns too long together).
  static std::optional<RuleAutomaton> Build(const std::vector<const RegexTree*>& patterns,
                                            size_t max_cells);

  // The length of the longest prefix of `text` that some whole match of a pattern begins with.
  size_t LivePrefix(std::u16string_view text) const {
    uint32_t row = start_row_;
    for (size_t i = 0; i < text.size(); ++i) {
      row = Step(row, text[i]);
      if (row == kDeadRow) return i;
    }
    return text.size();
  }

  // The lowest index of a pattern that matches the whole of `text`, or kNoMatch.
  size_t FirstFullMatch(std::u16string_view text) const {
    uint32_t row = start_row_;
    for (const char16_t unit : text) {
      row = Step(row, unit);
      if (row == kDeadRow) return kNoMatch;
    }
    return accepts_[row / classes_.size()];
  }

 private:
  static constexpr uint32_t kDead = 0;
  static constexpr uint32_t kStart = 1;
  static constexpr uint32_t kDeadRow = 0;

  friend class AutomatonBuilder;
  RuleAutomaton() = default;

  // States are named by where their rows start in next_: a step is one load, with no
  // multiplication on the path from one unit to the next.
  uint32_t Step(uint32_t row, char16_t unit) const { return next_[row + classes_(unit)]; }

  UnitClasses classes_;
  // Per state and class, the next state's row; per state, the pattern it accepts at the text's
  // end.
  std::vector<uint32_t> next_;
  uint32_t start_row_ = 0;
  std::vector<size_t> accepts_;
};

class SearchAutomaton {
 public:
  static constexpr size_t kMaxPatterns = 64;

  // The automaton of up to kMaxPatterns ECMAScript `patterns`, or nothing when a pattern holds
  // what an automaton cannot decide (a back-reference or a lookahead) or when it would be too
  // large (more than `max_cells` transitions, or patterns too long together).
  static std::optional<SearchAutomaton> Build(const std::vector<const RegexTree*>& patterns,
                                              size_t max_cells);

  // Where matches begin: (*starts)[i], for every offset i from 0 to text.size(), gets the
  // patterns (bit p: patterns[p]) with a match in `text` that begins at i, `^` holding only at
  // the text's start and `\b` reading the units around. Returns the patterns with a match
  // anywhere.
  uint64_t Starts(std::u16string_view text, std::vector<uint64_t>* starts) const {
    starts->resize(text.size() + 1);
    uint64_t any = 0;
    uint32_t row = kStart;  // the start state's row begins at 0
    for (size_t i = text.size(); i > 0; --i) {
      const size_t cell = row + classes_(text[i - 1]);
      any |= (*starts)[i] = found_before_[cell];
      row = next_[cell];
    }
    return any | ((*starts)[0] = found_at_start_[row / classes_.size()]);
  }

  // Units that \b counts as parts of words: ASCII letters, digits and the underscore.
  static bool IsWordUnit(char16_t unit) {
    return (unit >= u'0' && unit <= u'9') || (unit >= u'A' && unit <= u'Z') ||
           (unit >= u'a' && unit <= u'z') || unit == u'_';
  }

 private:
  friend class AutomatonBuilder;
  static constexpr uint32_t kStart = 0;

  SearchAutomaton() = default;

  UnitClasses classes_;
  // The text is read backwards. Per state and class: the next state's row (where its row starts
  // in next_, as in RuleAutomaton), and the patterns a match of which begins just after the
  // unit; per state, those a match of which begins at the text's start.
  std::vector<uint32_t> next_;
  std::vector<uint64_t> found_before_;
  std::vector<uint64_t> found_at_start_;
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_REGEX_AUTOMATON_H_
