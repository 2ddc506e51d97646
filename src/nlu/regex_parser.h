// The second stage of the query pipeline: combines the tagger's tags into sequences of
// non-overlapping tags, rewrites the query with a "<name>" marker for each tag of a combination
// and matches the rewritten query against the intents' rules.
//
// A RegexParser is built whole from the intents and answers as if immutable afterwards (an
// intent's rules are compiled, once, by the first query that needs them): Parse may run on any
// number of threads at once.
#ifndef RULENLU_NLU_REGEX_PARSER_H_
#define RULENLU_NLU_REGEX_PARSER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/records.h"
#include "config/nlu_config.h"
#include "nlu/regex.h"
#include "nlu/tagger.h"

namespace rulenlu {

// What the exhaustive search (RegexParser::Explain) does with one query, step by step.
struct ParseTrace {
  struct IntentStep {
    std::string intent;
    bool accepted = false;       // the intent's slots accept every tag of the combination
    std::optional<size_t> rule;  // the first rule that matches the rewritten query, if one does
    std::string error;           // why matching failed (a rule that did not compile), if it did
  };
  struct Combination {
    std::vector<size_t> tags;  // positions in ParseTrace::tags
    std::u16string rewritten;
    std::string error;                // why the query could not be rewritten, if it could not
    std::vector<IntentStep> intents;  // every intent, in name order
  };
  struct Candidate {
    size_t combination;
    IntentCandidate candidate;
  };
  std::vector<SlotMatch> tags;  // in combination order
  std::vector<Combination> combinations;
  std::vector<Candidate> candidates;  // in the order found
};

// The bound of one query's rule matching, in UTF-16 units of text gone over: every rewritten
// query built and every match of an intent's rules counts its length. A query past it fails.
inline constexpr size_t kParseWorkBase = size_t{1} << 22;
inline constexpr size_t kParseWorkPerUnit = 1024;

class RegexParser {
 public:
  // Keeps each rule of `intent_map`, to be compiled as a POSIX extended expression when a query
  // first needs its intent. A rule that does not compile is kept with its reason, logs nothing
  // and fails a query only when Parse tries it.
  // `max_combinations` bounds the number of tag combinations built per query; the generation
  // that crosses it is still added in part.
  // Tags name their vocabulary by its position in `vocab_names`.
  RegexParser(const std::map<std::string, IntentConfig>& intent_map,
              std::vector<std::string> vocab_names, size_t max_combinations = 128);

  // The candidate that Ranker::Rank would choose among the candidates of the exhaustive search
  // (Explain), or nothing when there is none, where the exhaustive search yields one candidate
  // per (combination, intent) pair whose intent accepts every tag of the combination and has a
  // rule matching the whole rewritten query:
  //  - tags are ordered stably by key (byte-wise), then value (unit by unit, a prefix first);
  //  - a combination is a sequence of tags, each starting after the previous one ends (touching
  //    tags may follow one another); combinations are ordered tag by tag, a prefix first, and
  //    combinations differing only in where equal tags stand count once;
  //  - every one-tag combination is built, then one generation longer at a time while fewer
  //    than max_combinations are held; the generation that crosses the limit keeps the
  //    extensions up to and including those of the combination at which it was crossed;
  //  - the rewritten query is `query` with each tag of the combination replaced by "<key>";
  //  - intents come in name order, and only the first matching rule of an intent counts.
  // The candidate has version 0, the intent's name, `query` as text and the combination's tags
  // as slots. No tags give no candidate.
  // Candidates are tried in rank order and the search stops at the first whole match. Throws
  // Error when the exhaustive search would reach a rule that did not compile or a key that is
  // not UTF-8; and when, in rank order, a match cannot be carried out (RegexError) or the
  // matching goes past kParseWorkBase + kParseWorkPerUnit * query.size() units.
  std::optional<IntentCandidate> Parse(const std::u16string& query,
                                       std::vector<QueryTag> tags) const;

