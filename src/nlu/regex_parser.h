// The second stage of the query pipeline: combines the tagger's tags into sequences of
// non-overlapping tags, rewrites the query with a "<name>" marker for each tag of a combination
// and matches the rewritten query against the intents' rules.
//
// Init is called once, at start-up, and compiles every rule; afterwards a RegexParser is
// immutable and Process may run on any number of threads at once.
#ifndef RULENLU_NLU_REGEX_PARSER_H_
#define RULENLU_NLU_REGEX_PARSER_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "config/nlu_config.h"
#include "engine/records.h"
#include "nlu/regex.h"

namespace rulenlu {

class RegexParser {
 public:
  // A tag combination: positions in the sorted tag list, each tag starting after the previous
  // one ends.
  using Combination = std::vector<uint32_t>;

  // Orders combinations lexicographically, tag by tag, a prefix first. Tags compare by key
  // (byte-wise), then by value (unit by unit); where a tag stands takes no part, so combinations
  // differing only in the places of equal tags are equal. `tags` must outlive the order.
  class CombinationLess {
   public:
    explicit CombinationLess(const std::vector<SlotMatch>* tags) : tags_(tags) {}
    bool operator()(const Combination& a, const Combination& b) const;

   private:
    const std::vector<SlotMatch>* tags_;
  };
  using CombinationSet = std::set<Combination, CombinationLess>;

  // The tags of one query in combination order, with each tag's key resolved against the keys
  // that the intents' slots name.
  struct SortedTags {
    std::vector<SlotMatch> tags;
    std::vector<uint32_t> keys;  // per tag: index of its key among the named keys, or kNoKey
  };
  static constexpr uint32_t kNoKey = UINT32_MAX;

  // `maxCombinations` bounds the number of combinations built per query; the generation that
  // crosses it is still added in part.
  explicit RegexParser(size_t maxCombinations = 128);

  // Keeps a copy of the intents and compiles each rule as a POSIX extended expression. Never
  // throws for a rule that does not compile and logs nothing: such a rule fails a query only
  // when Process tries it.
  void Init(const std::map<std::string, IntentConfig>& intentMap);

  // Returns one candidate per (combination, intent) pair whose intent accepts every tag of the
  // combination and has a rule matching the whole rewritten query; combinations in
  // CombinationLess order, intents in name order, the first matching rule of an intent only.
  // Each candidate has version 0, the intent's name, `query` as text and the combination's tags
  // as slots. No tags give no candidates. On success `status` is not touched. On any failure (a
  // rule that does not compile or cannot be matched, a key that is not UTF-8) logs "regex parser
  // process exception!" on stderr, sets `status` to -2 and returns no candidate.
  std::vector<IntentCandidate> Process(const std::u16string& query, std::vector<SlotMatch> tags,
                                       int& status) const;

  // The steps of Process, each usable on its own.

  // Sorts `tags` stably by key (byte-wise), then value (unit by unit, a prefix first), and
  // resolves each key.
  SortedTags SortTags(std::vector<SlotMatch> tags) const;

  // Returns the combinations of `sortedTags` in CombinationLess order: every one-tag
  // combination, then one generation longer at a time while fewer than maxCombinations are
  // held. The generation that crosses the limit keeps the extensions up to and including those
  // of the combination at which the limit was crossed, and is the last.
  std::vector<Combination> BuildCombinations(const std::vector<SlotMatch>& sortedTags) const;

  // Adds to `*next` `combination` followed by each tag of `sortedTags` that starts after the
  // combination's last tag ends (touching tags may follow one another). Returns true when no tag
  // may follow, or `combination` is empty.
  static bool ExtendCombination(const std::vector<SlotMatch>& sortedTags,
                                const Combination& combination, CombinationSet* next);

  // True when the intent at position `intent` (in name order) names every key of the
  // combination's tags in its slots' tags.
  bool CheckSlots(const SortedTags& tags, const Combination& combination, size_t intent) const;

  // Returns `query` with each tag of the combination replaced by "<" key ">". Throws
  // std::range_error("bad conversion") when such a key is not UTF-8, and std::out_of_range when
  // a tag lies beyond the query.
  std::u16string BuildTaggedQuery(const std::u16string& query, const SortedTags& tags,
                                  const Combination& combination) const;

  // True when rule `rule` of the intent at position `intent` matches the whole of
  // `taggedQuery`. Throws RegexError when that rule did not compile or cannot be matched.
  bool MatchRule(const RegexSubject& taggedQuery, size_t intent, size_t rule) const;

 private:
  // A rule as Init left it: compiled, or the reason it did not compile.
  struct Rule {
    std::optional<Regex> regex;
    std::string error;
  };
  // What Process needs of an intent, in intentMap's order.
  struct Intent {
    std::vector<bool> accepts;  // by named key index
    std::vector<Rule> rules;
  };

  size_t maxCombinations;
  std::map<std::string, IntentConfig> intentMap;
  std::vector<Intent> intents_;
  // Every key that some intent's slots name, with its "<key>" marker (none when the key is not
  // UTF-8; a query that needs it then fails as it would converting it on the spot).
  std::map<std::string, uint32_t> key_index_;
  std::vector<std::optional<std::u16string>> markers_;
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_REGEX_PARSER_H_
