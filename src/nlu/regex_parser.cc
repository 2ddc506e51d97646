#include "nlu/regex_parser.h"

#include <algorithm>
#include <set>
#include <utility>

#include "base/error.h"
#include "base/text.h"

namespace rulenlu {
namespace {

// A tag combination: positions in the sorted tag list, each tag starting after the previous
// one ends.
using Combination = std::vector<uint32_t>;

// Negative, zero or positive as `a` comes before, with or after `b` in combination order.
int CompareTags(const SlotMatch& a, const SlotMatch& b) {
  const int by_key = a.key.compare(b.key);  // char_traits<char> compares bytes as unsigned
  if (by_key != 0) return by_key;
  return a.value.compare(b.value);
}

// Orders combinations lexicographically, tag by tag, a prefix first. Where a tag stands takes
// no part, so combinations differing only in the places of equal tags are equal.
class CombinationLess {
 public:
  explicit CombinationLess(const std::vector<SlotMatch>* tags) : tags_(tags) {}
  bool operator()(const Combination& a, const Combination& b) const {
    const std::vector<SlotMatch>& tags = *tags_;
    const size_t common = std::min(a.size(), b.size());
    for (size_t i = 0; i < common; ++i) {
      if (a[i] == b[i]) continue;
      const int order = CompareTags(tags[a[i]], tags[b[i]]);
      if (order != 0) return order < 0;
    }
    return a.size() < b.size();
  }

