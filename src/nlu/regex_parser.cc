#include "nlu/regex_parser.h"

#include <algorithm>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "nlu/ranker.h"

namespace rulenlu {
namespace {

constexpr uint32_t kNoKey = UINT32_MAX;

// Words of a bit set of `keys` keys (at least one, so that every set has a first word).
size_t KeyWords(size_t keys) { return keys / 64 + 1; }

// Negative, zero or positive as tag `a` comes before, with or after `b` of `query` in tag
// order: by vocabulary name (byte-wise, as the positions of the names are), then by text.
int CompareTags(const QueryTag& a, const QueryTag& b, std::u16string_view query) {
  if (a.vocab != b.vocab) return a.vocab < b.vocab ? -1 : 1;
  return query.substr(a.start, a.length).compare(query.substr(b.start, b.length));
}

// Tag combinations stored flat: combination c is the positions, in the sorted tag list,
// tags[offsets[c]] to tags[offsets[c + 1]], each tag starting after the previous one ends.
struct Combinations {
  std::vector<uint32_t> tags;
  std::vector<uint32_t> offsets{0};

  size_t size() const { return offsets.size() - 1; }
  const uint32_t* begin(size_t c) const { return tags.data() + offsets[c]; }
  const uint32_t* end(size_t c) const { return tags.data() + offsets[c + 1]; }
  size_t length(size_t c) const { return offsets[c + 1] - offsets[c]; }
  void Add(const uint32_t* first, const uint32_t* last, uint32_t tag) {
    tags.insert(tags.end(), first, last);
    tags.push_back(tag);
    offsets.push_back(static_cast<uint32_t>(this->tags.size()));
  }
};

// The combinations of the sorted `tags`, up to `limit` as ParseAll says, ordered by the classes
// of their tags (equal tags share a class; classes ascend with the tag order), a prefix first.
// Of combinations with equal classes only the first one found is kept.
Combinations BuildCombinations(const std::vector<QueryTag>& tags,
                               const std::vector<uint32_t>& classes, size_t limit) {
  Combinations generation;
  for (uint32_t i = 0; i < tags.size(); ++i) {
    if (i == 0 || classes[i] != classes[i - 1]) generation.Add(nullptr, nullptr, i);
  }
  const uint32_t roots = static_cast<uint32_t>(generation.size());
  Combinations all = generation;
  // Every combination past the first generation extends one of the previous generation; the
  // extensions of combination c are all[children[c].first, children[c].second).
  std::vector<std::pair<uint32_t, uint32_t>> children(all.size());
  size_t generation_start = 0;
  while (all.size() < limit) {
    // Generations come out in order: parents in order, each extended by ascending classes.
    Combinations next;
    bool extended = false;
    const uint32_t next_start = static_cast<uint32_t>(all.size());
    for (size_t p = 0; p < generation.size(); ++p) {
      const QueryTag& last = tags[*(generation.end(p) - 1)];
      // Unsigned on purpose: a tag of length 0 at offset 0 lets nothing follow it.
      const uint32_t last_unit =
          static_cast<uint32_t>(last.start) + static_cast<uint32_t>(last.length) - 1u;
      const uint32_t first = next_start + static_cast<uint32_t>(next.size());
      uint32_t added_class = kNoKey;
      for (uint32_t i = 0; i < tags.size(); ++i) {
        if (static_cast<uint32_t>(tags[i].start) <= last_unit) continue;
        extended = true;
        // Classes ascend with i: an equal tag later in the list would repeat this extension.
        if (classes[i] == added_class) continue;
        added_class = classes[i];
        next.Add(generation.begin(p), generation.end(p), i);
      }
      children[generation_start + p] = {first, next_start + static_cast<uint32_t>(next.size())};
      // Crossing the limit also ends the growth: the loop condition fails from here on.
      if (all.size() + next.size() > limit) break;
    }
    all.tags.insert(all.tags.end(), next.tags.begin(), next.tags.end());
    for (size_t c = 1; c < next.offsets.size(); ++c) {
      all.offsets.push_back(
          static_cast<uint32_t>(all.offsets.back() + next.offsets[c] - next.offsets[c - 1]));
    }
    children.resize(all.size());
    generation_start = next_start;
    generation = std::move(next);
    if (!extended) break;
  }

  // Ordered by classes, a prefix first: each combination followed by its extensions' subtrees,
  // which the generations made in order already.
  Combinations sorted;
  sorted.tags.reserve(all.tags.size());
  sorted.offsets.reserve(all.offsets.size());
  std::vector<std::pair<uint32_t, uint32_t>> pending = {{0, roots}};  // sibling ranges to visit
  while (!pending.empty()) {
    std::pair<uint32_t, uint32_t>& siblings = pending.back();
    if (siblings.first == siblings.second) {
      pending.pop_back();
      continue;
    }
    const uint32_t c = siblings.first++;
    sorted.tags.insert(sorted.tags.end(), all.begin(c), all.end(c));
    sorted.offsets.push_back(static_cast<uint32_t>(sorted.tags.size()));
    if (children[c].first < children[c].second) pending.push_back(children[c]);
  }
  return sorted;
}

// "<" key ">" in UTF-16. Throws ConversionError when `key` is not UTF-8.
std::u16string MakeMarker(const std::string& key) {
  std::u16string marker = u"<";
  AppendUtf8ToUtf16(key, &marker);
  marker.push_back(u'>');
  return marker;
}

}  // namespace

RegexParser::RegexParser(const std::map<std::string, IntentConfig>& intent_map,
                         std::vector<std::string> vocab_names, size_t max_combinations)
    : max_combinations_(max_combinations), vocab_names_(std::move(vocab_names)) {
  // Every key that some intent's slots name, with its "<key>" marker (none when the key is not
  // UTF-8: a query that needs it then fails as it would converting it on the spot).
  std::map<std::string, uint32_t> key_index;
  for (const auto& [name, intent] : intent_map) {
    for (const auto& slot : intent.slots) {
      if (!key_index.emplace(slot.second, static_cast<uint32_t>(markers_.size())).second) {
        continue;
      }
      try {
        markers_.push_back(MakeMarker(slot.second));
      } catch (const ConversionError&) {
        markers_.push_back(std::nullopt);
        any_unconvertible_key_ = true;
      }
    }
  }

  intents_.reserve(intent_map.size());
  for (const auto& [name, config] : intent_map) {
    std::vector<uint64_t> accepts(KeyWords(markers_.size()), 0);
    for (const auto& slot : config.slots) {
      const uint32_t key = key_index.at(slot.second);
      accepts[key / 64] |= uint64_t{1} << (key % 64);
    }
    RegexSet all(config.regexRules);
    size_t first_broken = 0;
    while (first_broken < all.size() && all.compiled(first_broken)) ++first_broken;
    if (first_broken == all.size()) {
      intents_.push_back(Intent{name, std::move(accepts), std::move(all), std::string()});
      continue;
    }
    // The rule that did not compile is reported only when a query reaches it; the rules after
    // it are never reached.
    const std::string broken = "rule " + std::to_string(first_broken + 1) +
                               " does not compile: " + all.error(first_broken);
    RegexSet before(std::vector<std::u16string>(config.regexRules.begin(),
                                                config.regexRules.begin() + first_broken));
    intents_.push_back(Intent{name, std::move(accepts), std::move(before), std::move(broken)});
    any_broken_rule_ = true;
  }

  vocab_keys_.reserve(vocab_names_.size());
  for (const std::string& name : vocab_names_) {
    const auto found = key_index.find(name);
    vocab_keys_.push_back(found == key_index.end() ? kNoKey : found->second);
  }
}

// The query's tags in combination order, with what the parser needs to know of each.
struct RegexParser::PreparedTags {
  std::vector<QueryTag> tags;
  std::vector<uint32_t> keys;     // per tag: index of its key among the named keys, or kNoKey
  std::vector<uint32_t> classes;  // per tag: equal tags share one; ascending in tag order
  Combinations combinations;
  // Per combination, the bit set of its tags' keys (KeyWords words each); a combination with a
  // tag whose key no intent names has the bit of kNoKey's stand-in, a key no intent accepts.
  std::vector<uint64_t> key_sets;
  size_t words = 0;
};

RegexParser::PreparedTags RegexParser::Prepare(std::u16string_view query,
                                               std::vector<QueryTag> tags) const {
  std::stable_sort(tags.begin(), tags.end(), [&](const QueryTag& a, const QueryTag& b) {
    return CompareTags(a, b, query) < 0;
  });
  PreparedTags prepared;
  prepared.keys.reserve(tags.size());
  prepared.classes.reserve(tags.size());
  for (size_t i = 0; i < tags.size(); ++i) {
    prepared.keys.push_back(vocab_keys_[tags[i].vocab]);
    // Sorted: equal tags are neighbours.
    const bool same_tag = i > 0 && CompareTags(tags[i], tags[i - 1], query) == 0;
    prepared.classes.push_back(i == 0 ? 0 : prepared.classes.back() + (same_tag ? 0 : 1));
  }
  prepared.tags = std::move(tags);
  prepared.combinations = BuildCombinations(prepared.tags, prepared.classes, max_combinations_);
  // The bit markers_.size() stands for every key that no intent names: no intent has it.
  prepared.words = KeyWords(markers_.size());
  prepared.key_sets.assign(prepared.combinations.size() * prepared.words, 0);
  for (size_t c = 0; c < prepared.combinations.size(); ++c) {
    uint64_t* set = &prepared.key_sets[c * prepared.words];
    for (const uint32_t* t = prepared.combinations.begin(c); t != prepared.combinations.end(c);
         ++t) {
      const size_t key = prepared.keys[*t] == kNoKey ? markers_.size() : prepared.keys[*t];
      set[key / 64] |= uint64_t{1} << (key % 64);
    }
  }
  return prepared;
}

bool RegexParser::Accepts(const Intent& intent, const PreparedTags& tags, size_t c) {
  const uint64_t* set = &tags.key_sets[c * tags.words];
  for (size_t w = 0; w < tags.words; ++w) {
    if ((set[w] & ~intent.accepts[w]) != 0) return false;
  }
  return true;
}

void RegexParser::Rewrite(const std::u16string& query, const PreparedTags& tags, size_t c,
                          std::u16string* rewritten) const {
  rewritten->clear();
  size_t pos = 0;
  for (const uint32_t* t_at = tags.combinations.begin(c); t_at != tags.combinations.end(c);
       ++t_at) {
    const uint32_t t = *t_at;
    const QueryTag& tag = tags.tags[t];
    const size_t start = static_cast<uint32_t>(tag.start);
    if (pos < start) rewritten->append(query, pos, start - pos);
    const uint32_t key = tags.keys[t];
    // A key that could not be converted at start-up throws here, when a query needs it.
    rewritten->append(key != kNoKey && markers_[key].has_value()
                          ? *markers_[key]
                          : MakeMarker(vocab_names_[tag.vocab]));
    pos = start + static_cast<uint32_t>(tag.length);
  }
  if (pos < query.size()) rewritten->append(query, pos);
}

std::optional<size_t> RegexParser::MatchingRule(const Intent& intent, const RegexSubject& subject) {
  const size_t rule = intent.rules.FirstFullMatch(subject);
  if (rule != RegexSet::kNoMatch) return rule;
  if (!intent.broken.empty()) throw RegexError(intent.broken);
  return std::nullopt;
}

IntentCandidate RegexParser::MakeCandidate(const std::u16string& query, const Intent& intent,
                                           const PreparedTags& tags, size_t c) const {
  IntentCandidate candidate;
  candidate.intent = intent.name;
  candidate.text = query;
  candidate.slots.reserve(tags.combinations.length(c));
  for (const uint32_t* t = tags.combinations.begin(c); t != tags.combinations.end(c); ++t) {
    const QueryTag& tag = tags.tags[*t];
    candidate.slots.push_back(ToSlot(tag, vocab_names_, query));
  }
  return candidate;
}

// One query's rule matching: the rewritten query of the combination at hand, built the first
// time an intent needs it, and what is left of the query's work bound.
struct RegexParser::Matching {
  Matching(const std::u16string& query, const PreparedTags& tags)
      : query(query), tags(tags), work_left(kParseWorkBase + kParseWorkPerUnit * query.size()) {}