  // The steps of the exhaustive search for `query`: the tags in combination order, every
  // combination with its rewritten query and what each intent made of it, and the candidates
  // in the order found. Where matching fails (a rule that did not compile, a key that is not
  // UTF-8, a match that cannot be carried out), the step holds the reason and the trace goes
  // on; the work bound does not apply.
  ParseTrace Explain(const std::u16string& query, std::vector<QueryTag> tags) const;

 private:
  // An intent's rules as compiled.
  struct Rules {
    // The rules before the first one that did not compile, matched together; the reason of
    // that one, which fails every query that reaches it (empty when all compiled).
    RegexSet before_broken;
    std::string broken;
    bool may_begin_with_marker;  // some rule before the broken one may begin with "<"
    // Keys whose marker every whole match of those rules contains: in a query without "<" or
    // ">", only a combination holding a tag of each can match.
    std::vector<uint32_t> required_keys;
  };
  // What Parse needs of an intent, in name order. Its rules are compiled the first time a query
  // needs them, so that start-up compiles nothing a query never reaches.
  struct Intent {
    std::string name;
    std::vector<std::u16string> patterns;
    // The keys its slots name, with their markers, when markers cannot be mistaken for one
    // another (see RegexParser::RegexParser).
    std::vector<uint32_t> slot_keys;
    std::vector<std::u16string> slot_markers;
    mutable std::once_flag once;
    mutable std::unique_ptr<const Rules> rules;
    // `rules` once compiled: read without the once flag's call on every match.
    mutable std::atomic<const Rules*> compiled{nullptr};
  };

  // `intent`'s rules, compiled on the first call from any thread.
  const Rules& RulesOf(const Intent& intent) const;

  struct PreparedTags;
  struct Matching;

  // The first of `intent`'s rules that matches the whole of `subject`, or nothing; throws
  // RegexError when none before the first rule that did not compile matches.
  std::optional<size_t> MatchingRule(const Intent& intent, const RegexSubject& subject) const;

  // Sorts `tags` into tag order, with the intents that some combination of them reaches, into
  // `prepared`.
  void SortTags(std::u16string_view query, std::vector<QueryTag> tags,
                PreparedTags* prepared) const;
  // Builds the combinations of the sorted tags into `prepared`, calling visit(c, combination,
  // accepting) as each is made, `accepting` the intents (bit set) that accept all its tags.
  template <typename Visit>
  void Combine(PreparedTags* prepared, Visit&& visit) const;
  // The "<name>" marker of `tag`'s vocabulary. Throws ConversionError when the name is not UTF-8.
  const std::u16string& MarkerOf(const QueryTag& tag) const;
  // `query` with each tag of `path` (positions in `tags`, in order) replaced by its marker.
  void Rewrite(const std::u16string& query, const PreparedTags& tags,
               const std::vector<uint32_t>& path, std::u16string* rewritten) const;
  // The rewritten query of combination `c`, built unless `matching` holds it already.
  const RegexSubject& SubjectOf(uint32_t c, Matching* matching) const;
  // MatchingRule over combination `c`'s rewritten query, counted against the work bound.
  std::optional<size_t> Match(const Intent& intent, uint32_t c, Matching* matching) const;
  // The candidate of `intent` with the tags of combination `c` as slots.
  IntentCandidate MakeCandidate(const std::u16string& query, const Intent& intent,
                                const PreparedTags& tags, uint32_t c) const;

  size_t max_combinations_;
  std::vector<Intent> intents_;  // made at its final size: an Intent cannot move
  // Whether an intent compiled so far has a rule that did not compile.
  mutable std::atomic<bool> any_broken_rule_{false};
  bool any_unconvertible_key_ = false;
  std::vector<std::string> vocab_names_;
  // Per vocabulary: its key's index among the keys some intent names, or the number of those
  // keys when no intent names it; its "<name>" marker, or none when the name is not UTF-8.
  std::vector<uint32_t> vocab_keys_;
  std::vector<std::optional<std::u16string>> vocab_markers_;
  // Per key index (one more than there are keys): the bit set of the intents, in name order,
  // whose slots name it; intent_words_ words each. The last, for keys no intent names, is empty.
  size_t intent_words_ = 1;
  std::vector<uint64_t> key_intents_;
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_REGEX_PARSER_H_