 private:
  const std::vector<SlotMatch>* tags_;
};
using CombinationSet = std::set<Combination, CombinationLess>;

// Adds to `*next` `combination` followed by each tag of `tags` that starts after the
// combination's last tag ends. Returns true when no tag may follow.
bool ExtendCombination(const std::vector<SlotMatch>& tags, const Combination& combination,
                       CombinationSet* next) {
  const SlotMatch& last = tags[combination.back()];
  // Unsigned on purpose: a tag of length 0 at offset 0 lets nothing follow it.
  const uint32_t last_unit =
      static_cast<uint32_t>(last.start) + static_cast<uint32_t>(last.length) - 1u;
  bool nothing_added = true;
  Combination extension(combination);
  extension.push_back(0);
  for (uint32_t i = 0; i < tags.size(); ++i) {
    if (static_cast<uint32_t>(tags[i].start) <= last_unit) continue;
    extension.back() = i;
    // Copied only when new: repeated equal tags make most extensions duplicates.
    const auto at = next->lower_bound(extension);
    if (at == next->end() || next->key_comp()(extension, *at)) next->emplace_hint(at, extension);
    nothing_added = false;
  }
  return nothing_added;
}

// The combinations of the sorted `tags` in CombinationLess order, up to `limit` as Parse says.
std::vector<Combination> BuildCombinations(const std::vector<SlotMatch>& tags, size_t limit) {
  const CombinationLess less(&tags);
  CombinationSet generation(less);
  for (uint32_t i = 0; i < tags.size(); ++i) generation.insert(Combination{i});
  // Generations differ in length, so no combination is in two of them: collecting them in a
  // list and sorting it once gives the same order as one set.
  std::vector<Combination> all(generation.begin(), generation.end());

  while (all.size() < limit) {
    CombinationSet next(less);
    bool extended = false;
    for (const Combination& combination : generation) {
      if (!ExtendCombination(tags, combination, &next)) extended = true;
      // Crossing the limit also ends the growth: the loop condition fails from here on.
      if (all.size() + next.size() > limit) break;
    }
    all.insert(all.end(), next.begin(), next.end());
    generation = std::move(next);
    if (!extended) break;
  }

  std::sort(all.begin(), all.end(), less);
  return all;
}

// "<" key ">" in UTF-16. Throws ConversionError when `key` is not UTF-8.
std::u16string MakeMarker(const std::string& key) {
  std::u16string marker = u"<";
  AppendUtf8ToUtf16(key, &marker);
  marker.push_back(u'>');
  return marker;
}

constexpr uint32_t kNoKey = UINT32_MAX;

}  // namespace

RegexParser::RegexParser(const std::map<std::string, IntentConfig>& intent_map,
                         size_t max_combinations)
    : max_combinations_(max_combinations) {
  for (const auto& [name, intent] : intent_map) {
    for (const auto& slot : intent.slots) {
      if (!key_index_.emplace(slot.second, static_cast<uint32_t>(markers_.size())).second) {
        continue;
      }
      try {
        markers_.push_back(MakeMarker(slot.second));
      } catch (const ConversionError&) {
        markers_.push_back(std::nullopt);
      }
    }
  }

  intents_.reserve(intent_map.size());
  for (const auto& [name, config] : intent_map) {
    Intent& intent = intents_.emplace_back();
    intent.name = name;
    intent.accepts.assign(markers_.size(), false);
    for (const auto& slot : config.slots) intent.accepts[key_index_.at(slot.second)] = true;
    intent.rules.reserve(config.regexRules.size());
    for (const std::u16string& rule : config.regexRules) {
      Rule& compiled = intent.rules.emplace_back();
      try {
        compiled.regex.emplace(rule, RegexGrammar::kPosixExtended);
      } catch (const RegexError& e) {
        compiled.error = e.what();  // reported only when a query tries the rule
      }
    }
  }
}

std::vector<IntentCandidate> RegexParser::Parse(const std::u16string& query,
                                                std::vector<SlotMatch> tags) const {
  std::stable_sort(tags.begin(), tags.end(),
                   [](const SlotMatch& a, const SlotMatch& b) { return CompareTags(a, b) < 0; });
  std::vector<uint32_t> keys;  // per tag: index of its key among the named keys, or kNoKey
  keys.reserve(tags.size());
  for (size_t i = 0; i < tags.size(); ++i) {
    if (i > 0 && tags[i].key == tags[i - 1].key) {  // sorted: equal keys are neighbours
      keys.push_back(keys.back());
      continue;
    }
    const auto found = key_index_.find(tags[i].key);
    keys.push_back(found == key_index_.end() ? kNoKey : found->second);
  }

  std::vector<IntentCandidate> candidates;
  std::u16string rewritten;
  RegexSubject subject;
  for (const Combination& combination : BuildCombinations(tags, max_combinations_)) {
    // The rewritten query depends only on the combination: built for the first intent that
    // accepts the combination and reused for the others.
    bool built = false;
    for (const Intent& intent : intents_) {
      const bool accepted = std::all_of(combination.begin(), combination.end(), [&](uint32_t t) {
        return keys[t] != kNoKey && intent.accepts[keys[t]];
      });
      if (!accepted) continue;
      if (!built) {
        rewritten.clear();
        size_t pos = 0;
        for (uint32_t t : combination) {
          const size_t start = static_cast<uint32_t>(tags[t].start);
          // Overlapping tags are never combined; the check keeps text from being copied back.
          if (pos < start) rewritten.append(query, pos, start - pos);
          // A key that Init could not convert throws here, when a query needs it.
          rewritten.append(keys[t] != kNoKey && markers_[keys[t]].has_value()
                               ? *markers_[keys[t]]
                               : MakeMarker(tags[t].key));
          pos = start + static_cast<uint32_t>(tags[t].length);
        }
        if (pos < query.size()) rewritten.append(query, pos);
        subject.Assign(rewritten);
        built = true;
      }
      for (const Rule& rule : intent.rules) {
        if (!rule.regex.has_value()) throw RegexError(rule.error);
        if (!rule.regex->FullMatch(subject)) continue;
        IntentCandidate& candidate = candidates.emplace_back();
        candidate.intent = intent.name;
        candidate.text = query;
        candidate.slots.reserve(combination.size());
        for (uint32_t t : combination) candidate.slots.push_back(tags[t]);
        break;
      }
    }
  }
  return candidates;
}

}  // namespace rulenlu