  void Charge(size_t units) {
    if (units > work_left) throw Error("rule matching went past its bound for this query");
    work_left -= units;
  }

  const std::u16string& query;
  const PreparedTags& tags;
  size_t work_left;
  size_t built = SIZE_MAX;  // the combination `subject` holds
  std::u16string rewritten;
  RegexSubject subject;
};

const RegexSubject& RegexParser::SubjectOf(size_t c, Matching* matching) const {
  if (matching->built != c) {
    Rewrite(matching->query, matching->tags, c, &matching->rewritten);
    matching->Charge(matching->rewritten.size());
    matching->subject.Assign(matching->rewritten);
    matching->built = c;
  }
  return matching->subject;
}

std::optional<size_t> RegexParser::Match(const Intent& intent, size_t c, Matching* matching) const {
  const RegexSubject& subject = SubjectOf(c, matching);
  matching->Charge(subject.size());
  return MatchingRule(intent, subject);
}

std::vector<IntentCandidate> RegexParser::ParseAll(const std::u16string& query,
                                                   std::vector<QueryTag> tags) const {
  const PreparedTags prepared = Prepare(query, std::move(tags));
  Matching matching(query, prepared);
  std::vector<IntentCandidate> candidates;
  for (size_t c = 0; c < prepared.combinations.size(); ++c) {
    for (const Intent& intent : intents_) {
      if (!Accepts(intent, prepared, c)) continue;
      if (Match(intent, c, &matching).has_value()) {
        candidates.push_back(MakeCandidate(query, intent, prepared, c));
      }
    }
  }
  return candidates;
}

std::optional<IntentCandidate> RegexParser::Parse(const std::u16string& query,
                                                  std::vector<QueryTag> tags) const {
  const PreparedTags prepared = Prepare(query, std::move(tags));
  Matching matching(query, prepared);
  const Combinations& combinations = prepared.combinations;

  // A rule that did not compile, or a marker that could not be converted, fails the query
  // whenever the exhaustive search reaches it: for a rule, some combination its intent accepts
  // that no earlier rule of the intent matches; for a marker, any accepted combination holding
  // its tag (rewriting it throws). That does not depend on the order of the search, so it is
  // settled first, and the search below never reaches either.
  if (any_broken_rule_ || any_unconvertible_key_) {
    for (size_t c = 0; c < combinations.size(); ++c) {
      for (const Intent& intent : intents_) {
        if (!Accepts(intent, prepared, c)) continue;
        SubjectOf(c, &matching);
        if (!intent.broken.empty()) Match(intent, c, &matching);
      }
    }
  }

  // Candidates in rank order: most covered units, then fewest slots, then the order in which
  // the exhaustive search finds them (combination order, then intent order).
  // A heap, as the search usually stops after a few; the score's index breaks ties.
  std::vector<CandidateScore> order;
  order.reserve(combinations.size());
  for (uint32_t c = 0; c < combinations.size(); ++c) {
    // A combination that no intent accepts gives no candidate.
    if (std::none_of(intents_.begin(), intents_.end(),
                     [&](const Intent& intent) { return Accepts(intent, prepared, c); })) {
      continue;
    }
    uint32_t total = 0;
    for (const uint32_t* t = combinations.begin(c); t != combinations.end(c); ++t) {
      total += static_cast<uint32_t>(prepared.tags[*t].length);
    }
    order.push_back(Ranker::Score(combinations.length(c), total, static_cast<int32_t>(c)));
  }
  const auto after = [](const CandidateScore& a, const CandidateScore& b) {
    return Ranker::RanksBefore(b, a) || (!Ranker::RanksBefore(a, b) && a.index > b.index);
  };
  std::make_heap(order.begin(), order.end(), after);
  while (!order.empty()) {
    std::pop_heap(order.begin(), order.end(), after);
    const auto c = static_cast<uint32_t>(order.back().index);
    order.pop_back();
    for (const Intent& intent : intents_) {
      if (!Accepts(intent, prepared, c)) continue;
      if (Match(intent, c, &matching).has_value()) {
        return MakeCandidate(query, intent, prepared, c);
      }
    }
  }
  return std::nullopt;
}

ParseTrace RegexParser::Explain(const std::u16string& query, std::vector<QueryTag> tags) const {
  const PreparedTags prepared = Prepare(query, std::move(tags));
  ParseTrace trace;
  for (const QueryTag& tag : prepared.tags) trace.tags.push_back(ToSlot(tag, vocab_names_, query));
  RegexSubject subject;
  for (size_t c = 0; c < prepared.combinations.size(); ++c) {
    ParseTrace::Combination& step = trace.combinations.emplace_back();
    step.tags.assign(prepared.combinations.begin(c), prepared.combinations.end(c));
    try {
      Rewrite(query, prepared, c, &step.rewritten);
    } catch (const Error& e) {
      step.error = e.what();
    }
    subject.Assign(step.rewritten);
    for (const Intent& intent : intents_) {
      ParseTrace::IntentStep& tried = step.intents.emplace_back();
      tried.intent = intent.name;
      tried.accepted = Accepts(intent, prepared, c);
      if (!tried.accepted) continue;
      if (!step.error.empty()) {
        tried.error = step.error;  // ParseAll would have thrown rewriting it
        continue;
      }
      try {
        tried.rule = MatchingRule(intent, subject);
        if (!tried.rule.has_value()) continue;
        trace.candidates.push_back({c, MakeCandidate(query, intent, prepared, c)});
      } catch (const Error& e) {
        tried.error = e.what();
      }
    }
  }
  return trace;
}

}  // namespace rulenlu
