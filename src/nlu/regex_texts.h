// Whole texts that rules match, looked up at once: rules whose matches are a few known texts
// need no matcher. Internal to the regex backend.
#ifndef RULENLU_NLU_REGEX_TEXTS_H_
#define RULENLU_NLU_REGEX_TEXTS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rulenlu {

class RuleTexts {
 public:
  static constexpr size_t kNoMatch = SIZE_MAX;

  RuleTexts() = default;
  // Each entry: a text and the rule that matches it (rules below UINT32_MAX).
  explicit RuleTexts(std::vector<std::pair<std::u16string, uint32_t>> texts);

  bool empty() const { return entries_.empty(); }

  // The lowest rule given with `text`, or kNoMatch.
  size_t Find(std::u16string_view text) const;

  // The length of the longest prefix of `text` that some text given begins with.
  size_t LivePrefix(std::u16string_view text) const;

 private:
  // Where `text` falls among the texts: the entry equal to it (or entries_.size()), and the
  // longest prefix of `text` that some text begins with.
  std::pair<size_t, size_t> Locate(std::u16string_view text) const;

  // The texts in order, each stored as the units it does not share with the one before; every
  // kBlock-th one whole, so that a lookup can begin there.
  struct Entry {
    uint32_t begin;   // of its own units in units_; they end where the next entry's begin
    uint32_t shared;  // leading units shared with the text before (0 at a block's start)
    uint32_t rule;
  };
  static constexpr size_t kBlock = 16;
  std::u16string_view Units(size_t entry) const;
  std::vector<Entry> entries_;
  std::u16string units_;
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_REGEX_TEXTS_H_
