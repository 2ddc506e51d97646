#include "nlu/regex_parser.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "engine/log.h"
#include "engine/text.h"

namespace rulenlu {
namespace {

// Negative, zero or positive as `a` comes before, with or after `b` in combination order.
int CompareTags(const SlotMatch& a, const SlotMatch& b) {
  const int by_key = a.key.compare(b.key);  // char_traits<char> compares bytes as unsigned
  if (by_key != 0) return by_key;
  return a.value.compare(b.value);
}

// "<" key ">" in UTF-16. Throws std::range_error("bad conversion") when `key` is not UTF-8.
std::u16string MakeMarker(const std::string& key) {
  std::u16string marker = u"<";
  AppendUtf8ToUtf16(key, &marker);
  marker.push_back(u'>');
  return marker;
}

}  // namespace

bool RegexParser::CombinationLess::operator()(const Combination& a, const Combination& b) const {
  const std::vector<SlotMatch>& tags = *tags_;
  const size_t common = std::min(a.size(), b.size());
  for (size_t i = 0; i < common; ++i) {
    if (a[i] == b[i]) continue;
    const int order = CompareTags(tags[a[i]], tags[b[i]]);
    if (order != 0) return order < 0;
  }
  return a.size() < b.size();
}

RegexParser::RegexParser(size_t maxCombinations) : maxCombinations(maxCombinations) {}

void RegexParser::Init(const std::map<std::string, IntentConfig>& intent_map) {
  intentMap = intent_map;
  key_index_.clear();
  markers_.clear();
  intents_.clear();

  for (const auto& [name, intent] : intentMap) {
    for (const auto& slot : intent.slots) {
      if (!key_index_.emplace(slot.second, static_cast<uint32_t>(markers_.size())).second) {
        continue;
      }
      try {
        markers_.push_back(MakeMarker(slot.second));
      } catch (const std::range_error&) {
        markers_.push_back(std::nullopt);
      }
    }
  }

  intents_.reserve(intentMap.size());
  for (const auto& [name, config] : intentMap) {
    Intent intent;
    intent.accepts.assign(markers_.size(), false);
    for (const auto& slot : config.slots) intent.accepts[key_index_.at(slot.second)] = true;
    intent.rules.reserve(config.regexRules.size());
    for (const std::u16string& rule : config.regexRules) {
      Rule compiled;
      try {
        compiled.regex.emplace(rule, RegexGrammar::kPosixExtended);
      } catch (const RegexError& e) {
        compiled.error = e.what();  // reported only when a query tries the rule
      }
      intent.rules.push_back(std::move(compiled));
    }
    intents_.push_back(std::move(intent));
  }
}

std::vector<IntentCandidate> RegexParser::Process(const std::u16string& query,
                                                  std::vector<SlotMatch> tags, int& status) const {
  try {
    const SortedTags sorted = SortTags(std::move(tags));
    const std::vector<Combination> combinations = BuildCombinations(sorted.tags);
    std::vector<IntentCandidate> candidates;
    RegexSubject subject;
    for (const Combination& combination : combinations) {
      // The rewritten query depends only on the combination: build it for the first intent
      // that accepts the combination and reuse it for the others.
      bool rewritten = false;
      size_t intent = 0;
      for (auto it = intentMap.begin(); it != intentMap.end(); ++it, ++intent) {
        if (!CheckSlots(sorted, combination, intent)) continue;
        if (!rewritten) {
          subject.Assign(BuildTaggedQuery(query, sorted, combination));
          rewritten = true;
        }
        const size_t rule_count = intents_[intent].rules.size();
        for (size_t rule = 0; rule < rule_count; ++rule) {
          if (!MatchRule(subject, intent, rule)) continue;
          IntentCandidate& candidate = candidates.emplace_back();
          candidate.intent = it->first;
          candidate.text = query;
          candidate.slots.reserve(combination.size());
          for (uint32_t tag : combination) candidate.slots.push_back(sorted.tags[tag]);
          break;
        }
      }
    }
    return candidates;
  } catch (...) {
    LogLine(LogStream::kStderr, {"regex parser process exception!"});
    status = kStatusParserFailed;
    return {};
  }
}

RegexParser::SortedTags RegexParser::SortTags(std::vector<SlotMatch> tags) const {
  std::stable_sort(tags.begin(), tags.end(),
                   [](const SlotMatch& a, const SlotMatch& b) { return CompareTags(a, b) < 0; });
  SortedTags sorted;
  sorted.keys.reserve(tags.size());
  for (size_t i = 0; i < tags.size(); ++i) {
    if (i > 0 && tags[i].key == tags[i - 1].key) {  // sorted: equal keys are neighbours
      sorted.keys.push_back(sorted.keys.back());
      continue;
    }
    const auto found = key_index_.find(tags[i].key);
    sorted.keys.push_back(found == key_index_.end() ? kNoKey : found->second);
  }
  sorted.tags = std::move(tags);
  return sorted;
}

std::vector<RegexParser::Combination> RegexParser::BuildCombinations(
    const std::vector<SlotMatch>& sortedTags) const {
  const CombinationLess less(&sortedTags);
  CombinationSet generation(less);
  for (uint32_t i = 0; i < sortedTags.size(); ++i) generation.insert(Combination{i});
  // Generations differ in length, so no combination is in two of them: collecting them in a
  // list and sorting it once gives the same order as one set.
  std::vector<Combination> all(generation.begin(), generation.end());

  while (all.size() < maxCombinations) {
    CombinationSet next(less);
    bool extended = false;
    for (const Combination& combination : generation) {
      if (!ExtendCombination(sortedTags, combination, &next)) extended = true;
      // Crossing the limit also ends the growth: the loop condition fails from here on.
      if (all.size() + next.size() > maxCombinations) break;
    }
    all.insert(all.end(), next.begin(), next.end());
    generation = std::move(next);
    if (!extended) break;
  }

  std::sort(all.begin(), all.end(), less);
  return all;
}

bool RegexParser::ExtendCombination(const std::vector<SlotMatch>& sortedTags,
                                    const Combination& combination, CombinationSet* next) {
  if (combination.empty()) return true;
  const SlotMatch& last = sortedTags[combination.back()];
  // Unsigned on purpose: a tag of length 0 at offset 0 lets nothing follow it.
  const uint32_t last_unit =
      static_cast<uint32_t>(last.start) + static_cast<uint32_t>(last.length) - 1u;
  bool nothing_added = true;
  Combination extension(combination);
  extension.push_back(0);
  for (uint32_t i = 0; i < sortedTags.size(); ++i) {
    if (static_cast<uint32_t>(sortedTags[i].start) <= last_unit) continue;
    extension.back() = i;
    // Copied only when new: repeated equal tags make most extensions duplicates.
    const auto at = next->lower_bound(extension);
    if (at == next->end() || next->key_comp()(extension, *at)) next->emplace_hint(at, extension);
    nothing_added = false;
  }
  return nothing_added;
}

bool RegexParser::CheckSlots(const SortedTags& tags, const Combination& combination,
                             size_t intent) const {
  const std::vector<bool>& accepts = intents_[intent].accepts;
  for (uint32_t tag : combination) {
    const uint32_t key = tags.keys[tag];
    if (key == kNoKey || !accepts[key]) return false;
  }
  return true;
}

std::u16string RegexParser::BuildTaggedQuery(const std::u16string& query, const SortedTags& tags,
                                             const Combination& combination) const {
  std::u16string tagged;
  uint32_t pos = 0;
  for (uint32_t i : combination) {
    const SlotMatch& tag = tags.tags[i];
    const uint32_t start = static_cast<uint32_t>(tag.start);
    if (pos < start) tagged.append(query, pos, start - pos);
    const uint32_t key = tags.keys[i];
    if (key != kNoKey && markers_[key].has_value()) {
      tagged.append(*markers_[key]);
    } else {
      tagged.append(MakeMarker(tag.key));  // throws for the key that Init could not convert
    }
    pos = start + static_cast<uint32_t>(tag.length);
  }
  tagged.append(query, pos);
  return tagged;
}

bool RegexParser::MatchRule(const RegexSubject& taggedQuery, size_t intent, size_t rule) const {
  const Rule& compiled = intents_[intent].rules[rule];
  if (!compiled.regex.has_value()) throw RegexError(compiled.error);
  return compiled.regex->FullMatch(taggedQuery);
}

}  // namespace rulenlu
