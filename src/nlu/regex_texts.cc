#include "nlu/regex_texts.h"

#include <algorithm>

namespace rulenlu {
namespace {

size_t CommonLength(std::u16string_view a, std::u16string_view b) {
  const size_t most = std::min(a.size(), b.size());
  size_t n = 0;
  while (n < most && a[n] == b[n]) ++n;
  return n;
}

}  // namespace

RuleTexts::RuleTexts(std::vector<std::pair<std::u16string, uint32_t>> texts) {
  std::sort(texts.begin(), texts.end());
  const std::u16string* previous = nullptr;
  for (const auto& [text, rule] : texts) {
    if (previous != nullptr && *previous == text) continue;  // a later rule of the same text
    const size_t shared =
        previous == nullptr || entries_.size() % kBlock == 0 ? 0 : CommonLength(*previous, text);
    entries_.push_back({static_cast<uint32_t>(units_.size()), static_cast<uint32_t>(shared), rule});
    units_.append(text, shared, std::u16string::npos);
    previous = &text;
  }
  entries_.shrink_to_fit();
  units_.shrink_to_fit();
}

std::u16string_view RuleTexts::Units(size_t entry) const {
  const size_t end = entry + 1 < entries_.size() ? entries_[entry + 1].begin : units_.size();
  return std::u16string_view(units_).substr(entries_[entry].begin, end - entries_[entry].begin);
}

std::pair<size_t, size_t> RuleTexts::Locate(std::u16string_view text) const {
  const size_t none = entries_.size();
  if (entries_.empty()) return {none, 0};
  // The last block whose first text is not above `text`. Between two sorted texts, a text
  // shares with `text` at least as much as both bounds do: comparisons skip that much.
  size_t low = 0, high = (entries_.size() + kBlock - 1) / kBlock;
  size_t low_common = CommonLength(Units(0), text), high_common = 0;
  const auto not_above = [&](std::u16string_view first, size_t common) {
    return common == first.size() || (common < text.size() && first[common] < text[common]);
  };
  bool low_not_above = not_above(Units(0), low_common);
  while (high - low > 1) {
    const size_t middle = (low + high) / 2;
    const std::u16string_view first = Units(middle * kBlock);
    const size_t skip = std::min(low_common, high_common);
    const size_t common = skip + CommonLength(first.substr(skip), text.substr(skip));
    if (not_above(first, common)) {
      low = middle, low_common = common, low_not_above = true;
    } else {
      high = middle, high_common = common;
    }
  }
  size_t entry = low * kBlock;
  size_t common = low_common;
  if (!low_not_above) return {none, common};  // before every text
  // Going on through the block, `common` is what the current text shares with `text`, which
  // it does not follow.
  const size_t end = std::min(entries_.size(), entry + kBlock);
  for (;;) {
    if (common == text.size() && common == entries_[entry].shared + Units(entry).size()) {
      return {entry, common};
    }
    if (entry + 1 == end) break;
    const size_t shared = entries_[entry + 1].shared;
    if (shared > common) {  // the next text is still before `text`, and shares as much
      ++entry;
      continue;
    }
    if (shared < common) return {none, common};  // the next one is after `text`: shares less
    const std::u16string_view own = Units(entry + 1);
    const size_t more = CommonLength(own, text.substr(common));
    const bool after =
        more < own.size() && (common + more == text.size() || own[more] > text[common + more]);
    if (after) return {none, common + more};
    ++entry;
    common += more;
  }
  // Past the block's last text: the next block's first text follows `text`.
  if (end < entries_.size()) common = std::max(common, CommonLength(Units(end), text));
  return {none, common};
}

size_t RuleTexts::Find(std::u16string_view text) const {
  const size_t entry = Locate(text).first;
  return entry < entries_.size() ? entries_[entry].rule : kNoMatch;
}

size_t RuleTexts::LivePrefix(std::u16string_view text) const { return Locate(text).second; }

}  // namespace rulenlu
