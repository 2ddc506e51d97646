// A deterministic automaton that tells which of many POSIX patterns is the first to match a
// whole text, in one pass over the text. Internal to the regex backend.
#ifndef RULENLU_NLU_REGEX_AUTOMATON_H_
#define RULENLU_NLU_REGEX_AUTOMATON_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "nlu/regex_translate.h"

namespace rulenlu {

class RuleAutomaton {
 public:
  static constexpr size_t kNoMatch = SIZE_MAX;

  // The automaton of `patterns` (whole matches of the POSIX trees; a null entry takes no part),
  // or nothing when a pattern holds what an automaton cannot decide (a back-reference, a word
  // boundary or a lookahead) or when the automaton would need more than `max_cells`
  // transitions.
  static std::optional<RuleAutomaton> Build(const std::vector<const RegexTree*>& patterns,
                                            size_t max_cells);

  // False when no pattern matches a text that begins with `unit`.
  bool MayBeginWith(char16_t unit) const { return Step(kStart, unit) != kDead; }

  // The lowest index of a pattern that matches the whole of `text`, or kNoMatch.
  size_t FirstFullMatch(std::u16string_view text) const {
    uint32_t state = kStart;
    for (const char16_t unit : text) {
      state = Step(state, unit);
      if (state == kDead) return kNoMatch;
    }
    return accepts_[state];
  }

 private:
  static constexpr uint32_t kDead = 0;
  static constexpr uint32_t kStart = 1;

  RuleAutomaton() = default;

  uint32_t Step(uint32_t state, char16_t unit) const {
    return next_[state * classes_ + blocks_[block_of_[unit >> 8] + (unit & 0xff)]];
  }

  // A unit's class: blocks_[block_of_[unit >> 8] + (unit & 0xff)]. Units of one class are
  // alike to every pattern; blocks of 256 units that are alike are stored once.
  std::vector<uint32_t> block_of_;
  std::vector<uint16_t> blocks_;
  size_t classes_ = 0;
  // Per state and class, the next state; per state, the pattern it accepts at the text's end.
  std::vector<uint32_t> next_;
  std::vector<size_t> accepts_;
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_REGEX_AUTOMATON_H_
