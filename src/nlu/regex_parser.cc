#include "nlu/regex_parser.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <utility>

#include "base/error.h"
#include "base/placement.h"
#include "base/text.h"

namespace rulenlu {
namespace {

constexpr uint32_t kNone = UINT32_MAX;

// Words of a bit set of `bits` bits (at least one, so that every set has a first word).
size_t Words(size_t bits) { return bits / 64 + 1; }

// Calls f(w) for each word w of a bit set of `words` words: straight-line code for one word,
// the common case, in the loops that run once per combination.
template <typename F>
inline void ForEachWord(size_t words, F&& f) {
  if (words == 1) {
    f(size_t{0});
    return;
  }
  for (size_t w = 0; w < words; ++w) f(w);
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
    : max_combinations_(max_combinations),
      intents_(intent_map.size()),
      vocab_names_(std::move(vocab_names)) {
  // Every key that some intent's slots name. A key that is not UTF-8 has no marker: a query
  // that needs it then fails as it would converting it on the spot.
  std::map<std::string, uint32_t> key_index;
  std::vector<std::optional<std::u16string>> key_markers;
  // In a rewritten query without other "<" or ">", a marker's text is found only where its
  // tag stands, unless a key holds one of them.
  bool markers_apart = true;
  for (const auto& [name, intent] : intent_map) {
    for (const auto& slot : intent.slots) {
      if (!key_index.emplace(slot.second, static_cast<uint32_t>(key_index.size())).second) {
        continue;
      }
      markers_apart = markers_apart && slot.second.find_first_of("<>") == std::string::npos;
      try {
        key_markers.push_back(MakeMarker(slot.second));
      } catch (const ConversionError&) {
        key_markers.push_back(std::nullopt);
        any_unconvertible_key_ = true;
      }
    }
  }
  const auto keys = static_cast<uint32_t>(key_index.size());

  intent_words_ = Words(intent_map.size());
  key_intents_.assign((keys + 1) * intent_words_, 0);
  size_t i = 0;
  for (const auto& [name, config] : intent_map) {
    for (const auto& slot : config.slots) {
      key_intents_[key_index.at(slot.second) * intent_words_ + i / 64] |= uint64_t{1} << (i % 64);
    }
    intents_[i].name = name;
    intents_[i].patterns = config.regexRules;
    std::set<uint32_t> slot_keys;
    for (const auto& slot : config.slots) slot_keys.insert(key_index.at(slot.second));
    for (const uint32_t key : slot_keys) {
      if (!markers_apart || !key_markers[key].has_value()) continue;
      intents_[i].slot_keys.push_back(key);
      intents_[i].slot_markers.push_back(*key_markers[key]);
    }
    ++i;
  }

  vocab_keys_.reserve(vocab_names_.size());
  vocab_markers_.reserve(vocab_names_.size());
  for (const std::string& name : vocab_names_) {
    const auto found = key_index.find(name);
    vocab_keys_.push_back(found == key_index.end() ? keys : found->second);
    try {
      vocab_markers_.push_back(MakeMarker(name));
    } catch (const ConversionError&) {
      vocab_markers_.push_back(std::nullopt);
    }
  }
}

// One query's tags in tag order and their combinations, with what the searches need of each.
// Kept from query to query on each thread, so that its buffers are reused: arrays are only ever
// grown, and `count` says how many combinations are this query's.
struct RegexParser::PreparedTags {
  // A combination extends its parent (or none, for a one-tag combination) by one tag.
  struct Combination {
    uint32_t parent;
    uint32_t tag;
    uint32_t slots;
    uint32_t total;        // the tags' lengths added up, wrapping around
    uint32_t first_start;  // where its first tag starts: its rewritten query begins with so
                           // many units of the query, then a marker
  };

  std::vector<QueryTag> tags;
  std::vector<uint32_t> keys;     // per tag: its key index (see vocab_keys_)
  std::vector<uint32_t> classes;  // per tag: equal tags share one; ascending in tag order
  size_t count = 0;               // combinations built
  uint32_t roots = 0;             // one-tag combinations, which come first
  // As built, generation by generation; in combination order within a generation, so that the
  // order in which the exhaustive search finds two combinations of one length is the order here.
  std::vector<Combination> combinations;
  // Per combination: the intents accepting every tag of it (intent_words_ words each); and the
  // intents accepting some combination (known once the tags are sorted).
  std::vector<uint64_t> intents;
  std::vector<uint64_t> reached;

  // Working space.
  struct TextKey {
    uint64_t head;  // the head of the tag's text
    uint32_t index;
  };
  std::vector<uint32_t> vocab_first;
  std::vector<uint8_t> textual;
  // Per tag, by vocabulary: its word number and its index in `unsorted`, or only the index.
  std::vector<uint64_t> sort_keys;
  std::vector<TextKey> text_keys;
  std::vector<QueryTag> unsorted;

  // The combinations in combination order: each followed by its extensions' subtrees.
  std::vector<uint32_t> Order() const {
    // A combination's extensions were made one after another: its range of them.
    std::vector<std::pair<uint32_t, uint32_t>> extensions(count, {0, 0});
    for (uint32_t c = roots; c < count; ++c) {
      std::pair<uint32_t, uint32_t>& range = extensions[combinations[c].parent];
      if (range.first == range.second) range.first = c;
      range.second = c + 1;
    }
    std::vector<uint32_t> order;
    std::vector<std::pair<uint32_t, uint32_t>> pending = {{0, roots}};  // sibling ranges to visit
    while (!pending.empty()) {
      std::pair<uint32_t, uint32_t>& siblings = pending.back();
      if (siblings.first == siblings.second) {
        pending.pop_back();
        continue;
      }
      const uint32_t c = siblings.first++;
      order.push_back(c);
      if (extensions[c].first < extensions[c].second) pending.push_back(extensions[c]);
    }
    return order;
  }

  // The tags of combination `c`, in order, into `path`.
  void PathOf(uint32_t c, std::vector<uint32_t>* path) const {
    path->resize(combinations[c].slots);
    for (size_t i = path->size(); i > 0; c = combinations[c].parent) {
      (*path)[--i] = combinations[c].tag;
    }
  }
};

namespace {

// Grows `v` to at least `size` elements; never shrinks it.
template <typename T>
T* AtLeast(std::vector<T>* v, size_t size) {
  if (v->size() < size) v->resize(size);
  return v->data();
}

}  // namespace

void RegexParser::SortTags(std::u16string_view query, std::vector<QueryTag> tags,
                           PreparedTags* prepared) const {
  // Tag order: by vocabulary name (byte-wise, as the positions of the names are), then by text;
  // stable. A counting sort by vocabulary, then a sort of each vocabulary's tags: by word number
  // when all are vocabulary words, else by the heads of their texts, which settle most
  // comparisons without reading the query.
  prepared->unsorted = std::move(tags);
  const QueryTag* unsorted = prepared->unsorted.data();
  const auto n = static_cast<uint32_t>(prepared->unsorted.size());
  auto text = [&](uint32_t i) { return query.substr(unsorted[i].start, unsorted[i].length); };
  uint64_t* sort_keys = AtLeast(&prepared->sort_keys, n);
  // A word's key is its number, then its place: one comparison orders two words. A vocabulary
  // with a tag that is not a word (a regex tag) is ordered by text.
  std::vector<uint8_t>& textual = prepared->textual;
  textual.assign(vocab_names_.size(), 0);
  PlaceByVocabulary(prepared->unsorted, vocab_names_.size(), &prepared->vocab_first,
                    [&](uint32_t i, uint32_t position) {
                      const QueryTag& tag = unsorted[i];
                      sort_keys[position] = uint64_t{tag.word} << 32 | i;
                      textual[tag.vocab] |= static_cast<uint8_t>(tag.word == QueryTag::kNoWord);
                    });
  const std::vector<uint32_t>& first = prepared->vocab_first;
  QueryTag* sorted = AtLeast(&prepared->tags, n);
  uint32_t* keys = AtLeast(&prepared->keys, n);
  uint32_t* classes = AtLeast(&prepared->classes, n);
  const size_t words = intent_words_;
  std::vector<uint64_t>& reached = prepared->reached;
  reached.assign(words, 0);
  uint32_t tag_class = 0;
  for (size_t vocab = 0; vocab < textual.size(); ++vocab) {
    const uint32_t begin = first[vocab];
    const uint32_t end = first[vocab + 1];
    if (begin == end) continue;
    // Sorted, equal tags are neighbours: each tag after the first has the class of the one
    // before it or the next.
    const uint32_t key = vocab_keys_[vocab];
    const auto index = [&](uint32_t k) { return static_cast<uint32_t>(sort_keys[k]); };
    if (textual[vocab] == 0) {
      std::sort(sort_keys + begin, sort_keys + end);
      for (uint32_t k = begin; k < end; ++k) {
        sorted[k] = unsorted[index(k)];
        keys[k] = key;
        tag_class += k > 0 && (k == begin || (sort_keys[k] ^ sort_keys[k - 1]) >> 32);
        classes[k] = tag_class;
      }
    } else {
      PreparedTags::TextKey* text_keys = AtLeast(&prepared->text_keys, end - begin);
      for (uint32_t k = begin; k < end; ++k) {
        text_keys[k - begin] = {TextHead(text(index(k))), index(k)};
      }
      std::sort(text_keys, text_keys + (end - begin), [&](const auto& a, const auto& b) {
        if (a.head != b.head) return a.head < b.head;
        const int order = text(a.index).compare(text(b.index));
        return order != 0 ? order < 0 : a.index < b.index;
      });
      for (uint32_t k = begin; k < end; ++k) {
        const PreparedTags::TextKey& at = text_keys[k - begin];
        sorted[k] = unsorted[at.index];
        keys[k] = key;
        tag_class += k > 0 && (k == begin || at.head != text_keys[k - begin - 1].head ||
                               text(at.index) != text(text_keys[k - begin - 1].index));
        classes[k] = tag_class;
      }
    }
    // Every tag is a combination of its own: the intents some combination reaches are those
    // accepting some tag.
    for (size_t w = 0; w < words; ++w) reached[w] |= key_intents_[key * words + w];
  }
}

template <typename Visit>
void RegexParser::Combine(PreparedTags* prepared, Visit&& visit) const {
  // The combinations, generation by generation; of combinations with equal classes only the
  // first one found is kept. A generation stops growing once past max_combinations_, after
  // at most n more: the arrays hold that many.
  const auto n = static_cast<uint32_t>(prepared->unsorted.size());
  const QueryTag* sorted = prepared->tags.data();
  const uint32_t* keys = prepared->keys.data();
  const uint32_t* classes = prepared->classes.data();
  const size_t words = intent_words_;
  const size_t most = std::max<size_t>(n, max_combinations_) + n;
  PreparedTags::Combination* combinations = AtLeast(&prepared->combinations, most);
  uint64_t* intents = AtLeast(&prepared->intents, most * words);
  uint32_t count = 0;
  auto add = [&](uint32_t parent, uint32_t t) __attribute__((always_inline)) {
    const uint64_t* accepting = &key_intents_[keys[t] * words];
    const auto length = static_cast<uint32_t>(sorted[t].length);
    uint64_t* out = &intents[count * words];
    if (parent == kNone) {
      combinations[count] = {kNone, t, 1, length, static_cast<uint32_t>(sorted[t].start)};
      ForEachWord(words, [&](size_t w) { out[w] = accepting[w]; });
    } else {
      const PreparedTags::Combination& from = combinations[parent];
      combinations[count] = {parent, t, from.slots + 1, from.total + length, from.first_start};
      const uint64_t* inherited = &intents[parent * words];
      ForEachWord(words, [&](size_t w) { out[w] = inherited[w] & accepting[w]; });
    }
    visit(count, combinations[count], out);
    ++count;
  };
  for (uint32_t i = 0; i < n; ++i) {
    if (i == 0 || classes[i] != classes[i - 1]) add(kNone, i);
  }
  const uint32_t roots = count;
  uint32_t generation_begin = 0;
  uint32_t generation_end = count;
  while (count < max_combinations_) {
    for (uint32_t p = generation_begin; p < generation_end; ++p) {
      const QueryTag& last = sorted[combinations[p].tag];
      // Unsigned on purpose: a tag of length 0 at offset 0 lets nothing follow it.
      const uint32_t last_unit =
          static_cast<uint32_t>(last.start) + static_cast<uint32_t>(last.length) - 1u;
      uint32_t added_class = kNone;
      for (uint32_t i = 0; i < n; ++i) {
        // Classes ascend with i: an equal tag later in the list would repeat this extension.
        if (static_cast<uint32_t>(sorted[i].start) <= last_unit || classes[i] == added_class) {
          continue;
        }
        added_class = classes[i];
        add(p, i);
      }
      // Crossing the limit also ends the growth: the loop condition fails from here on.
      if (count > max_combinations_) break;
    }
    if (count == generation_end) break;  // nothing could be extended
    generation_begin = generation_end;
    generation_end = count;
  }
  prepared->count = count;
  prepared->roots = roots;
}

const std::u16string& RegexParser::MarkerOf(const QueryTag& tag) const {
  const std::optional<std::u16string>& marker = vocab_markers_[tag.vocab];
  if (!marker.has_value()) throw ConversionError();  // as converting the name here would
  return *marker;
}

void RegexParser::Rewrite(const std::u16string& query, const PreparedTags& tags,
                          const std::vector<uint32_t>& path, std::u16string* rewritten) const {
  // Tags in a path stand in order without overlapping: the pieces are written one after another
  // into a text of their total length.
  size_t size = query.size();
  for (const uint32_t t : path) {
    size = size - static_cast<uint32_t>(tags.tags[t].length) + MarkerOf(tags.tags[t]).size();
  }
  rewritten->resize(size);
  char16_t* out = rewritten->data();
  size_t pos = 0;
  for (const uint32_t t : path) {
    const QueryTag& tag = tags.tags[t];
    const size_t start = static_cast<uint32_t>(tag.start);
    out = std::copy(query.data() + pos, query.data() + start, out);
    const std::u16string& marker = MarkerOf(tag);
    out = std::copy(marker.begin(), marker.end(), out);
    pos = start + static_cast<uint32_t>(tag.length);
  }
  std::copy(query.data() + pos, query.data() + query.size(), out);
}

const RegexParser::Rules& RegexParser::RulesOf(const Intent& intent) const {
  if (const Rules* rules = intent.compiled.load(std::memory_order_acquire)) return *rules;
  std::call_once(intent.once, [&] {
    RegexSet all(intent.patterns, intent.slot_markers);
    size_t first_broken = 0;
    while (first_broken < all.size() && all.compiled(first_broken)) ++first_broken;
    const auto required = [&](const RegexSet& rules) {
      std::vector<uint32_t> keys;
      for (size_t k = 0; k < intent.slot_keys.size(); ++k) {
        if (rules.AlwaysContains(k)) keys.push_back(intent.slot_keys[k]);
      }
      return keys;
    };
    if (first_broken == all.size()) {
      const bool marker = all.LivePrefix(u"<") == 1;
      std::vector<uint32_t> keys = required(all);
      intent.rules = std::make_unique<const Rules>(
          Rules{std::move(all), std::string(), marker, std::move(keys)});
    } else {
      // The rule that did not compile is reported only when a query reaches it; the rules
      // after it are never reached.
      std::string broken = "rule " + std::to_string(first_broken + 1) +
                           " does not compile: " + all.error(first_broken);
      RegexSet before(std::vector<std::u16string>(intent.patterns.begin(),
                                                  intent.patterns.begin() + first_broken));
      // Reaching the rule that did not compile fails the query: no combination is left out.
      const bool marker = before.LivePrefix(u"<") == 1;
      intent.rules = std::make_unique<const Rules>(
          Rules{std::move(before), std::move(broken), marker, std::vector<uint32_t>()});
      any_broken_rule_ = true;
    }
    intent.compiled.store(intent.rules.get(), std::memory_order_release);
  });
  return *intent.rules;
}

std::optional<size_t> RegexParser::MatchingRule(const Intent& intent,
                                                const RegexSubject& subject) const {
  const Rules& rules = RulesOf(intent);
  const size_t rule = rules.before_broken.FirstFullMatch(subject);
  if (rule != RegexSet::kNoMatch) return rule;
  if (!rules.broken.empty()) throw RegexError(rules.broken);
  return std::nullopt;
}

IntentCandidate RegexParser::MakeCandidate(const std::u16string& query, const Intent& intent,
                                           const PreparedTags& tags, uint32_t c) const {
  IntentCandidate candidate;
  candidate.intent = intent.name;
  candidate.text = query;
  std::vector<uint32_t> path;
  tags.PathOf(c, &path);
  candidate.slots.reserve(path.size());
  for (const uint32_t t : path)
    candidate.slots.push_back(ToSlot(tags.tags[t], vocab_names_, query));
  return candidate;
}

// One query's rule matching: the rewritten query of the combination at hand, built the first
// time an intent needs it, and what is left of the query's work bound.
struct RegexParser::Matching {
  void Start(const std::u16string& query_in, const PreparedTags& tags_in) {
    query = &query_in;
    tags = &tags_in;
    work_left = kParseWorkBase + kParseWorkPerUnit * query_in.size();
    built = kNone;
  }

  void Charge(size_t units) {
    if (units > work_left) throw Error("rule matching went past its bound for this query");
    work_left -= units;
  }

  const std::u16string* query = nullptr;
  const PreparedTags* tags = nullptr;
  size_t work_left = 0;
  uint32_t built = kNone;  // the combination `subject` holds
  std::vector<uint32_t> path;
  std::u16string rewritten;
  RegexSubject subject;
};

const RegexSubject& RegexParser::SubjectOf(uint32_t c, Matching* matching) const {
  if (matching->built != c) {
    matching->tags->PathOf(c, &matching->path);
    Rewrite(*matching->query, *matching->tags, matching->path, &matching->rewritten);
    matching->Charge(matching->rewritten.size());
    matching->subject.Swap(&matching->rewritten);
    matching->built = c;
  }
  return matching->subject;
}

std::optional<size_t> RegexParser::Match(const Intent& intent, uint32_t c,
                                         Matching* matching) const {
  const RegexSubject& subject = SubjectOf(c, matching);
  matching->Charge(subject.size());
  return MatchingRule(intent, subject);
}

namespace {

// Calls visit(i) for each bit i set in the `words` words at `set`, ascending.
template <typename Visit>
void ForEachBit(const uint64_t* set, size_t words, Visit&& visit) {
  for (size_t w = 0; w < words; ++w) {
    for (uint64_t bits = set[w]; bits != 0; bits &= bits - 1) {
      visit(w * 64 + static_cast<size_t>(__builtin_ctzll(bits)));
    }
  }
}

}  // namespace

std::optional<IntentCandidate> RegexParser::Parse(const std::u16string& query,
                                                  std::vector<QueryTag> tags) const {
  struct Space {
    PreparedTags prepared;
    Matching matching;
    std::vector<uint64_t> live;
    std::vector<uint32_t> ranked;
    std::vector<uint32_t> order;
    std::vector<uint32_t> first;
  };
  thread_local Space space;
  // A query far larger than usual does not leave its buffers behind.
  struct Release {
    ~Release() {
      if (space.prepared.combinations.capacity() > (size_t{1} << 16) ||
          space.prepared.tags.capacity() > (size_t{1} << 16) ||
          space.matching.rewritten.capacity() > (size_t{1} << 16) ||
          space.live.capacity() > (size_t{1} << 16)) {
        space.prepared = PreparedTags();
        space.matching = Matching();
        space.ranked = std::vector<uint32_t>();
        space.order = std::vector<uint32_t>();
        space.first = std::vector<uint32_t>();
        space.live = std::vector<uint64_t>();
      }
    }
  } release;
  PreparedTags& prepared = space.prepared;
  SortTags(query, std::move(tags), &prepared);
  Matching& matching = space.matching;
  matching.Start(query, prepared);
  const size_t words = intent_words_;

  // A pair whose intent has no rule that can begin as the rewritten query does is left out: the
  // query's units before the combination's first tag, then its marker. live[s * words + w]
  // holds the intents whose rules may begin with the query's first s units (s from 1), and
  // live[w] those whose rules may begin with a marker.
  const size_t length = query.size();
  std::vector<uint64_t>& live = space.live;
  live.assign((length + 1) * words, 0);
  ForEachBit(prepared.reached.data(), words, [&](size_t i) {
    const Rules& rules = RulesOf(intents_[i]);
    const uint64_t bit = uint64_t{1} << (i % 64);
    // Reaching a rule that did not compile fails the query: such an intent is never left out.
    const bool any = !rules.broken.empty();
    const size_t prefix = any ? length : rules.before_broken.LivePrefix(query);
    if (prefix > 0) live[prefix * words + i / 64] |= bit;
    if (any || rules.may_begin_with_marker) live[i / 64] |= bit;
  });
  for (size_t s = length; s > 1; --s) {
    for (size_t w = 0; w < words; ++w) live[(s - 1) * words + w] |= live[s * words + w];
  }
  const auto pairs = [&](const PreparedTags::Combination& combination, const uint64_t* accepting,
                         size_t w) {
    return accepting[w] & live[combination.first_start * words + w];
  };

  // Candidates in rank order: most covered units, then fewest slots, then the order in which
  // the exhaustive search finds them (combination order, then intent order). Among combinations
  // of equal cover, the order they are built in puts fewer tags first and then the exhaustive
  // search's order: a counting sort by cover, which keeps that order, gives rank order. A
  // combination with no pair left gives no candidate.
  std::vector<uint32_t>& ranked = space.ranked;
  ranked.clear();
  Combine(&prepared,
          [&](uint32_t c, const PreparedTags::Combination& combination, const uint64_t* accepting) {
            uint64_t any_pair = 0;
            ForEachWord(words, [&](size_t w) { any_pair |= pairs(combination, accepting, w); });
            if (any_pair != 0) ranked.push_back(c);
          });
  // Tags of a combination stand apart within the query: its cover is at most the query's length.
  const auto uncovered = [&](size_t i) {
    return length - std::min<size_t>(prepared.combinations[ranked[i]].total, length);
  };
  uint32_t* order = AtLeast(&space.order, ranked.size());
  PlaceByKey(ranked.size(), length + 1, uncovered, &space.first,
             [&](uint32_t i, uint32_t position) { order[position] = ranked[i]; });
  const uint64_t* accepting = prepared.intents.data();

  // A rule that did not compile, or a marker that could not be converted, fails the query
  // whenever the exhaustive search reaches it: for a rule, some combination its intent accepts
  // that no earlier rule of the intent matches; for a marker, any accepted combination holding
  // its tag. That does not depend on the order of the search, so it is settled first, and the
  // search below never reaches either.
  if (any_unconvertible_key_ || any_broken_rule_) {
    for (uint32_t c = 0; c < prepared.count; ++c) {
      ForEachBit(accepting + c * words, words, [&](size_t i) {
        if (any_unconvertible_key_) {
          prepared.PathOf(c, &matching.path);
          for (const uint32_t t : matching.path) MarkerOf(prepared.tags[t]);
        }
        if (!RulesOf(intents_[i]).broken.empty()) Match(intents_[i], c, &matching);
      });
    }
  }

  // Without "<" or ">" in the query, the rewritten query's markers are its tags'.
  const bool markers_only = std::find_if(query.begin(), query.end(), [](char16_t unit) {
                              return unit == u'<' || unit == u'>';
                            }) == query.end();
  for (size_t position = 0; position < ranked.size(); ++position) {
    const uint32_t c = order[position];
    // The keys of the combination's tags, read when an intent requires some.
    bool path_read = false;
    const auto holds = [&](uint32_t key) {
      if (!path_read) {
        prepared.PathOf(c, &matching.path);
        path_read = true;
      }
      for (const uint32_t t : matching.path) {
        if (prepared.keys[t] == key) return true;
      }
      return false;
    };
    for (size_t w = 0; w < words; ++w) {
      for (uint64_t bits = pairs(prepared.combinations[c], accepting + c * words, w); bits != 0;
           bits &= bits - 1) {
        const Intent& intent = intents_[w * 64 + static_cast<size_t>(__builtin_ctzll(bits))];
        if (markers_only) {
          const std::vector<uint32_t>& required = RulesOf(intent).required_keys;
          if (!std::all_of(required.begin(), required.end(), holds)) continue;
        }
        if (Match(intent, c, &matching).has_value()) {
          return MakeCandidate(query, intent, prepared, c);
        }
      }
    }
  }
  return std::nullopt;
}

ParseTrace RegexParser::Explain(const std::u16string& query, std::vector<QueryTag> tags) const {
  PreparedTags prepared;
  SortTags(query, std::move(tags), &prepared);
  Combine(&prepared, [](uint32_t, const PreparedTags::Combination&, const uint64_t*) {});
  ParseTrace trace;
  for (size_t t = 0; t < prepared.unsorted.size(); ++t) {
    trace.tags.push_back(ToSlot(prepared.tags[t], vocab_names_, query));
  }
  RegexSubject subject;
  std::vector<uint32_t> path;
  const std::vector<uint32_t> order = prepared.Order();
  for (size_t position = 0; position < order.size(); ++position) {
    const uint32_t c = order[position];
    ParseTrace::Combination& step = trace.combinations.emplace_back();
    prepared.PathOf(c, &path);
    step.tags.assign(path.begin(), path.end());
    try {
      Rewrite(query, prepared, path, &step.rewritten);
    } catch (const Error& e) {
      step.error = e.what();
    }
    subject.Assign(step.rewritten);
    const uint64_t* accepting = &prepared.intents[c * intent_words_];
    for (size_t i = 0; i < intents_.size(); ++i) {
      const Intent& intent = intents_[i];
      ParseTrace::IntentStep& tried = step.intents.emplace_back();
      tried.intent = intent.name;
      tried.accepted = (accepting[i / 64] >> (i % 64) & 1) != 0;
      if (!tried.accepted) continue;
      if (!step.error.empty()) {
        tried.error = step.error;  // the rewritten query could not be built
        continue;
      }
      try {
        tried.rule = MatchingRule(intent, subject);
        if (!tried.rule.has_value()) continue;
        trace.candidates.push_back({position, MakeCandidate(query, intent, prepared, c)});
      } catch (const Error& e) {
        tried.error = e.what();
      }
    }
  }
  return trace;
}

}  // namespace rulenlu
